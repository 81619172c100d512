// What the churn and limits tests read of a process from /proc: its open
// descriptors, its threads, its zombie children, and the processes that run
// a given executable. Used on the test's main thread, before and after a run;
// and the embedded service those tests count in.
#ifndef QOR_TESTS_FAULTS_CHURNPROC_H
#define QOR_TESTS_FAULTS_CHURNPROC_H

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "e2e/embedded.h"
#include "support/qortest.h"

namespace churn {

// The numeric entries of a /proc folder: descriptors, threads or processes.
inline std::vector<int> numericEntries(const std::string& folder) {
  std::vector<int> found;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return found;
  while (dirent* entry = readdir(dir)) {
    const char* name = entry->d_name;
    if (*name < '0' || *name > '9') continue;
    found.push_back(std::atoi(name));
  }
  closedir(dir);
  return found;
}

// The open descriptors of `pid`, without the one this reading holds when
// `pid` is this process.
inline int descriptorsOf(int pid) {
  const int counted = static_cast<int>(numericEntries("/proc/" + std::to_string(pid) + "/fd").size());
  return pid == getpid() ? counted - 1 : counted;
}

inline int threadsOf(int pid) {
  return static_cast<int>(numericEntries("/proc/" + std::to_string(pid) + "/task").size());
}

// The state letter and the parent of a process, from /proc/PID/stat; the
// name in parentheses may hold spaces and parentheses itself.
struct StatLine {
  char state = '?';
  int parent = -1;
};

inline StatLine statOf(int pid) {
  StatLine line;
  const std::string text = qortest::readFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = text.rfind(')');
  if (close == std::string::npos || close + 4 >= text.size()) return line;
  line.state = text[close + 2];
  line.parent = std::atoi(text.c_str() + close + 4);
  return line;
}

// The children of `pid` that have ended and were not reaped.
inline std::vector<int> zombieChildren(int pid) {
  std::vector<int> zombies;
  for (int each : numericEntries("/proc")) {
    const StatLine line = statOf(each);
    if (line.parent == pid && line.state == 'Z') zombies.push_back(each);
  }
  return zombies;
}

inline std::string realPath(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
}

// The executable of a process, empty when it has gone or is a zombie.
inline std::string executableOf(int pid) {
  char target[PATH_MAX];
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
  return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

// The live processes whose executable is `path`.
inline std::vector<int> processesRunning(const std::string& path) {
  const std::string wanted = realPath(path);
  std::vector<int> found;
  for (int each : numericEntries("/proc")) {
    if (executableOf(each) == wanted && statOf(each).state != 'Z') found.push_back(each);
  }
  return found;
}

// What each open descriptor of `pid` is, one "FD -> TARGET" per line; for a
// pipe or socket, the other processes that hold it too. For the message of
// a failed descriptor count: which one was left, and who keeps it alive.
inline std::string descriptorsDescribed(int pid) {
  const std::string folder = "/proc/" + std::to_string(pid) + "/fd/";
  std::string text;
  for (int fd : numericEntries(folder)) {
    char target[PATH_MAX];
    const ssize_t length = readlink((folder + std::to_string(fd)).c_str(), target, sizeof target - 1);
    if (length <= 0) continue;
    const std::string link(target, static_cast<size_t>(length));
    text += std::to_string(fd) + " -> " + link;
    if (link.rfind("pipe:", 0) == 0 || link.rfind("socket:", 0) == 0) {
      for (int other : numericEntries("/proc")) {
        if (other == pid) continue;
        const std::string otherFolder = "/proc/" + std::to_string(other) + "/fd/";
        for (int otherFd : numericEntries(otherFolder)) {
          const ssize_t n = readlink((otherFolder + std::to_string(otherFd)).c_str(), target, sizeof target - 1);
          if (n > 0 && std::string(target, static_cast<size_t>(n)) == link) {
            text += " (also pid " + std::to_string(other) + " " + executableOf(other) + ")";
            break;
          }
        }
      }
    }
    text += "\n";
  }
  return text;
}

// The embedded service of a test that counts its own descriptors. Its OS
// agent's program is a file of the test's own that never runs: the build's
// qorhost, which other tests run meanwhile, would be taken for the OS agent,
// and each refresh of that record asks a watchdog socket that no qorwd
// serves here. A failed connect leaves its socket open, one every 30 s, and
// the count would show the neighbour rather than this service.
class CountedService : public e2e::EmbeddedService {
 protected:
  void SetUp() override {
    e2e::EmbeddedService::SetUp();
    const std::string host = work.file("qorhost");
    qortest::writeFile(host, "#!/bin/sh\nexit 0\n");
    qortest::makeExecutable(host);
    writeCap("host.xml", e2e::osAgentCapFile(host));
  }
};

}  // namespace churn

#endif  // QOR_TESTS_FAULTS_CHURNPROC_H
