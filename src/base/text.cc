#include "base/text.h"

#include "base/error.h"

namespace rulenlu {
namespace {

[[noreturn]] void BadConversion() { throw ConversionError(); }

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

}  // namespace

void AppendUtf8ToUtf16(std::string_view utf8, std::u16string* out) {
  out->reserve(out->size() + utf8.size());
  const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  const auto* end = p + utf8.size();
  while (p < end) {
    const unsigned char lead = *p;
    if (lead < 0x80) {
      out->push_back(static_cast<char16_t>(lead));
      ++p;
      continue;
    }
    int extra;
    char32_t cp;
    char32_t min;
    if ((lead & 0xE0) == 0xC0) {
      extra = 1, cp = lead & 0x1F, min = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      extra = 2, cp = lead & 0x0F, min = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      extra = 3, cp = lead & 0x07, min = 0x10000;
    } else {
      BadConversion();  // a stray continuation byte or an invalid lead byte
    }
    if (end - p <= extra) BadConversion();  // truncated sequence
    for (int i = 1; i <= extra; ++i) {
      if (!IsContinuation(p[i])) BadConversion();
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) BadConversion();
    p += extra + 1;
    if (cp < 0x10000) {
      out->push_back(static_cast<char16_t>(cp));
    } else {
      cp -= 0x10000;
      out->push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out->push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    }
  }
}

void AppendUtf16ToUtf8(std::u16string_view utf16, std::string* out) {
  out->reserve(out->size() + utf16.size());
  for (size_t i = 0; i < utf16.size(); ++i) {
    char32_t cp = utf16[i];
    if (cp >= 0xD800 && cp <= 0xDFFF) {
      const bool paired =
          cp <= 0xDBFF && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 && utf16[i + 1] <= 0xDFFF;
      if (!paired) BadConversion();
      cp = 0x10000 + ((cp - 0xD800) << 10) + (utf16[++i] - 0xDC00);
    }
    if (cp < 0x80) {
      out->push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
}

std::u16string Utf8ToUtf16(std::string_view utf8) {
  std::u16string out;
  AppendUtf8ToUtf16(utf8, &out);
  return out;
}

std::string Utf16ToUtf8(std::u16string_view utf16) {
  std::string out;
  AppendUtf16ToUtf8(utf16, &out);
  return out;
}

}  // namespace rulenlu
