#include "cap/qorconv.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>

#include "platform/log1.h"
#include "support/qortest.h"

TEST(TextConversion, ShortTextStaysInTheCallersBuffer) {
  char buffer[16];
  int length = -1;
  int error = -1;
  char* result = qor_u_strToUTF8(buffer, sizeof buffer, &length, L"caf\u00e9", -1, &error);
  EXPECT_EQ(buffer, result);
  EXPECT_EQ(0, error);
  EXPECT_EQ(5, length);
  EXPECT_STREQ("caf\xc3\xa9", result);
}

TEST(TextConversion, SourceLengthLimitsTheText) {
  char buffer[16];
  int length = -1;
  int error = -1;
  char* result = qor_u_strToUTF8(buffer, sizeof buffer, &length, L"abcdef", 3, &error);
  EXPECT_STREQ("abc", result);
  EXPECT_EQ(3, length);
}

TEST(TextConversion, TextThatDoesNotFitGetsANewArray) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  std::wstring text(300, L'x');
  char buffer[8];
  int length = 0;
  int error = -1;
  char* result = qor_u_strToUTF8(buffer, sizeof buffer, &length, text.c_str(), -1, &error);
  ASSERT_NE(nullptr, result);
  EXPECT_NE(buffer, result);
  EXPECT_EQ(0, error);
  EXPECT_EQ(300, length);
  EXPECT_EQ(std::string(300, 'x'), std::string(result));
  delete[] result;
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Buffer too small.  Allocating new buffer.  Caller must free it."));
}

TEST(TextConversion, TextThatFillsTheBufferExactlyStillGetsItsTerminator) {
  char buffer[4];
  int length = 0;
  int error = -1;
  char* result = qor_u_strToUTF8(buffer, sizeof buffer, &length, L"abcd", -1, &error);
  ASSERT_NE(nullptr, result);
  EXPECT_NE(buffer, result);
  EXPECT_STREQ("abcd", result);
  EXPECT_EQ(4, length);
  delete[] result;
}

TEST(TextConversion, UnpairedSurrogateCannotBecomeUtf8) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR);
  char buffer[16];
  int length = 0;
  int error = 0;
  const wchar_t bad[] = {L'a', static_cast<wchar_t>(0xD800), L'b', 0};
  EXPECT_EQ(nullptr, qor_u_strToUTF8(buffer, sizeof buffer, &length, bad, -1, &error));
  EXPECT_EQ(QOR_CONVERSION_ERROR, error);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "converting from Unicode to UTF-8."));
}

TEST(TextConversion, Utf8BecomesUtf16) {
  UChar buffer[8];
  int length = 0;
  int error = -1;
  UChar* result = qor_ucharFromUTF8(buffer, 8, &length, "\xe2\x82\xac!", -1, &error);
  EXPECT_EQ(buffer, result);
  EXPECT_EQ(0, error);
  EXPECT_EQ(2, length);
  EXPECT_EQ(0x20AC, result[0]);
  EXPECT_EQ(u'!', result[1]);
  EXPECT_EQ(0, result[2]);
}

TEST(TextConversion, LongUtf8BecomesANewUtf16Array) {
  std::string text(200, 'y');
  UChar buffer[8];
  int length = 0;
  int error = -1;
  UChar* result = qor_ucharFromUTF8(buffer, 8, &length, text.c_str(), -1, &error);
  ASSERT_NE(nullptr, result);
  EXPECT_NE(buffer, result);
  EXPECT_EQ(200, length);
  EXPECT_EQ(0, result[200]);
  delete[] result;
}

TEST(TextConversion, InvalidUtf8IsRefused) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR);
  UChar units[8];
  wchar_t wide[8];
  int length = 0;
  int error = 0;
  EXPECT_EQ(nullptr, qor_ucharFromUTF8(units, 8, &length, "a\xff", -1, &error));
  EXPECT_EQ(QOR_CONVERSION_ERROR, error);
  error = 0;
  EXPECT_EQ(nullptr, qor_u_strFromUTF8(wide, 8, &length, "a\xff", -1, &error));
  EXPECT_EQ(QOR_CONVERSION_ERROR, error);
  EXPECT_EQ(
      2, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "converting from UTF-8 to UChar."));
}

TEST(TextConversion, Utf8BecomesWideText) {
  wchar_t buffer[8];
  int length = 0;
  int error = -1;
  wchar_t* result = qor_u_strFromUTF8(buffer, 8, &length,
                                      "\xf0\x9f\x98\x80"
                                      "ab",
                                      -1, &error);
  EXPECT_EQ(buffer, result);
  EXPECT_EQ(0, error);
  EXPECT_EQ(3, length);
  EXPECT_EQ(std::wstring(L"\U0001F600ab"), std::wstring(result));
}

