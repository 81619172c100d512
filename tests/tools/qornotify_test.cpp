// qorhost and qorwd under a service manager that asks for notifications: the
// test plays the manager's part with a datagram socket of its own, named by
// NOTIFY_SOCKET, and reads what the real programs send to it.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cap/capfiles.h"
#include "e2e/e2ehelp.h"
#include "support/qortest.h"
#include "tools/controlhost.h"

namespace {

// One datagram and when it came, in milliseconds of the wall clock (the
// status script below writes its marker with the same clock).
struct Heard {
  long long atMs;
  std::string text;
};

long long wallMs() {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The manager's end: a bound datagram socket, and everything read from it.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path) : path_(path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    bound_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~NotifySocket() {
    if (fd_ >= 0) close(fd_);
    unlink(path_.c_str());
  }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  bool bound() const { return bound_; }
  std::string env() const { return "NOTIFY_SOCKET=" + path_; }

  // Reads what comes for `ms` milliseconds.
  void listen(int ms) {
    const long long end = qortest::nowMs() + ms;
    for (long long left = ms; left > 0; left = end - qortest::nowMs()) readOne(static_cast<int>(left));
  }
  // Reads until a datagram holds `line` as one of its lines; false after `ms`.
  bool waitFor(const std::string& line, int ms) {
    const long long end = qortest::nowMs() + ms;
    for (long long left = ms; left > 0; left = end - qortest::nowMs()) {
      if (has(line)) return true;
      readOne(static_cast<int>(left));
    }
    return has(line);
  }
  bool has(const std::string& line) const { return !times(line).empty(); }
  // When the datagrams holding `line` came, in order.
  std::vector<long long> times(const std::string& line) const {
    std::vector<long long> found;
    for (const Heard& heard : heard_) {
      if (("\n" + heard.text + "\n").find("\n" + line + "\n") != std::string::npos)
        found.push_back(heard.atMs);
    }
    return found;
  }
  // The places of those datagrams in the order they came: two may share a
  // millisecond.
  std::vector<size_t> places(const std::string& line) const {
    std::vector<size_t> found;
    for (size_t place = 0; place < heard_.size(); ++place) {
      if (("\n" + heard_[place].text + "\n").find("\n" + line + "\n") != std::string::npos)
        found.push_back(place);
    }
    return found;
  }
  int count(const std::string& line, long long fromMs, long long toMs) const {
    int found = 0;
    for (long long at : times(line)) found += at >= fromMs && at < toMs;
    return found;
  }
  // Every datagram, one a line, for a failure's message.
  std::string all() const {
    std::string text;
    for (const Heard& heard : heard_) text += std::to_string(heard.atMs) + ": " + heard.text + "\n";
    return text;
  }

 private:
  void readOne(int timeoutMs) {
    pollfd ready{fd_, POLLIN, 0};
    if (::poll(&ready, 1, timeoutMs) <= 0) return;
    char buffer[4096];
    const ssize_t size = recv(fd_, buffer, sizeof buffer, 0);
    if (size > 0) heard_.push_back({wallMs(), std::string(buffer, static_cast<size_t>(size))});
  }

  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
  std::vector<Heard> heard_;
};

// A manager of its own for each test: whatever the test runner itself was
// given must not reach the programs, which take the first of two values.
void forgetInheritedNotification() {
  for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
}

// The period asked for: one second, so a ping every half second.
const char kWatchdogOneSecond[] = "WATCHDOG_USEC=1000000";

class QorhostNotify : public controltest::ControlHost {
 protected:
  QorhostNotify() : manager(work.file("notify")) { forgetInheritedNotification(); }

  void startNotified(const std::vector<std::string>& env) {
    std::vector<std::string> argv = {e2e::tool("qorhost"), "--cap-dir",     caps.path(), "--ip-dir",
                                     work.path(),          "--trace-level", "128",       "--trace-file",
                                     work.file("trace")};
    std::vector<std::string> all = env;
    all.push_back(programs.env());
    host.reset(new qortest::Child(argv, all));
  }

  NotifySocket manager;
};

TEST_F(QorhostNotify, SendsReadyOnceStartedThenAPingEveryHalfPeriodThenStoppingOnSigterm) {
  ASSERT_TRUE(manager.bound());
  withRunningAgent();
  startNotified({manager.env(), kWatchdogOneSecond});
  ASSERT_TRUE(manager.waitFor("READY=1", 15000)) << manager.all() << host->err();
  // READY comes after the service has started, never before.
  EXPECT_NE(std::string::npos, host->out().find("qorhost: service started")) << host->out();
  EXPECT_TRUE(manager.has("STATUS=supervising 2 agents")) << manager.all();

  const long long from = wallMs();
  manager.listen(3000);
  // Every 500 ms over 3 s is 6; the band leaves a ping either way for the
  // scheduling of a loaded machine.
  const int pings = manager.count("WATCHDOG=1", from, from + 3000);
  EXPECT_GE(pings, 4) << manager.all();
  EXPECT_LE(pings, 8) << manager.all();
  EXPECT_FALSE(manager.has("STOPPING=1"));

  host->signal(SIGTERM);
  ASSERT_TRUE(manager.waitFor("STOPPING=1", 15000)) << manager.all();
  EXPECT_EQ(0, host->wait(15000));
  const std::vector<size_t> ready = manager.places("READY=1");
  EXPECT_EQ(1u, ready.size());
  EXPECT_LT(ready.front(), manager.places("WATCHDOG=1").front()) << manager.all();
  // No ping after the stop began.
  EXPECT_LT(manager.places("WATCHDOG=1").back(), manager.places("STOPPING=1").front()) << manager.all();
}

