// Start scripts that the service leaves running once their program is up:
// an embedded service without discovery must still reap them and close their
// pipes, or every restart costs a zombie and a descriptor for good. The long
// run of bench/soak found it; this is the short proof.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "e2e/e2ehelp.h"
#include "e2e/embedded.h"
#include "support/qortest.h"

namespace {

// This process's children, zombies included: the scripts' shells, running
// or ended and not reaped. The programs they start are not among them.
int children() {
  int found = 0;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return -1;
  const std::string self = std::to_string(getpid());
  while (dirent* entry = readdir(proc)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    const std::string stat = qortest::readFile(std::string("/proc/") + entry->d_name + "/stat");
    const size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 4 > stat.size()) continue;
    // After ") ": the state, then the parent's id.
    const std::string rest = stat.substr(close + 2);
    const std::string parent = rest.substr(2, rest.find(' ', 2) - 2);
    if (parent == self) ++found;
  }
  closedir(proc);
  return found;
}

// The pipes this process holds open.
int openPipes() {
  int found = 0;
  DIR* fds = opendir("/proc/self/fd");
  if (fds == nullptr) return -1;
  while (dirent* entry = readdir(fds)) {
    char target[64] = {};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (readlink(link.c_str(), target, sizeof target - 1) > 0 && std::string(target).rfind("pipe:", 0) == 0)
      ++found;
  }
  closedir(fds);
  return found;
}

class LeftScripts : public e2e::EmbeddedService {
 protected:
  // An agent whose start script starts the program in the background and
  // lives on for two seconds: the service sees the program up first, and
  // leaves the script running with its pipe.
  void writeLingeringAgent() {
    programs.install(kProgram);
    programs.adopt(kProgram);
    captest::Subagent agent =
        e2e::agentFor("faults.linger", "Lingering start", programs, kProgram, start, 100);
    const std::string dir = programs.dir();
    agent.startScript =
        captest::script("startScript", "cd " + dir + " &amp;&amp; { nohup bin/" + kProgram +
                                           " 100000 &gt;/dev/null 2&gt;&amp;1 &amp; echo $! &gt;" + kProgram +
                                           ".pid; sleep 2; }");
    writeAgent("linger.xml", agent);
  }
  // Waits until the program runs under a process id other than `old`.
  int waitForNewPid(int old) {
    int pid = 0;
    EXPECT_TRUE(qortest::waitFor(
        [&] {
          pid = programs.pid(kProgram);
          return pid > 0 && pid != old && kill(pid, 0) == 0 && seen("faults.linger").state == 4;
        },
        30000))
        << "the program was not started again; pid file " << programs.pid(kProgram);
    return pid;
  }
  static constexpr const char* kProgram = "lingerer";
};

TEST_F(LeftScripts, AnEmbeddedServiceWithoutDiscoveryReapsTheStartScriptsItLeftRunning) {
  unsetenv("QOR_DISCOVERY_INTERVAL");
  writeLingeringAgent();
  startService();
  int pid = waitForNewPid(0);
  // Two seconds after its start the script ends: it must be reaped and its
  // pipe closed within a period of the cycle or two.
  ASSERT_TRUE(qortest::waitFor([] { return children() == 0; }, 20000))
      << "children of the service (the start script's shell, ended and not reaped) after the first start: "
      << children();
  const int pipes = openPipes();
  const int restarts = 3;
  for (int i = 0; i < restarts; ++i) {
    ASSERT_EQ(0, kill(pid, SIGKILL));
    pid = waitForNewPid(pid);
  }
  EXPECT_TRUE(qortest::waitFor([&] { return children() == 0 && openPipes() == pipes; }, 20000))
      << "after " << restarts << " restarts: children " << children() << " (expected 0), open pipes "
      << openPipes() << " (expected " << pipes << ", as after the first start)";
  std::printf("left scripts: %d restarts, children %d, open pipes %d (before the kills %d)\n", restarts,
              children(), openPipes(), pipes);
}

}  // namespace