TEST(TextConversion, PieceOfUtf8IsConvertedByLength) {
  wchar_t buffer[8];
  int length = 0;
  int error = -1;
  wchar_t* result = qor_u_strFromUTF8(buffer, 8, &length, "abcdef", 2, &error);
  EXPECT_EQ(std::wstring(L"ab"), std::wstring(result));
  EXPECT_EQ(2, length);
}

TEST(TextConversion, LongUtf8BecomesANewWideArrayAndFreesItsTemporary) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  std::string text(500, 'z');
  wchar_t buffer[16];
  int length = 0;
  int error = -1;
  wchar_t* result = qor_u_strFromUTF8(buffer, 16, &length, text.c_str(), -1, &error);
  ASSERT_NE(nullptr, result);
  EXPECT_NE(buffer, result);
  EXPECT_EQ(500, length);
  EXPECT_EQ(std::wstring(500, L'z'), std::wstring(result));
  delete[] result;
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Freeing the temporary UChar buffer."));
}

TEST(TextConversion, WideTextOfExactCapacityGetsANewArray) {
  wchar_t buffer[3];
  int length = 0;
  int error = -1;
  wchar_t* result = qor_u_strFromUTF8(buffer, 3, &length, "abc", -1, &error);
  ASSERT_NE(nullptr, result);
  EXPECT_NE(buffer, result);
  EXPECT_EQ(std::wstring(L"abc"), std::wstring(result));
  delete[] result;
}

TEST(TextConversion, Utf8HelperGivesAString) {
  EXPECT_EQ("\xc3\xbc", qor_utf8(L"\u00fc"));
  EXPECT_EQ(std::string(1000, 'q'), qor_utf8(std::wstring(1000, L'q')));
  EXPECT_EQ("", qor_utf8(L""));
}

TEST(ConvertedTextHolder, TextThatFitsStaysInItsStackBuffer) {
  ConvertedText<char, 16> utf8;
  EXPECT_EQ(16, utf8.capacity());
  EXPECT_EQ(utf8.buffer(), utf8.get());
  int length = 0;
  int error = -1;
  EXPECT_EQ(utf8.buffer(),
            utf8.adopt(qor_u_strToUTF8(utf8.buffer(), utf8.capacity(), &length, L"caf\u00e9", -1, &error)));
  EXPECT_FALSE(utf8.grown());
  EXPECT_STREQ("caf\xc3\xa9", utf8.get());
  EXPECT_EQ(5, length);
}

TEST(ConvertedTextHolder, LongerTextIsHeldInTheArrayTheConversionMade) {
  ConvertedText<wchar_t, 8> wide;
  const std::string text(300, 'w');
  int length = 0;
  int error = -1;
  wide.adopt(qor_u_strFromUTF8(wide.buffer(), wide.capacity(), &length, text.c_str(), -1, &error));
  ASSERT_NE(nullptr, wide.get());
  EXPECT_TRUE(wide.grown());
  EXPECT_NE(wide.buffer(), wide.get());
  EXPECT_EQ(300, length);
  EXPECT_EQ(std::wstring(300, L'w'), std::wstring(wide.get()));

  // A second conversion into the same holder frees the first array.
  wide.adopt(qor_u_strFromUTF8(wide.buffer(), wide.capacity(), &length, "ab", -1, &error));
  EXPECT_FALSE(wide.grown());
  EXPECT_EQ(std::wstring(L"ab"), std::wstring(wide.get()));
}

TEST(ConvertedTextHolder, FailedConversionLeavesNoText) {
  ConvertedText<UChar, 8> units;
  int length = 0;
  int error = 0;
  EXPECT_EQ(nullptr,
            units.adopt(qor_ucharFromUTF8(units.buffer(), units.capacity(), &length, "a\xff", -1, &error)));
  EXPECT_EQ(nullptr, units.get());
  EXPECT_FALSE(units.grown());
  EXPECT_EQ(QOR_CONVERSION_ERROR, error);
}

TEST(WideFormatting, FormatsIntoTheDestination) {
  char destination[64];
  EXPECT_EQ(10, QOR_swprintf(destination, sizeof destination, L"%ls=%d", L"value", 1234));
  EXPECT_STREQ("value=1234", destination);
}

TEST(WideFormatting, LongResultIsCutAndTerminated) {
  char destination[5];
  EXPECT_EQ(4, QOR_swprintf(destination, sizeof destination, L"%ls", L"abcdefgh"));
  EXPECT_STREQ("abcd", destination);
}

TEST(WideFormatting, TextTheLocaleCannotSpellIsAnError) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR);
  setlocale(LC_CTYPE, "C");
  char destination[32];
  EXPECT_EQ(-1, QOR_swprintf(destination, sizeof destination, L"%ls", L"\u00e9"));
  EXPECT_STREQ("", destination);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Error -1 converting wide data for trace."));
}
