// Helpers of the process layer's tests: a fake install root whose status tool
// is a shell script that logs its runs, real child processes under names of
// their own, and agents and policies built for matching. Used on the test's
// main thread; every helper cleans up what it started.
#ifndef QOR_TESTS_WATCHDOG_PROCTEST_H
#define QOR_TESTS_WATCHDOG_PROCTEST_H

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/qortest.h"

namespace proctest {

// $MARLOWHOME with bin/vexinf: the tool prints its six header lines and then
// the body kept for its option (-r, -o, -s, -p) in vexinf.<option>.out. Each run
// appends its arguments to vexinf.log; vexinf.<option>.delay makes it sleep first.
class FakeSuite {
 public:
  FakeSuite() {
    mkdir(dir_.file("bin").c_str(), 0755);
    qortest::writeFile(
        dir_.file("bin/vexinf"),
        "#!/bin/sh\n"
        "home=$(cd \"$(dirname \"$0\")/..\" && pwd)\n"
        "echo \"$*\" >> \"$home/vexinf.log\"\n"
        "option=${1#-}\n"
        "if [ -f \"$home/vexinf.$option.delay\" ]; then sleep \"$(cat \"$home/vexinf.$option.delay\")\"; fi\n"
        "echo 'Suite status'\n"
        "echo 'Version 9.1'\n"
        "echo 'Host testhost'\n"
        "echo\n"
        "echo 'Product Host PID Kind State Instance'\n"
        "echo '------- ---- --- ---- ----- --------'\n"
        "if [ -f \"$home/vexinf.$option.out\" ]; then cat \"$home/vexinf.$option.out\"; fi\n");
    qortest::makeExecutable(dir_.file("bin/vexinf"));
    setenv("MARLOWHOME", dir_.path().c_str(), 1);
  }
  void answer(const std::string& option, const std::string& body) {
    qortest::writeFile(dir_.file("vexinf." + option + ".out"), body);
  }
  void delay(const std::string& option, int seconds) {
    qortest::writeFile(dir_.file("vexinf." + option + ".delay"), std::to_string(seconds));
  }
  // How often the tool has run.
  int runs() const { return qortest::countOccurrences(qortest::readFile(dir_.file("vexinf.log")), "\n"); }
  std::string log() const { return qortest::readFile(dir_.file("vexinf.log")); }
  const std::string& path() const { return dir_.path(); }

 private:
  qortest::TempDir dir_;
};

// Kills one process by its id. An id that was never read (0, or -1) would
// signal the whole process group, the test runner with it: such ids are refused.
inline void killProcess(int pid) {
  if (pid > 1) kill(pid, SIGKILL);
}

// A child process started with `argv`, its output thrown away; killed and
// reaped at the end.
class Process {
 public:
  explicit Process(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      int null = open("/dev/null", O_RDWR);
      dup2(null, 0);
      dup2(null, 1);
      dup2(null, 2);
      execv(args[0], args.data());
      _exit(127);
    }
  }
  ~Process() { stop(); }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  int pid() const { return pid_; }
  // Kills the whole group of descendants this process started as well.
  void stop() {
    if (pid_ <= 0) return;
    killProcess(pid_);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  int pid_ = -1;
};

// Copies a program under a name of our own, so that /proc shows that name as
// its executable.
inline std::string copyProgram(const std::string& from, const std::string& to) {
  qortest::writeFile(to, qortest::readFile(from));
  qortest::makeExecutable(to);
  return to;
}

// Whether a process runs `exe` and its command line is in place: during an
// exec the executable link changes before the new command line can be read.
inline bool runsExecutable(int pid, const std::string& exe) {
  char buffer[512];
  std::string proc = "/proc/" + std::to_string(pid);
  ssize_t length = readlink((proc + "/exe").c_str(), buffer, sizeof buffer - 1);
  if (length <= 0) return false;
  buffer[length] = '\0';
  return exe == buffer && !qortest::readFile(proc + "/cmdline").empty();
}

// The seconds left that each pass of a command's wait traced, in order:
// "Waiting for command to complete for N seconds."
inline std::vector<int> waitedSeconds(const std::string& trace) {
  const std::string text = "Waiting for command to complete for ";
  std::vector<int> seconds;
  for (const std::string& line : qortest::linesWith(trace, text)) {
    seconds.push_back(atoi(line.c_str() + line.find(text) + text.size()));
  }
  return seconds;
}

// The processes whose parent is `parent`, read from /proc independently of
// the code under test.
inline std::vector<int> childrenOf(int parent) {
  std::vector<int> children;
  DIR* directory = opendir("/proc");
  if (directory == nullptr) return children;
  while (struct dirent* entry = readdir(directory)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    std::string stat = qortest::readFile(std::string("/proc/") + entry->d_name + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    int ppid = 0;
    char state = 0;
    if (sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) == 2 && ppid == parent) {
      children.push_back(atoi(entry->d_name));
    }
  }
  closedir(directory);
  return children;
}

}  // namespace proctest

#endif  // QOR_TESTS_WATCHDOG_PROCTEST_H
