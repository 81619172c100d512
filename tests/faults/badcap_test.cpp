// Entries of a CAP directory that are not CAP files at all: a FIFO, a
// directory, a symbolic link loop, a file of 100 MB, a file this process may
// not read. The service embedded in the test keeps supervising its healthy
// agent through each (a kill during the fault is restarted), traces the
// problem once at the error level however many polls go by, and takes the
// entry up once a good CAP file stands in its place.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "e2e/e2ehelp.h"
#include "e2e/embedded.h"
#include "faults/filemodes.h"
#include "support/qortest.h"

namespace {

using e2e::agentFor;

const char kPoll[] = "Size of currentFileList = ";
const char kParseFailed[] = "ParseCAPFile failed.\n";

// The peak resident size of this process, in kB.
long peakResidentKb() {
  for (const std::string& line : qortest::linesWith(qortest::readFile("/proc/self/status"), "VmHWM:")) {
    return std::atol(line.c_str() + 6);
  }
  return -1;
}

class BadCap : public e2e::EmbeddedService {
 protected:
  void SetUp() override {
    EmbeddedService::SetUp();
    // The watcher's polls are told at the running-story level (2, 16, 128).
    qortest::traceTo(work.file("trace"), 1 | 2 | 16 | 128 | 256);
  }
  void TearDown() override {
    if (stuck_) {
      // The command handler never came back: a release would wait for it
      // forever. End the process, having stopped what the test started.
      std::fprintf(stderr, "the service is stuck; ending the test process\n");
      for (const char* program : {"qorbcwelld", "qorbcbackd"}) {
        const int pid = programs.pid(program);
        if (pid > 0) kill(pid, SIGKILL);  // never 0: that is this whole process group
      }
      std::_Exit(1);
    }
    EmbeddedService::TearDown();
  }

  void startWithHealthyAgent() {
    programs.start("qorbcwelld");
    programs.install("qorbcbackd");
    programs.adopt("qorbcbackd");
    writeAgent("well.xml", agentFor("fault.well", "Well program", programs, "qorbcwelld", start, 3));
    startService();
    ASSERT_TRUE(waitForState("fault.well", 4, 15000)) << trace();
  }

  int polls() { return traced(kPoll); }
  bool waitForPolls(int count, int timeoutMs) {
    return qortest::waitFor([&] { return polls() >= count; }, timeoutMs);
  }

  // Puts `makeBad` in place as bad.xml, kills the healthy agent during the
  // fault, lets five polls go by and counts the error traces of `problem`;
  // then replaces the entry by a good CAP file and sees its agent come.
  void superviseThrough(const std::string& what, const std::function<void(const std::string&)>& makeBad,
                        const std::string& problem) {
    const std::string bad = caps.file("bad.xml");
    makeBad(bad);
    const long long begun = qortest::nowMs();
    ASSERT_TRUE(
        qortest::waitFor([&] { return traced("CAP file name that was added <" + bad + ">") == 1; }, 15000))
        << trace();
    const int pollsAtFault = polls();

    const int killed = programs.pid("qorbcwelld");
    ASSERT_GT(killed, 0);
    kill(killed, SIGKILL);
    stuck_ = !qortest::waitFor([&] { return heard.count("Well program", 7) == 1; }, 30000);
    ASSERT_FALSE(stuck_) << "the healthy agent was not restarted during the fault (" << what << ")\n"
                         << trace();
    const int restarted = programs.pid("qorbcwelld");
    EXPECT_NE(killed, restarted);
    EXPECT_EQ(4, seen("fault.well").state);

    ASSERT_TRUE(waitForPolls(pollsAtFault + 5, 45000)) << "fewer than five polls after the fault";
    const int pollsSeen = polls() - pollsAtFault;
    const int problemLines = traced(problem);
    const int parseLines = traced(kParseFailed);
    EXPECT_EQ(1, problemLines) << "expected the problem once: " << problem << "\n" << trace();
    EXPECT_EQ(1, parseLines) << trace();
    EXPECT_EQ(-1, seen("fault.bad").state);

    // The bad entry goes for at least one poll, then a good file comes in its place.
    ASSERT_EQ(0, std::system(("rm -rf '" + bad + "'").c_str()));
    ASSERT_TRUE(
        qortest::waitFor([&] { return traced("CAP file name that was deleted <" + bad + ">") == 1; }, 15000))
        << trace();
    programs.start("qorbcbackd");
    writeAgent("bad.xml", agentFor("fault.bad", "Back program", programs, "qorbcbackd", start, 3));
    ASSERT_TRUE(waitForState("fault.bad", 4, 20000)) << trace();
    EXPECT_EQ(1, traced(problem));
    EXPECT_EQ(1, traced(kParseFailed));
    EXPECT_EQ(1, heard.count("Well program", 7));

    std::printf(
        "SUMMARY badcap %s: polls seen %d, error lines for the problem %d, ParseCAPFile failed %d, "
        "restarts of the healthy agent during the fault %d, good file taken up again yes, %lld ms\n",
        what.c_str(), pollsSeen, problemLines, parseLines, heard.count("Well program", 7),
        qortest::nowMs() - begun);
  }

