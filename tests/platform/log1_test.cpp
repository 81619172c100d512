#include "platform/log1.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

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

namespace {

// Standard error sent to a file for the life of the object, as the service
// manager sends it to the journal's socket; JOURNAL_STREAM names that file
// when `named`, and the trace library reads its settings again.
class StderrToFile {
 public:
  StderrToFile(const std::string& path, bool named) {
    std::fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    dup2(fd, STDERR_FILENO);
    close(fd);
    if (named) setenv("JOURNAL_STREAM", streamOf(STDERR_FILENO).c_str(), 1);
  }
  ~StderrToFile() {
    std::fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    unsetenv("JOURNAL_STREAM");
    LOG1_Reconfigure();
  }
  StderrToFile(const StderrToFile&) = delete;
  StderrToFile& operator=(const StderrToFile&) = delete;

  // "DEV:INODE" of an open descriptor, as the service manager writes it.
  static std::string streamOf(int fd) {
    struct stat info;
    if (fstat(fd, &info) != 0) return "";
    return std::to_string(static_cast<unsigned long long>(info.st_dev)) + ":" +
           std::to_string(static_cast<unsigned long long>(info.st_ino));
  }

 private:
  int saved_ = -1;
};

// Traces to standard error at `mask`.
void traceToStderr(unsigned mask) {
  unsetenv("QOR_TRACE_FILE");
  setenv("QOR_TRACE_LEVEL", std::to_string(mask).c_str(), 1);
  LOG1_Reconfigure();
}

// A line of traceAtEveryLevel or tracedReturn as the journal gets it.
std::regex journalLine(const std::string& priority, const std::string& rest) {
  return std::regex("^<" + priority + R"(>\[\d+\] log1_test\.cpp \w+:\d+ )" + rest + "$");
}

// The same line anywhere else, with its time and no priority.
std::regex timedLine(const std::string& rest) {
  return std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d+\] log1_test\.cpp \w+:\d+ )" + rest + "$");
}

}  // namespace

TEST(TraceLibrary, UnderTheJournalErrorsTakePriorityThreeEveryOtherLevelSevenAndNoLineATime) {
  qortest::TempDir dir;
  {
    StderrToFile journal(dir.file("journal"), true);
    traceToStderr(1 | 16 | 146 | 256 | 64);
    traceAtEveryLevel();
    EXPECT_EQ(42, tracedReturn());
  }
  std::vector<std::string> lines = qortest::linesWith(qortest::readFile(dir.file("journal")), "");
  ASSERT_EQ(9u, lines.size());
  const char* const expected[][2] = {
      {"7", "> entry"},    {"7", "detail 1"}, {"7", "queue 16"}, {"7", "story 146"},    {"3", "error 128"},
      {"7", "status 256"}, {"7", "< exit"},   {"7", "> entry"},  {"7", "< exit rc=42"},
  };
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(std::regex_match(lines[i], journalLine(expected[i][0], expected[i][1])))
        << i << ": " << lines[i];
  }
}

TEST(TraceLibrary, ATraceFileKeepsItsTimesAndNoPriorityEvenWhenStandardErrorIsTheJournal) {
  qortest::TempDir dir;
  std::string journalText;
  {
    StderrToFile journal(dir.file("journal"), true);
    qortest::traceTo(dir.file("trace"), 128);
    traceAtEveryLevel();
    journalText = qortest::readFile(dir.file("journal"));
  }
  EXPECT_EQ("", journalText);
  std::vector<std::string> lines = qortest::linesWith(qortest::readFile(dir.file("trace")), "");
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(std::regex_match(lines[0], timedLine("error 128"))) << lines[0];
}

TEST(TraceLibrary, StandardErrorThatJournalStreamDoesNotNameKeepsTheTimes) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("other"), "");
  {
    StderrToFile notJournal(dir.file("stderr"), false);
    int other = open(dir.file("other").c_str(), O_RDONLY | O_CLOEXEC);
    setenv("JOURNAL_STREAM", StderrToFile::streamOf(other).c_str(), 1);
    close(other);
    traceToStderr(128);
    traceAtEveryLevel();
  }
  std::vector<std::string> lines = qortest::linesWith(qortest::readFile(dir.file("stderr")), "");
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(std::regex_match(lines[0], timedLine("error 128"))) << lines[0];
}

