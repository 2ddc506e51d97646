#include "base/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/error.h"

namespace rulenlu {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

TEST(Utf8ToUtf16, DecodesEveryEncodingLength) {
  EXPECT_EQ(Utf8ToUtf16("call Tom"), u"call Tom");
  // The first and last code point of each length; beyond U+FFFF, a surrogate pair of two units.
  EXPECT_EQ(
      Utf8ToUtf16("\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"),
      std::u16string({0x7F, 0x80, 0x7FF, 0x800, 0xFFFF, 0xD800, 0xDC00, 0xDBFF, 0xDFFF}));
  EXPECT_EQ(Utf8ToUtf16("\xF0\x9F\x98\x80x"), std::u16string({0xD83D, 0xDE00, u'x'}));
  // A byte-order mark is an ordinary character, both ways.
  EXPECT_EQ(Utf8ToUtf16("\xEF\xBB\xBFhi"), u"\uFEFFhi");
  EXPECT_EQ(Utf16ToUtf8(u"\uFEFF\u00E9\u4F1A"), "\xEF\xBB\xBF\xC3\xA9\xE4\xBC\x9A");
  EXPECT_EQ(Utf16ToUtf8(std::u16string({0xD83D, 0xDE00})), "\xF0\x9F\x98\x80");
}

TEST(Utf8ToUtf16, RejectsWhatIsNotWellFormed) {
  const auto rejected = ThrowsMessage<ConversionError>(StrEq("bad conversion"));
  // Stray and missing continuation bytes, overlong forms, encoded surrogates, values above
  // U+10FFFF, five-byte forms and bytes that never occur.
  for (const char* bytes :
       {"\x80", "a\xBF", "\xC3", "\xE4\xBC", "\xF0\x9F\x98", "\xC3(", "\xC0\xAF", "\xC1\xBF",
        "\xE0\x80\xAF", "\xF0\x80\x80\xAF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80",
        "\xF8\x88\x80\x80\x80", "\xFE", "\xFF"}) {
    EXPECT_THAT([&] { Utf8ToUtf16(bytes); }, rejected) << bytes;
  }
  // A sequence cut short by the end of the text, whatever follows in memory.
  EXPECT_THAT([] { Utf8ToUtf16(std::string_view("\xE4\xBC\x9A", 2)); }, rejected);
  // Lone surrogates.
  for (const std::u16string& units :
       {std::u16string({0xD83D}), std::u16string({0xDE00}), std::u16string({0xD83D, u'x'}),
        std::u16string({0xDE00, 0xD83D}), std::u16string({0xDC00, 0xDC00}),
        std::u16string({u'a', 0xDBFF})}) {
    EXPECT_THAT([&] { Utf16ToUtf8(units); }, rejected);
  }
}

TEST(Utf8ToUtf16, RoundTripsEveryScalarValue) {
  for (char32_t cp = 1; cp <= 0x10FFFF; cp += (cp < 0x3000 ? 1 : 61)) {
    if (cp >= 0xD800 && cp <= 0xDFFF) continue;
    const char16_t high = 0xD800 + ((cp - 0x10000) >> 10), low = 0xDC00 + ((cp - 0x10000) & 0x3FF);
    const std::u16string one = cp < 0x10000 ? std::u16string(1, cp) : std::u16string({high, low});
    ASSERT_EQ(Utf8ToUtf16(Utf16ToUtf8(one)), one) << "code point " << static_cast<uint32_t>(cp);
  }
}

}  // namespace
}  // namespace rulenlu
