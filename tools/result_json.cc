#include "result_json.h"

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

void AppendString(std::string_view text, std::string* out) {
  out->push_back('"');
  size_t run = 0;  // start of the bytes not yet written, which need no escape
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const char escape = EscapeOf(byte);
    if (escape == 0) continue;
    out->append(text.data() + run, i - run);
    run = i + 1;
    out->push_back('\\');
    out->push_back(escape);
    if (escape == 'u') {
      constexpr char kHex[] = "0123456789ABCDEF";
      out->append("00");
      out->push_back(kHex[byte >> 4]);
      out->push_back(kHex[byte & 15]);
    }
  }
  out->append(text.data() + run, text.size() - run);
  out->push_back('"');
}

void AppendInt(int64_t value, std::string* out) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out->append(digits, static_cast<size_t>(end - digits));
}

}  // namespace

void FormatResultJson(const NluResult& result, std::string* out) {
  out->assign("{\"version\":");
  AppendInt(result.version, out);
  out->append(",\"intent\":");
  AppendString(result.intent, out);
  out->append(",\"text\":");
  AppendString(result.text, out);
  out->append(",\"slots\":[");
  for (size_t i = 0; i < result.slots.size(); ++i) {
    const NluSlot& slot = result.slots[i];
    out->append(i == 0 ? "{\"key\":" : ",{\"key\":");
    AppendString(slot.key, out);
    out->append(",\"value\":");
    AppendString(slot.value, out);
    out->append(",\"start\":");
    AppendInt(slot.start, out);
    out->append(",\"length\":");
    AppendInt(slot.length, out);
    out->push_back('}');
  }
  out->append("]}");
}

}  // namespace rulenlu
