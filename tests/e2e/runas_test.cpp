// The user a suite agent runs as, as a host operator sets it: a run-as file
// under $MARLOWHOME/config names the user for the agent's product code and
// instance, and the agent's start script receives it through "##USER##".
// The real qorhost on a real CAP directory, a real start script that writes
// what it was given into a file.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "cap/capfiles.h"
#include "e2e/e2ehelp.h"
#include "support/qortest.h"

namespace {

// Detail, errors and availability.
constexpr unsigned kTraceLevel = 1 | 128 | 256;

std::string hostName() {
  char name[256] = {0};
  gethostname(name, sizeof name - 1);
  return name;
}

// The user "##USER##" falls back to: $USER as qorhost sees it, else the name
// of the real user id.
std::string currentUser() {
  const char* user = getenv("USER");
  if (user != nullptr && *user != '\0') return user;
  struct passwd* entry = getpwuid(getuid());
  return entry == nullptr ? std::string() : entry->pw_name;
}

// qorhost on a CAP directory with the OS agent's file and one agent of the
// suite, product code "ab" with the one instance "inst1", whose start script
// appends its two arguments, the user and the instance, to started.log.
class RunAsHost : public ::testing::Test {
 protected:
  RunAsHost() {
    qortest::runProgram({"/bin/mkdir", "-p", home.file("config")});
    qortest::writeFile(caps.file("host.xml"), e2e::osAgentCapFile());
    qortest::writeFile(work.file("start.sh"),
                       "#!/bin/sh\necho \"$1 $2\" >>'" + work.file("started.log") + "'\n");
    captest::Subagent suite;
    suite.id = "e2e.suite";
    suite.agentName = "<agentName>Suite agent</agentName>";
    suite.instance = "<instance><name>inst1</name></instance>";
    suite.procName = "<procName>qorrunasd</procName>";
    suite.productCode = "<productCode>ab</productCode>";
    suite.agentType = "<agentType>ZEL_UNIX</agentType>";
    // The program must exist for the agent to be started; the start script
    // itself starts nothing.
    programs.install("qorrunasd");
    suite.agentPath = "<agentPath>" + programs.path("qorrunasd") + "</agentPath>";
    suite.checkFrequency = "<checkFrequency>5</checkFrequency>";
    suite.maxRestarts = "<maxRestarts>1</maxRestarts>";
    suite.startScript =
        captest::script("startScript", "/bin/sh " + work.file("start.sh") + " ##USER## ##INSTANCE##");
    qortest::writeFile(caps.file("suite.xml"), captest::document(suite));
  }
  void startHost() {
    host.reset(new e2e::Host(caps.path(), work.path(), work.file("trace"), kTraceLevel,
                             {"MARLOWHOME=" + home.path()}));
    ASSERT_TRUE(host->waitForListing(1)) << host->child().out() << host->child().err();
  }
  // The first line the start script wrote, once it ran.
  std::string firstStart() {
    const std::string log = work.file("started.log");
    if (!qortest::waitFor([&] { return !qortest::linesWith(qortest::readFile(log), "").empty(); }, 15000))
      return std::string();
    return qortest::linesWith(qortest::readFile(log), "").front();
  }
  std::string trace() { return qortest::readFile(work.file("trace")); }

  qortest::TempDir home;
  qortest::TempDir caps;
  qortest::TempDir work;
  e2e::Programs programs;
  // Last, so that qorhost is gone before the folders.
  std::unique_ptr<e2e::Host> host;
};

}  // namespace

TEST_F(RunAsHost, TheStartScriptOfASuiteAgentGetsTheUserOfTheGeneralRunAsFile) {
  qortest::writeFile(home.file("config/hmvrunas.cfg"),
                     "<agent>\n  <productCode>xy</productCode>\n"
                     "  <instance><name>inst1</name><user>daemon</user></instance>\n</agent>\n"
                     "<agent>\n  <productCode>ab</productCode>\n"
                     "  <instance><name>inst2</name><user>daemon</user></instance>\n"
                     "  <instance><name>inst1</name><user>nobody</user></instance>\n</agent>\n");
  startHost();
  EXPECT_EQ("nobody inst1", firstStart()) << trace();
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Parsing file: " + home.file("config/hmvrunas.cfg")));
  EXPECT_EQ(0, host->stop());
}

TEST_F(RunAsHost, TheHostsOwnRunAsFileWinsOverTheGeneralOne) {
  qortest::writeFile(home.file("config/" + hostName() + "_hlxrunas.cfg"),
                     "<agent><productCode>ab</productCode>"
                     "<instance><name>inst1</name><user>nobody</user></instance></agent>\n");
  qortest::writeFile(home.file("config/hmvrunas.cfg"),
                     "<agent><productCode>ab</productCode>"
                     "<instance><name>inst1</name><user>daemon</user></instance></agent>\n");
  startHost();
  EXPECT_EQ("nobody inst1", firstStart()) << trace();
  EXPECT_EQ(0, qortest::countOccurrences(trace(), "Parsing file: " + home.file("config/hmvrunas.cfg")));
  EXPECT_EQ(0, host->stop());
}

TEST_F(RunAsHost, WithoutRunAsFilesTheStartScriptGetsTheUserOfTheService) {
  startHost();
  ASSERT_FALSE(currentUser().empty());
  EXPECT_EQ(currentUser() + " inst1", firstStart()) << trace();
  EXPECT_LE(2, qortest::countOccurrences(trace(), "Error reading file "));
  EXPECT_EQ(0, host->stop());
}
