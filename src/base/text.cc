#include "base/text.h"

#include "base/error.h"

namespace rulenlu {
namespace {

// Keeps the first `written` units of `out`, what was converted before the fault, and throws.
template <typename Text>
[[noreturn]] void BadConversion(Text* out, size_t written) {
  out->resize(written);
  throw ConversionError();
}

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

}  // namespace

void AppendUtf8ToUtf16(std::string_view utf8, std::u16string* out) {
  // Never more units than bytes: written in place, then cut to the units written.
  const size_t old_size = out->size();
  out->resize(old_size + utf8.size());
  char16_t* const begin = out->data();
  char16_t* o = begin + old_size;
  const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  const auto* end = p + utf8.size();
  const auto written = [&] { return static_cast<size_t>(o - begin); };
  while (p < end) {
    const unsigned char lead = *p;
    if (lead < 0x80) {
      *o++ = static_cast<char16_t>(lead);
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
      BadConversion(out, written());  // a stray continuation byte or an invalid lead byte
    }
    if (end - p <= extra) BadConversion(out, written());  // truncated sequence
    for (int i = 1; i <= extra; ++i) {
      if (!IsContinuation(p[i])) BadConversion(out, written());
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) BadConversion(out, written());
    p += extra + 1;
    if (cp < 0x10000) {
      *o++ = static_cast<char16_t>(cp);
    } else {
      cp -= 0x10000;
      *o++ = static_cast<char16_t>(0xD800 + (cp >> 10));
      *o++ = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    }
  }
  out->resize(written());
}

void AppendUtf16ToUtf8(std::u16string_view utf16, std::string* out) {
  // The exact size first (a surrogate counts 2 bytes, so a pair 4), then written in place.
  size_t bytes = 0;
  for (const char16_t unit : utf16) {
    bytes += 1 + (unit >= 0x80) + (unit >= 0x800) - ((unit & 0xF800) == 0xD800);
  }
  const size_t old_size = out->size();
  out->resize(old_size + bytes);
  char* const begin = out->data();
  char* o = begin + old_size;
  for (size_t i = 0; i < utf16.size(); ++i) {
    char32_t cp = utf16[i];
    if (cp < 0x80) {
      *o++ = static_cast<char>(cp);
      continue;
    }
    if (cp >= 0xD800 && cp <= 0xDFFF) {
      const bool paired =
          cp <= 0xDBFF && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 && utf16[i + 1] <= 0xDFFF;
      if (!paired) BadConversion(out, static_cast<size_t>(o - begin));
      cp = 0x10000 + ((cp - 0xD800) << 10) + (utf16[++i] - 0xDC00);
    }
    if (cp < 0x800) {
      *o++ = static_cast<char>(0xC0 | (cp >> 6));
      *o++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      *o++ = static_cast<char>(0xE0 | (cp >> 12));
      *o++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *o++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      *o++ = static_cast<char>(0xF0 | (cp >> 18));
      *o++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      *o++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *o++ = static_cast<char>(0x80 | (cp & 0x3F));
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
