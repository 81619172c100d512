#include "core/qorutil.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <thread>
#include <vector>

#include "support/qortest.h"

TEST(TextConversion, RoundTripInTheEnvironmentsLocale) {
  setenv("LC_ALL", "C.UTF-8", 1);
  EXPECT_EQ(L"caf\u00e9", qor_mbstowcs("caf\xc3\xa9"));
  char* narrow = qor_wcstombs(L"caf\u00e9");
  EXPECT_STREQ("caf\xc3\xa9", narrow);
  delete[] narrow;
  EXPECT_EQ("plain", qor_narrow(L"plain"));
}

TEST(TextConversion, OneInvalidByteEmptiesTheWholeText) {
  setenv("LC_ALL", "C.UTF-8", 1);
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  EXPECT_EQ(L"", qor_mbstowcs("good \xff bad"));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "mbstowcs returned -1"));
  EXPECT_EQ(L"", qor_mbstowcs(nullptr));
}

// Each conversion sets the locale again; threads that convert at the same
// time must each get their own text whole (and make no report under
// ThreadSanitizer).
TEST(TextConversion, ACharacterTheLocaleCannotExpressKeepsWhatCameBeforeAndNothingElse) {
  // A character outside the C locale ends the conversion. The memory the
  // result is built in held other text before: none of it may show through.
  setenv("LC_ALL", "C", 1);
  const std::wstring text = L"ab\u00ff" + std::wstring(60, L'c');
  for (int round = 0; round < 20; ++round) {
    char* earlier = new char[text.size() * 4 + 1];
    std::memset(earlier, 'x', text.size() * 4);
    earlier[text.size() * 4] = '\0';
    delete[] earlier;
    EXPECT_EQ("ab", qor_narrow(text));
  }
}

TEST(TextConversion, ThreadsThatConvertAtOnceEachGetTheirText) {
  setenv("LC_ALL", "C.UTF-8", 1);
  std::vector<int> wrong(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &wrong] {
      const std::wstring wide = L"caf\u00e9 " + std::to_wstring(t);
      const std::string narrow = "caf\xc3\xa9 " + std::to_string(t);
      for (int i = 0; i < 200; ++i) {
        if (qor_narrow(wide) != narrow) ++wrong[t];
        if (qor_mbstowcs(narrow.c_str()) != wide) ++wrong[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(4, 0), wrong);
}

TEST(Environment, TheFirstValueReadStaysForTheLifeOfTheProcess) {
  setenv("QOR_TEST_VAR", "first", 1);
  EXPECT_EQ(L"first", QOR_GetEnvironment(L"QOR_TEST_VAR"));
  setenv("QOR_TEST_VAR", "second", 1);
  EXPECT_EQ(L"first", QOR_GetEnvironment(L"QOR_TEST_VAR"));
  EXPECT_EQ(L"first", GetEnvVarValue(L"QOR_TEST_VAR"));
}

TEST(Environment, AnEmptyValueIsNotCachedAndIsAskedForAgain) {
  setenv("QOR_TEST_EMPTY", "", 1);
  EXPECT_EQ(L"", QOR_GetEnvironment(L"QOR_TEST_EMPTY"));
  setenv("QOR_TEST_EMPTY", "now", 1);
  EXPECT_EQ(L"now", QOR_GetEnvironment(L"QOR_TEST_EMPTY"));
}

TEST(Environment, UnsetGivesEmptyWithATrace) {
  unsetenv("QOR_TEST_UNSET");
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 1);
  EXPECT_EQ(L"", QOR_GetEnvironment(L"QOR_TEST_UNSET"));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Env variable QOR_TEST_UNSET not defined.\n"));
}

TEST(Environment, OneTrailingSlashOfMarlowhomeGoes) {
  setenv("MARLOWHOME", "/opt/suite/", 1);
  EXPECT_EQ(L"/opt/suite", QOR_GetEnvironment(L"MARLOWHOME"));
}

TEST(Environment, OnlyOneOfTwoTrailingSlashesOfMarlowhomeGoes) {
  setenv("MARLOWHOME", "/opt/suite//", 1);
  EXPECT_EQ(L"/opt/suite/", QOR_GetEnvironment(L"MARLOWHOME"));
}

TEST(Environment, OtherVariablesKeepTheirSlash) {
  setenv("QOR_TEST_DIR", "/opt/dir/", 1);
  EXPECT_EQ(L"/opt/dir/", QOR_GetEnvironment(L"QOR_TEST_DIR"));
}

TEST(Environment, CachedEntriesAreNeverReplaced) {
  SetEnvVarValue(L"key", L"one");
  SetEnvVarValue(L"key", L"two");
  SetEnvVarValue(L"", L"ignored");
  EXPECT_EQ(L"one", GetEnvVarValue(L"key"));
  EXPECT_EQ(L"", GetEnvVarValue(L""));
}

TEST(Environment, NumbersAreDigitsOnly) {
  int value = 99;
  unsetenv("QOR_TEST_NUMBER");
  EXPECT_FALSE(QOR_GetEnvironmentAsInt("QOR_TEST_NUMBER", value));
  EXPECT_EQ(0, value);
  setenv("QOR_TEST_NUMBER", "42", 1);
  EXPECT_TRUE(QOR_GetEnvironmentAsInt("QOR_TEST_NUMBER", value));
  EXPECT_EQ(42, value);
  setenv("QOR_TEST_NUMBER", "-5", 1);
  EXPECT_FALSE(QOR_GetEnvironmentAsInt("QOR_TEST_NUMBER", value));
  EXPECT_EQ(0, value);
  setenv("QOR_TEST_NUMBER", "4x", 1);
  EXPECT_FALSE(QOR_GetEnvironmentAsInt("QOR_TEST_NUMBER", value));
  setenv("QOR_TEST_NUMBER", "", 1);
  value = 7;
  EXPECT_TRUE(QOR_GetEnvironmentAsInt("QOR_TEST_NUMBER", value));
  EXPECT_EQ(0, value);
  setenv("QOR_TEST_NUMBER", "99999999999", 1);
  EXPECT_TRUE(QOR_GetEnvironmentAsInt("QOR_TEST_NUMBER", value));
  EXPECT_EQ(2147483647, value);
}

TEST(Environment, NumbersAreNotCached) {
  int value = 0;
  setenv("QOR_TEST_NUMBER", "1", 1);
  EXPECT_TRUE(QOR_GetEnvironmentAsInt("QOR_TEST_NUMBER", value));
  setenv("QOR_TEST_NUMBER", "2", 1);
  EXPECT_TRUE(QOR_GetEnvironmentAsInt("QOR_TEST_NUMBER", value));
  EXPECT_EQ(2, value);
}

TEST(Files, ExistsForFilesAndDirectoriesButNotMissingPaths) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("f"), "x");
  mkdir(dir.file("d").c_str(), 0755);
  EXPECT_TRUE(FileExists(qor_mbstowcs(dir.file("f").c_str())));
  EXPECT_TRUE(FileExists(qor_mbstowcs(dir.file("d").c_str())));
  qortest::traceTo(dir.file("trace"), 1);
  EXPECT_FALSE(FileExists(qor_mbstowcs(dir.file("missing").c_str())));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "File not found " + dir.file("missing") + ". Error code (2).\n"));
}
