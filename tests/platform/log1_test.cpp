#include "platform/log1.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "support/qortest.h"

QOR_TRACE_UNIT();

namespace {

int evaluations = 0;

int countedArgument() { return ++evaluations; }

void traceAtEveryLevel() {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("detail %d\n", 1);
  QOR_TRACE_QUEUE("queue %d\n", 16);
  QOR_TRACE_STORY("story %d\n", 146);
  QOR_TRACE_ERROR("error %d\n", 128);
  QOR_TRACE_STATUS("status %d\n", 256);
}

void traceCounted() {
  QOR_TRACE_FUNCTION();
  QOR_TRACE_DETAIL("counted %d\n", countedArgument());
}

int tracedReturn() {
  QOR_TRACE_FUNCTION();
  return QOR_TRACE_RETURN(42);
}

}  // namespace

TEST(TraceLibrary, ErrorsOnlyIsTheDefaultLevel) {
  qortest::TempDir dir;
  unsetenv("QOR_TRACE_LEVEL");
  setenv("QOR_TRACE_FILE", dir.file("trace").c_str(), 1);
  LOG1_Reconfigure();
  EXPECT_EQ(128u, LOG1_GetMask());
  traceAtEveryLevel();
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "error 128"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "detail"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "story"));
}

TEST(TraceLibrary, EachLevelTestsItsOwnBits) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 1 | 16 | 256);
  traceAtEveryLevel();
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "detail 1"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "queue 16"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "status 256"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "error 128"));
  // 146 needs 128, 16 and 2 all at once; 16 alone is not enough.
  EXPECT_EQ(0, qortest::countOccurrences(trace, "story 146"));
}

TEST(TraceLibrary, StoryLevelNeedsAllThreeBits) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("a"), 128 | 16);
  traceAtEveryLevel();
  EXPECT_EQ(0, qortest::countOccurrences(qortest::readFile(dir.file("a")), "story 146"));
  qortest::traceTo(dir.file("b"), 146);
  traceAtEveryLevel();
  std::string trace = qortest::readFile(dir.file("b"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "story 146"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "queue 16"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "error 128"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "detail 1"));
}

TEST(TraceLibrary, LevelChangeIsSeenAtNextEntryThroughTheGeneration) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  traceAtEveryLevel();  // caches the flags at this generation
  unsigned before = LOG1__UNIT_.generation.load();
  LOG1_SetMask(1);
  EXPECT_NE(before, LOG1__UNIT_.generation.load());
  EXPECT_EQ(1u, LOG1_GetMask());
  traceAtEveryLevel();
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "error 128"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "detail 1"));
}

TEST(TraceLibrary, DisabledLevelEvaluatesNoArgument) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  evaluations = 0;
  traceCounted();
  EXPECT_EQ(0, evaluations);
  LOG1_SetMask(1);
  traceCounted();
  EXPECT_EQ(1, evaluations);
}

TEST(TraceLibrary, LineCarriesTimeThreadFileFunctionLineAndText) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  traceAtEveryLevel();
  std::vector<std::string> lines = qortest::linesWith(qortest::readFile(dir.file("trace")), "error 128");
  ASSERT_EQ(1u, lines.size());
  // 2026-11-22 10:11:12.345 [1234] log1_test.cpp traceAtEveryLevel:NN error 128
  EXPECT_TRUE(std::regex_search(lines[0], std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d+\] )"
                                                     R"(log1_test\.cpp traceAtEveryLevel:\d+ error 128$)")))
      << lines[0];
}

TEST(TraceLibrary, EntryAndExitWithBit64) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 64);
  EXPECT_EQ(42, tracedReturn());
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(2, qortest::countOccurrences(trace, "tracedReturn:"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "> entry"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "< exit rc=42"));
}

TEST(TraceLibrary, WideArgumentsAreWrittenAsUtf8) {
  EXPECT_EQ("caf\xc3\xa9 \xe2\x82\xac", LOG1_Narrow(std::wstring(L"caf\u00e9 \u20ac")));
}

TEST(TraceLibrary, LinesOfManyThreadsNeverInterleave) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 200; ++i) traceAtEveryLevel();
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::string trace = qortest::readFile(dir.file("trace"));
  std::vector<std::string> lines = qortest::linesWith(trace, "");
  EXPECT_EQ(800u, lines.size());
  for (const std::string& line : lines) ASSERT_EQ(0u, line.find("20")) << line;
  EXPECT_EQ(800, qortest::countOccurrences(trace, "error 128\n"));
}
