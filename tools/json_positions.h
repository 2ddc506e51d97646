// Where the values of a JSON document stand in its text, for messages that editors can follow.
#ifndef RULENLU_TOOLS_JSON_POSITIONS_H_
#define RULENLU_TOOLS_JSON_POSITIONS_H_

#include <cstddef>
#include <string_view>
#include <vector>

namespace rulenlu {

// One value of the document: where it starts, where its member name starts (members only), and
// its members or elements in document order, repeated member names included, as RapidJSON's
// DOM keeps them: the i-th child is the i-th member or element.
struct JsonSpot {
  size_t offset = 0;
  size_t name_offset = 0;
  std::vector<JsonSpot> children;
};

// The spots of `text`, which must be a document RapidJSON accepted (read up to its first NUL).
JsonSpot ScanJsonSpots(std::string_view text);

// 1-based line and column of a byte offset; the column counts bytes.
struct TextPosition {
  size_t line = 1;
  size_t column = 1;
};

// The line starts of a text, to turn offsets into positions.
class LineIndex {
 public:
  explicit LineIndex(std::string_view text);
  TextPosition At(size_t offset) const;

 private:
  std::vector<size_t> starts_;
};

}  // namespace rulenlu

#endif  // RULENLU_TOOLS_JSON_POSITIONS_H_