  bool stuck_ = false;
};

TEST_F(BadCap, AFifoInTheCapDirectoryDoesNotHangTheWatcherAndIsTracedOnce) {
  startWithHealthyAgent();
  superviseThrough(
      "fifo", [](const std::string& path) { ASSERT_EQ(0, mkfifo(path.c_str(), 0644)); },
      "The CAP file " + caps.file("bad.xml") + " is not a regular file");
}

TEST_F(BadCap, ADirectoryNamedLikeACapFileIsTracedOnceAndTheOthersGoOn) {
  startWithHealthyAgent();
  superviseThrough(
      "directory", [](const std::string& path) { ASSERT_EQ(0, mkdir(path.c_str(), 0755)); },
      "The CAP file " + caps.file("bad.xml") + " is not a regular file");
}

TEST_F(BadCap, ASymlinkLoopInTheCapDirectoryIsTracedOnceWithItsCause) {
  startWithHealthyAgent();
  superviseThrough(
      "symlink loop",
      [this](const std::string& path) {
        // The other end first: bad.xml is a loop from the moment it exists.
        ASSERT_EQ(0, symlink(path.c_str(), caps.file("loop.other").c_str()));
        ASSERT_EQ(0, symlink(caps.file("loop.other").c_str(), path.c_str()));
      },
      "Cannot open the CAP file " + caps.file("bad.xml") + ": Too many levels of symbolic links");
}

TEST_F(BadCap, AFileWithoutReadPermissionIsTracedOnceWithItsCause) {
  ASSERT_TRUE(faults::dropFileModeOverrides());
  startWithHealthyAgent();
  superviseThrough(
      "no read permission",
      [](const std::string& path) {
        // Made unreadable under another name, so that no poll sees it readable.
        const std::string writing = path + ".part";
        qortest::writeFile(writing, "<?xml version=\"1.0\"?>\n<subagents/>\n");
        ASSERT_EQ(0, chmod(writing.c_str(), 0));
        ASSERT_EQ(0, rename(writing.c_str(), path.c_str()));
        // The service runs without the override: this open fails as its own will.
        errno = 0;
        int fd = open(path.c_str(), O_RDONLY);
        if (fd >= 0) close(fd);
        ASSERT_EQ(-1, fd) << "the test process still reads a file of mode 0";
        ASSERT_EQ(EACCES, errno);
      },
      "Cannot open the CAP file " + caps.file("bad.xml") + ": Permission denied");
}

// 100 MB of blanks inside the root element would all be kept as its text.
TEST_F(BadCap, AHundredMegabyteCapFileIsRefusedOnceWithoutBeingReadIntoMemory) {
  startWithHealthyAgent();
  const long peakBefore = peakResidentKb();
  superviseThrough(
      "100 MB file",
      [](const std::string& path) {
        // Written under another name, so that no poll sees it half written.
        const std::string writing = path + ".part";
        FILE* file = std::fopen(writing.c_str(), "w");
        ASSERT_NE(nullptr, file);
        std::fputs("<?xml version=\"1.0\"?>\n<subagents>", file);
        std::string blanks(1 << 20, ' ');
        for (int i = 0; i < 100; ++i) std::fwrite(blanks.data(), 1, blanks.size(), file);
        ASSERT_EQ(0, std::fclose(file));
        ASSERT_EQ(0, rename(writing.c_str(), path.c_str()));
      },
      "The CAP file " + caps.file("bad.xml") + " is too large");
  // Refused before the parse: the processor never opened it. The peak size
  // is only a figure: the test's own readings of its trace file, and the
  // allocator of a sanitizer build, move it by tens or hundreds of MB.
  EXPECT_EQ(0, traced("parsing xml document " + caps.file("bad.xml"))) << trace();
  EXPECT_EQ(0, traced("Error opening xml stream " + caps.file("bad.xml"))) << trace();
  std::printf("SUMMARY badcap 100 MB file: peak resident size of the test process grew by %ld kB\n",
              peakResidentKb() - peakBefore);
}

}  // namespace

