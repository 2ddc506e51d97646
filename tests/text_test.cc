#include "engine/text.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace rulenlu {
namespace {

void ExpectRejected(const std::string& bytes) {
  try {
    Utf8ToUtf16(bytes);
    ADD_FAILURE() << "accepted bytes of length " << bytes.size();
  } catch (const std::range_error& e) {
    EXPECT_STREQ(e.what(), "bad conversion");
  }
}

TEST(Utf8ToUtf16, DecodesEveryEncodingLength) {
  EXPECT_EQ(Utf8ToUtf16(""), u"");
  EXPECT_EQ(Utf8ToUtf16("call Tom"), u"call Tom");
  EXPECT_EQ(Utf8ToUtf16("\xC3\xA9t\xC3\xA9"), u"\u00E9t\u00E9");
  EXPECT_EQ(Utf8ToUtf16("\xE4\xBC\x9A\xE8\xAE\xAE"), u"\u4F1A\u8BAE");
  // An astral character becomes a surrogate pair: two units.
  const std::u16string astral = Utf8ToUtf16("\xF0\x9F\x98\x80x");
  ASSERT_EQ(astral.size(), 3u);
  EXPECT_EQ(astral[0], 0xD83D);
  EXPECT_EQ(astral[1], 0xDE00);
  EXPECT_EQ(astral[2], u'x');
  EXPECT_EQ(Utf8ToUtf16("\xF4\x8F\xBF\xBF"), std::u16string({0xDBFF, 0xDFFF}));
  // Boundaries of each length.
  EXPECT_EQ(Utf8ToUtf16("\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"),
            std::u16string({0x7F, 0x80, 0x7FF, 0x800, 0xFFFF}));
}

TEST(Utf8ToUtf16, KeepsByteOrderMarkAsCharacter) {
  const std::u16string text = Utf8ToUtf16("\xEF\xBB\xBFhi");
  ASSERT_EQ(text.size(), 3u);
  EXPECT_EQ(text[0], 0xFEFF);
  EXPECT_EQ(Utf16ToUtf8(text), "\xEF\xBB\xBFhi");
}

TEST(Utf8ToUtf16, RejectsMalformedInput) {
  ExpectRejected("\x80");                  // stray continuation byte
  ExpectRejected("a\xBF");                 // stray continuation after ASCII
  ExpectRejected("\xC3");                  // truncated two-byte form
  ExpectRejected("\xE4\xBC");              // truncated three-byte form
  ExpectRejected("\xF0\x9F\x98");          // truncated four-byte form
  ExpectRejected("\xC3(");                 // lead byte followed by a non-continuation
  ExpectRejected("\xC0\xAF");              // overlong '/'
  ExpectRejected("\xC1\xBF");              // overlong two-byte
  ExpectRejected("\xE0\x80\xAF");          // overlong three-byte
  ExpectRejected("\xF0\x80\x80\xAF");      // overlong four-byte
  ExpectRejected("\xED\xA0\x80");          // encoded high surrogate
  ExpectRejected("\xED\xBF\xBF");          // encoded low surrogate
  ExpectRejected("\xF4\x90\x80\x80");      // above U+10FFFF
  ExpectRejected("\xF8\x88\x80\x80\x80");  // five-byte form
  ExpectRejected("\xFE");
  ExpectRejected("\xFF");
}

TEST(Utf16ToUtf8, EncodesPairsAndRejectsLoneSurrogates) {
  EXPECT_EQ(Utf16ToUtf8(std::u16string({0xD83D, 0xDE00})), "\xF0\x9F\x98\x80");
  EXPECT_EQ(Utf16ToUtf8(u"\u00E9\u4F1A"), "\xC3\xA9\xE4\xBC\x9A");
  for (const std::u16string& bad :
       {std::u16string({0xD83D}), std::u16string({0xDE00}), std::u16string({0xD83D, u'x'}),
        std::u16string({0xDE00, 0xD83D}), std::u16string({u'a', 0xDBFF})}) {
    EXPECT_THROW(Utf16ToUtf8(bad), std::range_error);
  }
}

TEST(Utf8ToUtf16, RoundTripsEveryScalarValue) {
  std::string all;
  for (char32_t cp = 1; cp <= 0x10FFFF; cp += (cp < 0x3000 ? 1 : 61)) {
    if (cp >= 0xD800 && cp <= 0xDFFF) continue;
    std::u16string one;
    if (cp < 0x10000) {
      one.push_back(static_cast<char16_t>(cp));
    } else {
      one.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
      one.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    }
    const std::string utf8 = Utf16ToUtf8(one);
    ASSERT_EQ(Utf8ToUtf16(utf8), one) << "code point " << static_cast<uint32_t>(cp);
  }
}

TEST(Utf8ToUtf16, ConvertsFromManyThreadsAtOnce) {
  const std::string text = "r\xC3\xA9union \xF0\x9F\x93\x85 demain";
  const std::u16string expected = Utf8ToUtf16(text);
  std::vector<std::thread> threads;
  std::vector<int> mismatches(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        if (Utf8ToUtf16(text) != expected || Utf16ToUtf8(expected) != text) ++mismatches[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int count : mismatches) EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace rulenlu
