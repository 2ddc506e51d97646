#include "result_json.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace rulenlu {
namespace {

// Per byte: 0 when it stands as it is; else the letter after the backslash ('u': \u00XX).
constexpr char kEscapes[32] = {'u', 'u', 'u', 'u', 'u', 'u', 'u', 'u', 'b', 't', 'n',
                               'u', 'f', 'r', 'u', 'u', 'u', 'u', 'u', 'u', 'u', 'u',
                               'u', 'u', 'u', 'u', 'u', 'u', 'u', 'u', 'u', 'u'};

char EscapeOf(unsigned char byte) {
  if (byte < 0x20) return kEscapes[byte];
  return byte == '"' || byte == '\\' ? static_cast<char>(byte) : 0;
}

// Writes through a pointer into room made ahead (`Room`): no capacity check per byte.
class LineWriter {
 public:
  // Room for `text` written as a JSON string, at most.
  static size_t Room(std::string_view text) { return 2 + 6 * text.size(); }
  static constexpr size_t kIntRoom = 20;

  explicit LineWriter(char* out) : out_(out) {}
  char* end() const { return out_; }

  template <size_t N>
  void Literal(const char (&text)[N]) {
    out_ = std::copy(text, text + N - 1, out_);
  }

  void String(std::string_view text) {
    *out_++ = '"';
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      const char escape = EscapeOf(byte);
      if (escape == 0) {
        *out_++ = c;
        continue;
      }
      *out_++ = '\\';
      *out_++ = escape;
      if (escape == 'u') {
        constexpr char kHex[] = "0123456789ABCDEF";
        *out_++ = '0';
        *out_++ = '0';
        *out_++ = kHex[byte >> 4];
        *out_++ = kHex[byte & 15];
      }
    }
    *out_++ = '"';
  }

  void Int(int64_t value) { out_ = std::to_chars(out_, out_ + kIntRoom, value).ptr; }

  // `prefix` (punctuation and a member's quoted name), then the member's value.
  template <size_t N>
  void Member(const char (&prefix)[N], std::string_view value) {
    Literal(prefix);
    String(value);
  }
  template <size_t N>
  void Member(const char (&prefix)[N], int64_t value) {
    Literal(prefix);
    Int(value);
  }

 private:
  char* out_;
};

}  // namespace

void FormatResultJson(const NluResult& result, std::string* out) {
  constexpr size_t kLiterals = 64;  // the object's names and punctuation, and a slot's
  size_t room = kLiterals + LineWriter::kIntRoom + LineWriter::Room(result.intent) +
                LineWriter::Room(result.text);
  for (const NluSlot& slot : result.slots) {
    room += kLiterals + 2 * LineWriter::kIntRoom + LineWriter::Room(slot.key) +
            LineWriter::Room(slot.value);
  }
  out->resize(room);
  LineWriter writer(out->data());
  writer.Member("{\"version\":", result.version);
  writer.Member(",\"intent\":", result.intent);
  writer.Member(",\"text\":", result.text);
  writer.Literal(",\"slots\":[");
  for (size_t i = 0; i < result.slots.size(); ++i) {
    const NluSlot& slot = result.slots[i];
    if (i > 0) writer.Literal(",");
    writer.Member("{\"key\":", slot.key);
    writer.Member(",\"value\":", slot.value);
    writer.Member(",\"start\":", slot.start);
    writer.Member(",\"length\":", slot.length);
    writer.Literal("}");
  }
  writer.Literal("]}");
  out->resize(static_cast<size_t>(writer.end() - out->data()));
}

}  // namespace rulenlu
