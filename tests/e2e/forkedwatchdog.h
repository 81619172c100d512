// A watchdog service in a forked child of the test, for the tests of the
// event cache across two processes: the child and the test say lines to each
// other over two pipes, and the child is killed and reaped if the test ends
// before it does.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "core/qorctrl.h"
#include "interfaces/qormsgcache.h"
#include "support/qortest.h"

namespace e2e {

class ForkedWatchdog {
 public:
  // Forks; the child runs `body(*this)`, which must end with _exit.
  template <typename Body>
  explicit ForkedWatchdog(Body body) {
    if (pipe(toChild_) != 0 || pipe(fromChild_) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      inChild_ = true;
      body(*this);
      _exit(1);
    }
  }
  ~ForkedWatchdog() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      kill(pid_, SIGCONT);  // a child held with SIGSTOP
      waitpid(pid_, nullptr, 0);
    }
    for (int fd : {toChild_[0], toChild_[1], fromChild_[0], fromChild_[1]})
      if (fd >= 0) close(fd);
  }
  ForkedWatchdog(const ForkedWatchdog&) = delete;
  ForkedWatchdog& operator=(const ForkedWatchdog&) = delete;

  pid_t pid() const { return pid_; }
  // The next line from the other side, without its line feed.
  std::string readLine() {
    std::string line;
    char c;
    while (read(inChild_ ? toChild_[0] : fromChild_[0], &c, 1) == 1 && c != '\n') line += c;
    return line;
  }
  bool say(const std::string& line) {
    const std::string text = line + "\n";
    const int fd = inChild_ ? fromChild_[1] : toChild_[1];
    return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }
  // The test's side: the child's exit code once it ends by itself; -1 for
  // any other end.
  int wait() {
    int status = 0;
    const pid_t ended = waitpid(pid_, &status, 0);
    pid_ = -1;
    return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // The child's side: waits until the watchdog service's cache holds `count`
  // events.
  static bool cached(size_t count, int timeoutMs) {
    return qortest::waitFor(
        [count] {
          Message_Cache* cache = Controller::getController()->getWDCache();
          return cache != nullptr && cache->cachedCount() >= count;
        },
        timeoutMs);
  }

 private:
  int toChild_[2] = {-1, -1};
  int fromChild_[2] = {-1, -1};
  pid_t pid_ = -1;
  bool inChild_ = false;
};

}  // namespace e2e
