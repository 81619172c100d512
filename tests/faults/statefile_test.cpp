// The state file's directory full, read-only, removed, or closed to this
// process while the service runs: a write that fails leaves the old teo.dat
// whole (or none, if there was none) and no teo.dat.tmp behind, is traced
// once at the error level with its cause, and the next write once the fault
// is gone gives a whole, correct file. The service is embedded in the test;
// the state directory comes first in QOR_CAP_DIR and holds no CAP file, so
// that its troubles touch no agent. A full directory is a tmpfs of 64 kB
// mounted by the test (root), unmounted on every way out.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "core/qorlifetime.h"
#include "e2e/e2ehelp.h"
#include "e2e/embedded.h"
#include "faults/filemodes.h"
#include "support/qortest.h"

namespace {

using e2e::agentFor;
using e2e::fieldOf;

// A tmpfs of 64 kB over a directory for the life of the object.
class SmallTmpfs {
 public:
  explicit SmallTmpfs(const std::string& directory) : directory_(directory) {
    qortest::RunResult result =
        qortest::runProgram({"/bin/mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", directory});
    mounted_ = result.exitCode == 0;
    refusal_ = result.err;
  }
  ~SmallTmpfs() {
    if (mounted_ && umount(directory_.c_str()) != 0) umount2(directory_.c_str(), MNT_DETACH);
  }
  SmallTmpfs(const SmallTmpfs&) = delete;
  SmallTmpfs& operator=(const SmallTmpfs&) = delete;
  bool mounted() const { return mounted_; }
  const std::string& refusal() const { return refusal_; }
  bool remount(const char* mode) {
    return qortest::runProgram({"/bin/mount", "-o", std::string("remount,") + mode, directory_}).exitCode ==
           0;
  }

 private:
  std::string directory_;
  bool mounted_ = false;
  std::string refusal_;
};

class StateFile : public e2e::EmbeddedService {
 protected:
  void SetUp() override {
    EmbeddedService::SetUp();
    setenv("QOR_CAP_DIR", (state.path() + ":" + caps.path()).c_str(), 1);
    programs.start("qorsfwelld");
    writeAgent("well.xml", agentFor("fault.well", "Well program", programs, "qorsfwelld", start, 3));
  }
  void TearDown() override {
    EmbeddedService::TearDown();
    tmpfs.reset();  // after the last write, before the directory goes
  }

  void startWithHealthyAgent() {
    startService();
    ASSERT_TRUE(waitForState("fault.well", 4, 15000)) << trace();
  }
  // Has the service write a first, whole state file: the old file that a
  // fault must leave as it stands. Returns its text.
  std::string startAndWriteFirstFile() {
    startWithHealthyAgent();
    PersistTEO();
    const std::string first = stateFile();
    expectWhole(first, "0");
    return first;
  }
  std::string stateFile() { return qortest::readFile(state.file("teo.dat")); }
  bool temporaryLeft() { return qortest::fileExists(state.file("teo.dat.tmp")); }

  // The failed writes traced so far: every error line about the state file.
  std::vector<std::string> failures() {
    std::vector<std::string> found;
    for (const std::string& line : qortest::linesWith(trace(), "the state file")) {
      if (line.find(" Cannot ") != std::string::npos) found.push_back(line);
    }
    return found;
  }

  // Whether `text` is a whole state file of the two agents, the OS agent
  // last, with `restarts` restarts of the healthy one.
  void expectWhole(const std::string& text, const std::string& restarts) {
    std::vector<std::string> file = e2e::lines(text);
    ASSERT_EQ(37u, file.size()) << text;
    EXPECT_EQ("2", file[0]);
    EXPECT_EQ("*", file[1]);
    EXPECT_EQ("6.2.2.2", file[2]);
    EXPECT_EQ("fault.well", file[3]);
    EXPECT_EQ("*", file[18]);
    EXPECT_EQ("*", file[19]);
    EXPECT_EQ("e2e.host", file[21]);
    EXPECT_EQ("*", file[36]);
    EXPECT_EQ("4", fieldOf(file, "fault.well", 9));
    EXPECT_EQ(std::to_string(programs.pid("qorsfwelld")), fieldOf(file, "fault.well", 11));
    EXPECT_EQ(restarts, fieldOf(file, "fault.well", 12));
  }

  // Kills the healthy agent and waits for its restart, so that the next
  // state file differs from the last.
  void restartHealthyAgent() {
    const int before = heard.count("Well program", 7);
    const int pid = programs.pid("qorsfwelld");
    ASSERT_GT(pid, 0);
    kill(pid, SIGKILL);
    ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Well program", 7) == before + 1; }, 30000))
        << trace();
    ASSERT_TRUE(waitForState("fault.well", 4, 10000)) << trace();
  }