// A status script that hangs for 5 s, once, when the file `hang` exists:
// it takes the file away, notes the wall-clock time it began in `hanging`
// (milliseconds), and sleeps. Every other run answers "running".
std::string hangingStatusScript(const qortest::TempDir& dir) {
  const std::string script = dir.file("status.sh");
  qortest::writeFile(script,
                     "#!/bin/sh\n"
                     "here='" +
                         dir.path() +
                         "'\n"
                         "if [ -f \"$here/hang\" ]; then\n"
                         "  rm -f \"$here/hang\"\n"
                         "  echo $(( $(date +%s%N) / 1000000 )) >\"$here/hanging.tmp\"\n"
                         "  mv \"$here/hanging.tmp\" \"$here/hanging\"\n"
                         "  sleep 5\n"
                         "fi\n"
                         "exit 0\n");
  return captest::script("availabilityStatusScript", "/bin/sh " + script,
                         "<returnCode type=\"OK\" msg_id=\"UP\">0</returnCode>");
}

TEST_F(QorhostNotify, PingsStopWhileTheCommandHandlerHangsInAStatusScriptAndComeBackAfterIt) {
  ASSERT_TRUE(manager.bound());
  qortest::TempDir scripts;
  pid = programs.start(kProgram);
  captest::Subagent checked = agent();
  checked.availabilityStatusScript = hangingStatusScript(scripts);
  writeCap("agent.xml", captest::document(checked));
  startNotified({manager.env(), kWatchdogOneSecond});
  ASSERT_TRUE(manager.waitFor("READY=1", 15000)) << manager.all() << host->err();

  // Pings first, then the next check (every 5 s) hangs; the pings go on
  // until it begins.
  manager.listen(1500);
  qortest::writeFile(scripts.file("hang"), "");
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        manager.listen(50);
        return qortest::fileExists(scripts.file("hanging"));
      },
      15000));
  const long long hangBegan = std::atoll(qortest::readFile(scripts.file("hanging")).c_str());
  ASSERT_GT(hangBegan, 0);
  EXPECT_GE(manager.count("WATCHDOG=1", 0, hangBegan), 2) << manager.all();

  // A handler on one event for less than the period (1 s) still counts as
  // alive, so a ping may come in the first second; then none while the
  // script sleeps. 600 ms cover the half period between two looks.
  manager.listen(static_cast<int>(hangBegan + 4500 - wallMs()));
  EXPECT_EQ(0, manager.count("WATCHDOG=1", hangBegan + 1600, hangBegan + 4500)) << manager.all();

  // The script ends after 5 s, the handler takes events again, and so the
  // pings come back.
  manager.listen(static_cast<int>(hangBegan + 7000 - wallMs()));
  EXPECT_GE(manager.count("WATCHDOG=1", hangBegan + 5000, hangBegan + 7000), 1) << manager.all();
  EXPECT_EQ(0, stopHost());
}

TEST_F(QorhostNotify, AWatchdogMeantForAnotherProcessGetsNoPingsButReadyStillComes) {
  ASSERT_TRUE(manager.bound());
  withRunningAgent();
  // The manager names the process it watches; pid 1 is never qorhost.
  startNotified({manager.env(), kWatchdogOneSecond, "WATCHDOG_PID=1"});
  ASSERT_TRUE(manager.waitFor("READY=1", 15000)) << manager.all() << host->err();
  manager.listen(2000);
  EXPECT_FALSE(manager.has("WATCHDOG=1")) << manager.all();
  host->signal(SIGTERM);
  EXPECT_TRUE(manager.waitFor("STOPPING=1", 15000)) << manager.all();
  EXPECT_EQ(0, host->wait(15000));
}

TEST(QorwdNotify, SendsReadyOnceStartedThenAPingEveryHalfPeriodThenStoppingOnSigterm) {
  forgetInheritedNotification();
  qortest::TempDir dir;
  NotifySocket manager(dir.file("notify"));
  ASSERT_TRUE(manager.bound());
  qortest::writeFile(dir.file("host.xml"), e2e::osAgentCapFile());
  qortest::Child watchdog(
      {e2e::tool("qorwd"), "--cap-dir", dir.path(), "--ip-dir", dir.path(), "--trace-level", "128",
       "--trace-file", dir.file("trace")},
      {manager.env(), kWatchdogOneSecond, "MARLOWHOME=" + dir.file("home"), "ZEL_BINARCH=linux"});
  ASSERT_TRUE(manager.waitFor("READY=1", 15000)) << manager.all() << watchdog.err();
  EXPECT_TRUE(manager.has("STATUS=watching the OS agent")) << manager.all();

  const long long from = wallMs();
  manager.listen(3000);
  const int pings = manager.count("WATCHDOG=1", from, from + 3000);
  EXPECT_GE(pings, 4) << manager.all();
  EXPECT_LE(pings, 8) << manager.all();

  watchdog.signal(SIGTERM);
  // The main loop looks at the signal's flag once a second.
  ASSERT_TRUE(manager.waitFor("STOPPING=1", 5000)) << manager.all();
  EXPECT_EQ(0, watchdog.wait(15000));
  EXPECT_LT(manager.places("READY=1").front(), manager.places("WATCHDOG=1").front()) << manager.all();
  EXPECT_LT(manager.places("WATCHDOG=1").back(), manager.places("STOPPING=1").front()) << manager.all();
}

}  // namespace
