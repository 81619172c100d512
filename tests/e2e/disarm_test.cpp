// A service started without the OS agent's CAP file, as a host operator sees
// it: nothing restarts the service itself, so it comes up disarmed and takes
// the agents it found out of management, and a program that dies stays down.
// Real programs, real CAP files, the real qorhost.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "support/qortest.h"

namespace {

using e2e::agentFor;
using e2e::Host;
using e2e::Programs;
using e2e::StartScript;

// Detail, errors, availability and the cycle's pushes of checks.
constexpr unsigned kTraceLevel = 1 | 128 | 256 | 146;

class Disarmed : public ::testing::Test {
 protected:
  Disarmed() : start(programs) {}

  void writeAgent(const std::string& file, const captest::Subagent& agent) {
    qortest::writeFile(caps.file(file), captest::document(agent));
  }
  void startHost() {
    host.reset(new Host(caps.path(), work.path(), work.file("trace"), kTraceLevel, {programs.env()}));
    ASSERT_TRUE(host->waitForListing(1)) << host->child().out() << host->child().err();
  }
  std::string trace() { return qortest::readFile(work.file("trace")); }
  std::string out() { return host->child().out(); }
  // The printed lines of `kind` events ("Management", "Operational") of the
  // agent named `name`, without their time.
  std::vector<std::string> events(const std::string& name, const std::string& kind) {
    std::vector<std::string> texts;
    for (const std::string& line : qortest::linesWith(out(), "] " + name + " " + kind + " Event: ")) {
      texts.push_back(line.substr(line.find("  [") + 2));
    }
    return texts;
  }
  std::vector<std::string> watchdogEvents() {
    std::vector<std::string> texts;
    for (const std::string& line : qortest::linesWith(out(), "]  Watchdog Event: ")) {
      texts.push_back(line.substr(line.find("  [") + 2));
    }
    return texts;
  }

  qortest::TempDir caps;
  qortest::TempDir work;
  Programs programs;
  StartScript start;
  // Last, so that qorhost is gone before the programs are stopped.
  std::unique_ptr<Host> host;
};

TEST_F(Disarmed, WithoutTheOSAgentsFileTheServiceIsDisarmedAndAKilledAgentIsNotRestarted) {
  const int pid = programs.start("qore2eloosed");
  writeAgent("loose.xml", agentFor("e2e.loose", "Loose program", programs, "qore2eloosed", start, 3));
  startHost();
  // The events come through the message queue and may be printed after the
  // first listing.
  ASSERT_TRUE(qortest::waitFor(
      [&] { return !watchdogEvents().empty() && !events("Loose program", "Management").empty(); }, 10000))
      << out();

  EXPECT_EQ((std::vector<std::string>{"[18]  Watchdog Event: Disarm completed successfully"}),
            watchdogEvents());
  EXPECT_EQ((std::vector<std::string>{"[ 3] Loose program Management Event: Agent now unmanaged."}),
            events("Loose program", "Management"));
  // Out of management, nothing is known about its process any longer.
  EXPECT_EQ(
      "qorhost: agent 'Loose program' id e2e.loose managed 0 (unmanaged) state 0 (unknown) pid 0 restarts "
      "0/3",
      host->listingOf("e2e.loose"));
  // Disarmed without an embedder asking: nobody is told the watchdog is unreliable.
  EXPECT_TRUE(qortest::linesWith(out(), "[27]").empty()) << out();

  kill(pid, SIGKILL);
  // Unmanaged, the agent lost its checks with its process id: the
  // availability cycle passes over it. One more pass after the kill, nothing
  // was started.
  const std::string pass = "Starting cycle loop";
  const size_t before = qortest::linesWith(trace(), pass).size();
  ASSERT_TRUE(qortest::waitFor([&] { return qortest::linesWith(trace(), pass).size() >= before + 1; }, 15000))
      << trace();
  EXPECT_TRUE(start.log("begin", "qore2eloosed").empty()) << start.log().size();
  // No start wrote a new process id.
  EXPECT_EQ(pid, programs.pid("qore2eloosed"));
  EXPECT_TRUE(events("Loose program", "Operational").empty()) << out();
  EXPECT_EQ((std::vector<std::string>{"[ 3] Loose program Management Event: Agent now unmanaged."}),
            events("Loose program", "Management"));
  EXPECT_EQ(0, host->stop());
  EXPECT_NE(std::string::npos, host->child().err().find("so no agent will be restarted"))
      << host->child().err();
}

}  // namespace
