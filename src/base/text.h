// Conversion between the host's UTF-8 text and the UTF-16 text the engine matches on.
//
// Every offset and length the engine reports counts UTF-16 code units: a character beyond
// U+FFFF counts 2. Both directions are strict and keep no state, so any number of threads may
// convert at once.
#ifndef RULENLU_BASE_TEXT_H_
#define RULENLU_BASE_TEXT_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace rulenlu {

// Decodes UTF-8 into UTF-16. Throws ConversionError on anything that is not
// well-formed UTF-8: stray or missing continuation bytes, overlong forms, encoded surrogates and
// code points above U+10FFFF. A byte-order mark is kept as the character U+FEFF.
std::u16string Utf8ToUtf16(std::string_view utf8);

// Encodes UTF-16 into UTF-8. Throws ConversionError on a lone surrogate.
std::string Utf16ToUtf8(std::u16string_view utf16);

// Same as above, appending to `out`; on failure `out` holds a partial result.
void AppendUtf8ToUtf16(std::string_view utf8, std::u16string* out);
void AppendUtf16ToUtf8(std::u16string_view utf16, std::string* out);

// The first four units of `text` packed into one number, a unit per 16 bits, the first highest
// and missing units as 0: texts compare (unit by unit, a prefix first) as their heads do,
// unless the heads are equal.
inline uint64_t TextHead(std::u16string_view text) {
  uint64_t head = 0;
  const size_t length = std::min<size_t>(text.size(), 4);
  for (size_t i = 0; i < length; ++i) head |= uint64_t{text[i]} << (48 - 16 * i);
  return head;
}

}  // namespace rulenlu

#endif  // RULENLU_BASE_TEXT_H_
