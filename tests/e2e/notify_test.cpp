// qorctl notify against the real qorhost, as an outside program that starts
// and stops an agent itself would use it: the state reported for a managed
// agent is heard by qorhost's listener and printed, and a product code that
// no agent has is answered 202, which qorctl explains and fails with. Real
// programs, real CAP files, the real socket of the running service.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "interfaces/socktest.h"
#include "support/qortest.h"

namespace {

using e2e::agentFor;
using e2e::Host;
using e2e::Programs;
using e2e::StartScript;

class Notify : public ::testing::Test {
 protected:
  Notify() : start(programs) { writeCap("host.xml", e2e::osAgentCapFile()); }
  void writeCap(const std::string& file, const std::string& content) {
    qortest::writeFile(caps.file(file), content);
  }
  void startHost() {
    host.reset(new Host(caps.path(), work.path(), work.file("trace"), 128 | 256, {programs.env()}));
    ASSERT_TRUE(host->waitForListing(1)) << host->child().out() << host->child().err();
    // The socket server binds on a thread of its own, in its own time.
    ASSERT_TRUE(qortest::waitFor([&] { return socktest::listening(work.file(".teo_sock")) == 1; }, 10000));
  }
  qortest::RunResult notify(const std::vector<std::string>& args) {
    std::vector<std::string> command = {e2e::tool("qorctl"), "notify"};
    command.insert(command.end(), args.begin(), args.end());
    command.push_back("--ip-dir");
    command.push_back(work.path());
    return qortest::runProgram(command);
  }

  qortest::TempDir caps;
  qortest::TempDir work;
  Programs programs;
  StartScript start;
  // Last, so that qorhost is gone before the programs are stopped.
  std::unique_ptr<Host> host;
};

}  // namespace

TEST_F(Notify, StartedForAManagedAgentIsAcceptedAndHeardByQorhost) {
  const int pid = programs.start("qore2enoted");
  captest::Subagent agent = agentFor("e2e.noted", "Noted program", programs, "qore2enoted", start, 3);
  agent.productCode = "<productCode>qn</productCode>";
  writeCap("noted.xml", captest::document(agent));
  startHost();
  EXPECT_EQ("qorhost: agent 'Noted program' id e2e.noted managed 1 (managed) state 4 (running) pid " +
                std::to_string(pid) + " restarts 0/3",
            host->listingOf("e2e.noted"));
  // The service's socket: for its owner and group only.
  struct stat status;
  ASSERT_EQ(0, stat(work.file(".teo_sock").c_str(), &status));
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(0u, status.st_mode & 007);

  qortest::RunResult run = notify({"started", "qn"});
  EXPECT_EQ(0, run.exitCode) << run.out << run.err;
  EXPECT_EQ(
      "qorctl notify: started qn: 0 (accepted: the event is queued for the agent (for the OS agent: the "
      "watchdog process will recycle it))\n",
      run.out);
  EXPECT_EQ("", run.err);
  ASSERT_TRUE(host->child().waitForOutput("[ 7] Noted program Operational Event: ", 10000))
      << host->child().out();
  EXPECT_EQ((std::vector<std::string>{"[ 7] Noted program Operational Event: Agent started successfully."}),
            host->events("Noted program"));
  // Taken note of, nothing more: the program runs on as it was.
  EXPECT_EQ("qorhost: agent 'Noted program' id e2e.noted managed 1 (managed) state 4 (running) pid " +
                std::to_string(pid) + " restarts 0/3",
            host->listingOf("e2e.noted"));
  EXPECT_EQ(0, host->stop());
}

TEST_F(Notify, AnUnknownProductCodeIsAnswered202AndQorctlFailsWithItsMeaning) {
  programs.start("qore2eknownd");
  captest::Subagent agent = agentFor("e2e.known", "Known program", programs, "qore2eknownd", start, 3);
  agent.productCode = "<productCode>qk</productCode>";
  writeCap("known.xml", captest::document(agent));
  startHost();

  qortest::RunResult run = notify({"stopped", "-o", "db9", "qz"});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(
      "qorctl notify: stopped qz: 202 (no agent has this product code (and instance), and it is not the OS "
      "agent's)\n",
      run.out);
  // Nothing reached the listeners for the agent that is there.
  EXPECT_TRUE(host->events("Known program").empty()) << host->child().out();
  EXPECT_EQ(0, host->stop());
  // Stopped, qorhost leaves its socket file; nobody answers on it any more.
  qortest::RunResult after = notify({"started", "qk"});
  EXPECT_EQ(1, after.exitCode);
  EXPECT_NE(std::string::npos,
            after.out.find(": 3 (the service's socket could not be reached: nobody answers on "))
      << after.out;
}