TEST(TraceLibrary, AJournalStreamMustNameTheDescriptorsDeviceAndInodeExactlyAndNoTerminal) {
  qortest::TempDir dir;
  int fd = open(dir.file("stream").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  struct stat info;
  ASSERT_EQ(0, fstat(fd, &info));
  const std::string device = std::to_string(static_cast<unsigned long long>(info.st_dev));
  const std::string inode = std::to_string(static_cast<unsigned long long>(info.st_ino));
  unsetenv("JOURNAL_STREAM");
  EXPECT_FALSE(LOG1_IsJournalStream(fd));
  setenv("JOURNAL_STREAM", (device + ":" + inode).c_str(), 1);
  EXPECT_TRUE(LOG1_IsJournalStream(fd));
  EXPECT_FALSE(LOG1_IsJournalStream(-1));
  for (const std::string& wrong :
       {device + ":" + std::to_string(info.st_ino + 1), device + ":", ":" + inode, device + ":" + inode + " ",
        " " + device + ":" + inode, device + ":-" + inode, device + inode, std::string()}) {
    setenv("JOURNAL_STREAM", wrong.c_str(), 1);
    EXPECT_FALSE(LOG1_IsJournalStream(fd)) << "'" << wrong << "'";
  }
  close(fd);

  // A terminal is never the journal, whatever the variable says.
  int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(0, grantpt(master));
  ASSERT_EQ(0, unlockpt(master));
  int terminal = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(terminal, 0);
  setenv("JOURNAL_STREAM", StderrToFile::streamOf(terminal).c_str(), 1);
  EXPECT_FALSE(LOG1_IsJournalStream(terminal));
  close(terminal);
  close(master);
  unsetenv("JOURNAL_STREAM");
}

TEST(TraceLibrary, AReopenAfterTheFileWasMovedWritesTheNextLinesToANewFileAtThePath) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  traceAtEveryLevel();
  ASSERT_EQ(0, rename(dir.file("trace").c_str(), dir.file("trace.1").c_str()));
  traceAtEveryLevel();  // still the moved file, until the reopen
  EXPECT_TRUE(LOG1_ReopenFile());
  traceAtEveryLevel();
  EXPECT_EQ(2, qortest::countOccurrences(qortest::readFile(dir.file("trace.1")), "error 128\n"));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "error 128\n"));
  // A second reopen without a move appends to the same file.
  EXPECT_TRUE(LOG1_ReopenFile());
  traceAtEveryLevel();
  EXPECT_EQ(2, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "error 128\n"));
}

TEST(TraceLibrary, AReopenWithoutATraceFileChangesNothing) {
  qortest::TempDir dir;
  {
    StderrToFile stderrFile(dir.file("stderr"), false);
    traceToStderr(128);
    EXPECT_FALSE(LOG1_ReopenFile());
    traceAtEveryLevel();
  }
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("stderr")), "error 128\n"));
}

TEST(TraceLibrary, AReopenThatCannotOpenThePathKeepsTracingToTheOldFile) {
  qortest::TempDir dir;
  ASSERT_EQ(0, mkdir(dir.file("logs").c_str(), 0755));
  qortest::traceTo(dir.file("logs/trace"), 128);
  ASSERT_EQ(0, rename(dir.file("logs").c_str(), dir.file("old").c_str()));
  std::string complaint;
  {
    StderrToFile stderrFile(dir.file("stderr"), false);
    EXPECT_FALSE(LOG1_ReopenFile());
    traceAtEveryLevel();
    complaint = qortest::readFile(dir.file("stderr"));
  }
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("old/trace")), "error 128\n"));
  EXPECT_EQ("qor: cannot reopen trace file " + dir.file("logs/trace") +
                " (No such file or directory); tracing on to the file as it was\n",
            complaint);
}

TEST(TraceLibrary, NoLineIsLostOrSplitWhileTheFileIsMovedAndReopenedUnderManyThreads) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  // The threads trace until the last move is done, and the moves begin once
  // each of them is tracing: however fast or slow the threads run, every
  // move and reopen falls among their lines.
  constexpr int kMoves = 20;
  std::atomic<bool> stop{false};
  std::array<std::atomic<int>, 4> perThread{};
  std::vector<std::thread> threads;
  for (std::atomic<int>& mine : perThread) {
    threads.emplace_back([&stop, &mine] {
      while (!stop.load()) {
        traceAtEveryLevel();
        ++mine;
      }
    });
  }
  ASSERT_TRUE(qortest::waitFor(
      [&perThread] {
        return std::all_of(perThread.begin(), perThread.end(), [](const std::atomic<int>& n) { return n > 0; });
      },
      10000));
  for (int moves = 1; moves <= kMoves; ++moves) {
    ASSERT_EQ(0, rename(dir.file("trace").c_str(), dir.file("trace." + std::to_string(moves)).c_str()));
    ASSERT_TRUE(LOG1_ReopenFile());
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  stop.store(true);
  for (std::thread& thread : threads) thread.join();
  int total = 0;
  for (int i = 1; i <= kMoves; ++i) {
    std::string text = qortest::readFile(dir.file("trace." + std::to_string(i)));
    for (const std::string& line : qortest::linesWith(text, "")) ASSERT_EQ(0u, line.find("20")) << line;
    total += qortest::countOccurrences(text, "error 128\n");
    EXPECT_EQ(static_cast<int>(qortest::linesWith(text, "").size()),
              qortest::countOccurrences(text, "error 128\n"));
  }
  total += qortest::countOccurrences(qortest::readFile(dir.file("trace")), "error 128\n");
  int traced = 0;
  for (const std::atomic<int>& mine : perThread) traced += mine.load();
  EXPECT_EQ(traced, total);
}
