#include "json_positions.h"

#include <algorithm>
#include <utility>

namespace rulenlu {
namespace {

// A recursive descent over valid JSON; the document nests at most kMaxJsonNesting deep, so the
// recursion stays shallow.
class SpotScanner {
 public:
  explicit SpotScanner(std::string_view text) : text_(text) {}

  JsonSpot Value() {
    SkipSpace();
    JsonSpot spot;
    spot.offset = at_;
    const char first = Peek();
    if (first == '{' || first == '[') {
      const char close = first == '{' ? '}' : ']';
      ++at_;
      SkipSpace();
      while (at_ < text_.size() && Peek() != close) {
        size_t name = 0;
        if (first == '{') {
          name = at_;
          SkipString();
          SkipSpace();
          ++at_;  // ':'
        }
        JsonSpot child = Value();
        child.name_offset = name;
        spot.children.push_back(std::move(child));
        SkipSpace();
        if (Peek() == ',') ++at_;
        SkipSpace();
      }
      ++at_;
    } else if (first == '"') {
      SkipString();
    } else {
      while (at_ < text_.size() && !IsDelimiter(text_[at_])) ++at_;
    }
    return spot;
  }

 private:
  static bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
  static bool IsDelimiter(char c) { return IsSpace(c) || c == ',' || c == ']' || c == '}'; }
  char Peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  void SkipSpace() {
    while (at_ < text_.size() && IsSpace(text_[at_])) ++at_;
  }
  void SkipString() {
    for (++at_; at_ < text_.size() && text_[at_] != '"'; ++at_) {
      if (text_[at_] == '\\') ++at_;
    }
    ++at_;
  }

  std::string_view text_;
  size_t at_ = 0;
};

}  // namespace

JsonSpot ScanJsonSpots(std::string_view text) { return SpotScanner(text).Value(); }

LineIndex::LineIndex(std::string_view text) : starts_{0} {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n') starts_.push_back(i + 1);
  }
}

TextPosition LineIndex::At(size_t offset) const {
  const size_t line = static_cast<size_t>(std::upper_bound(starts_.begin(), starts_.end(), offset) -
                                          starts_.begin());
  return {line, offset - starts_[line - 1] + 1};
}

}  // namespace rulenlu