namespace {

// A second CAP directory with one agent, which the test removes and brings back.
class LostCapDirectory : public BadCap {
 protected:
  void SetUp() override {
    BadCap::SetUp();
    setenv("QOR_CAP_DIR", (caps.path() + ":" + more.path()).c_str(), 1);
    programs.start("qorbcgoned");
    writeGone();
  }
  void writeGone() {
    qortest::writeFile(more.file("gone.xml"), captest::document(agentFor("fault.gone", "Gone program",
                                                                         programs, "qorbcgoned", start, 3)));
  }
  // The messages of gone.xml's file events that say `what`.
  int fileEvents(const std::string& what) {
    int found = 0;
    for (const std::string& line : heard.all()) {
      found += line.find(more.file("gone.xml") + " CAP File Event: " + what) != std::string::npos ? 1 : 0;
    }
    return found;
  }

  qortest::TempDir more;
};

TEST_F(LostCapDirectory, ARemovedCapDirectoryTakesItsAgentsAwayTracedOnceAndTheirComebackWithIt) {
  startWithHealthyAgent();
  ASSERT_TRUE(waitForState("fault.gone", 4, 15000)) << trace();
  const long long begun = qortest::nowMs();
  const std::string lost = "Cannot read the CAP directory <" + more.path() + "/>: No such file or directory";

  ASSERT_EQ(0, std::system(("rm -rf '" + more.path() + "'").c_str()));
  ASSERT_TRUE(qortest::waitFor([&] { return seen("fault.gone").state == -1; }, 15000)) << trace();
  EXPECT_TRUE(qortest::waitFor([&] { return fileEvents("Agent removed from system") == 1; }, 5000));
  const int pollsAtFault = polls();

  const int killed = programs.pid("qorbcwelld");
  ASSERT_GT(killed, 0);
  kill(killed, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Well program", 7) == 1; }, 30000)) << trace();
  EXPECT_NE(killed, programs.pid("qorbcwelld"));
  ASSERT_TRUE(waitForPolls(pollsAtFault + 5, 45000)) << "fewer than five polls while the directory was away";
  const int pollsSeen = polls() - pollsAtFault;
  const int lostLines = traced(lost);
  EXPECT_EQ(1, lostLines) << trace();
  EXPECT_EQ(-1, seen("fault.gone").state);

  ASSERT_EQ(0, mkdir(more.path().c_str(), 0700));
  writeGone();
  ASSERT_TRUE(waitForState("fault.gone", 4, 20000)) << trace();
  EXPECT_TRUE(qortest::waitFor([&] { return fileEvents("Agent added to system") == 2; }, 5000));
  EXPECT_EQ(1, traced("CAP directory <" + more.path() + "/> can be read again.\n"));
  EXPECT_EQ(1, traced(lost));
  EXPECT_EQ(1, fileEvents("Agent removed from system"));
  EXPECT_EQ(1, heard.count("Well program", 7));
  std::printf(
      "SUMMARY badcap removed CAP directory: polls seen %d, error lines for the loss %d, removed "
      "events %d, added events %d (startup and return), restarts of the healthy agent during the "
      "fault %d, agent back yes, %lld ms\n",
      pollsSeen, lostLines, fileEvents("Agent removed from system"), fileEvents("Agent added to system"),
      heard.count("Well program", 7), qortest::nowMs() - begun);
}

}  // namespace