  // Two writes during the fault: each fails alone, once, with `cause`; the
  // file stays `old` and no temporary is left.
  void twoFailedWrites(const std::string& old, const std::string& cause) {
    for (int write = 1; write <= 2; ++write) {
      PersistTEO();
      const std::vector<std::string> failed = failures();
      ASSERT_EQ(static_cast<size_t>(write), failed.size()) << trace();
      EXPECT_NE(std::string::npos, failed.back().find(cause)) << failed.back();
      EXPECT_EQ(old, stateFile());
      EXPECT_FALSE(temporaryLeft());
    }
  }

  // Stops the service, whose last write must succeed, and checks the file.
  void stopAndExpectGoodWrite(const char* what, const std::string& cause, long long begun) {
    const size_t failedBefore = failures().size();
    stopService();
    expectWhole(stateFile(), "1");
    EXPECT_FALSE(temporaryLeft());
    EXPECT_EQ(failedBefore, failures().size()) << trace();
    std::printf(
        "SUMMARY statefile %s: fault ran as %s, failed writes 2, error lines %d (cause \"%s\"), "
        "old file kept whole yes, temporary left no, next write whole and correct yes, %lld ms\n",
        what, mode.c_str(), static_cast<int>(failures().size()), cause.c_str(), qortest::nowMs() - begun);
  }

  // Mounts the small tmpfs over the state directory, or says why it cannot.
  bool mountSmallTmpfs() {
    tmpfs.reset(new SmallTmpfs(state.path()));
    if (!tmpfs->mounted()) return false;
    mode = "a 64 kB tmpfs";
    return true;
  }

  qortest::TempDir state;
  std::unique_ptr<SmallTmpfs> tmpfs;
  std::string mode = "the directory itself";
};

TEST_F(StateFile, AFullStateDirectoryKeepsTheOldFileWholeAndTheWriteAfterSpaceIsFreedSucceeds) {
  // Without a mount a file size limit would also stop the trace file, and
  // the test would lose what it counts.
  if (!mountSmallTmpfs()) GTEST_SKIP() << "mount of a tmpfs refused: " << tmpfs->refusal();
  const long long begun = qortest::nowMs();
  const std::string old = startAndWriteFirstFile();

  // Fill what remains of the directory.
  const std::string filler = state.file("filler");
  int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  const std::string block(4096, 'x');
  int written = 0;
  while (write(fd, block.data(), block.size()) > 0) ++written;
  EXPECT_EQ(ENOSPC, errno);
  close(fd);

  twoFailedWrites(old, "No space left on device");
  restartHealthyAgent();
  ASSERT_EQ(0, unlink(filler.c_str()));
  stopAndExpectGoodWrite("full directory", "No space left on device", begun);
  std::printf("SUMMARY statefile full directory: filler blocks of 4 kB %d\n", written);
}

TEST_F(StateFile, AReadOnlyStateDirectoryKeepsTheOldFileWholeAndTheWriteAfterRemountSucceeds) {
  if (!mountSmallTmpfs()) GTEST_SKIP() << "mount of a tmpfs refused: " << tmpfs->refusal();
  const long long begun = qortest::nowMs();
  const std::string old = startAndWriteFirstFile();

  ASSERT_TRUE(tmpfs->remount("ro"));
  twoFailedWrites(old, "Read-only file system");
  restartHealthyAgent();
  ASSERT_TRUE(tmpfs->remount("rw"));
  stopAndExpectGoodWrite("read-only directory", "Read-only file system", begun);
}

TEST_F(StateFile, AStateDirectoryRemovedWhileTheServiceRunsLeavesNoFileAndTheWriteAfterItComesBackSucceeds) {
  const long long begun = qortest::nowMs();
  startAndWriteFirstFile();

  ASSERT_EQ(0, unlink(state.file("teo.dat").c_str()));
  ASSERT_EQ(0, rmdir(state.path().c_str()));
  twoFailedWrites("", "No such file or directory");
  restartHealthyAgent();
  ASSERT_EQ(0, mkdir(state.path().c_str(), 0700));
  stopAndExpectGoodWrite("removed directory", "No such file or directory", begun);
}

TEST_F(StateFile, AStateDirectoryWithoutWritePermissionKeepsTheOldFileAndTheWriteAfterItIsGivenSucceeds) {
  ASSERT_TRUE(faults::dropFileModeOverrides());
  mode = "the directory's mode, without CAP_DAC_OVERRIDE";
  const long long begun = qortest::nowMs();
  const std::string old = startAndWriteFirstFile();

  ASSERT_EQ(0, chmod(state.path().c_str(), 0555));
  // The service's threads and this one alike are refused now.
  errno = 0;
  int fd = open(state.file("probe").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd >= 0) close(fd);
  ASSERT_EQ(-1, fd) << "the test process still writes into a directory of mode 0555";
  ASSERT_EQ(EACCES, errno);

  twoFailedWrites(old, "Permission denied");
  restartHealthyAgent();
  ASSERT_EQ(0, chmod(state.path().c_str(), 0700));
  stopAndExpectGoodWrite("directory without write permission", "Permission denied", begun);
}

}  // namespace
