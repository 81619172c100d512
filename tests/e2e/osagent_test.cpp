// The OS agent as a user of qorhost meets it: without a managed CAP file that
// describes qorhost itself, qorhost says on standard error, once, that no
// agent will be restarted and which file to add; with the example file, its
// agentPath set to the real qorhost, it says nothing. The real qorhost on
// real CAP directories.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <regex>
#include <string>
#include <vector>

#include "support/qortest.h"

namespace {

std::string tool(const std::string& name) { return qortest::binaryDir() + "/tools/" + name; }

const char kNothingRestarted[] =
    "qorhost: no managed CAP file describes qorhost itself as the OS agent (managerType WatchDog), "
    "so no agent will be restarted; copy examples/cap/qorhost.xml with its agentPath set to this "
    "qorhost into one of the CAP directories and start qorhost again.\n";

// examples/cap/qorhost.xml with agentPath naming the qorhost under test, as
// `make demo` makes its copy.
std::string osAgentCapFile() {
  std::string text = qortest::readFile(qortest::sourceDir() + "/examples/cap/qorhost.xml");
  const std::string open = "<agentPath>";
  size_t begin = text.find(open);
  size_t end = text.find("</agentPath>");
  if (begin == std::string::npos || end == std::string::npos) return std::string();
  char* real = realpath(tool("qorhost").c_str(), nullptr);
  std::string path = real != nullptr ? real : tool("qorhost");
  free(real);
  return text.replace(begin + open.size(), end - begin - open.size(), path);
}

// qorhost on a CAP directory, its traces in a file of their own, so that
// standard error holds only what qorhost itself says.
class Host {
 public:
  Host(const std::string& capDir, const std::string& ipDir, const std::string& traceFile)
      : child_({tool("qorhost"), "--cap-dir", capDir, "--ip-dir", ipDir, "--trace-level", "128",
                "--trace-file", traceFile}) {}
  qortest::Child& child() { return child_; }
  // Waits for the first listing, closed by its "qorhost: N agents" line.
  bool waitForListing() {
    static const std::regex closing("^qorhost: [0-9]+ agents?$");
    return qortest::waitFor(
        [&] {
          for (const std::string& line : qortest::linesWith(child_.out(), "qorhost: ")) {
            if (std::regex_match(line, closing)) return true;
          }
          return false;
        },
        15000);
  }
  bool waitForError(const std::string& text) {
    return qortest::waitFor([&] { return child_.err().find(text) != std::string::npos; }, 10000);
  }
  int stop() {
    child_.signal(SIGINT);
    return child_.wait(15000);
  }

 private:
  qortest::Child child_;
};

class OsAgent : public ::testing::Test {
 protected:
  qortest::TempDir caps;
  qortest::TempDir work;
};

TEST_F(OsAgent, WithoutItsCapFileQorhostSaysOnceThatNoAgentWillBeRestarted) {
  Host host(caps.path(), work.path(), work.file("trace"));
  ASSERT_TRUE(host.waitForListing()) << host.child().out();
  ASSERT_TRUE(host.waitForError(kNothingRestarted)) << host.child().err();
  // A second listing must not repeat it.
  host.child().signal(SIGUSR1);
  ASSERT_TRUE(qortest::waitFor(
      [&] { return qortest::linesWith(host.child().out(), "qorhost: 0 agents").size() >= 2; }, 10000))
      << host.child().out();
  // The sentence is true: the service came up disarmed. The listener hears
  // of it on its own thread, which may come after the listings; counted once
  // the whole output is in.
  const std::string disarmed = "  [18]  Watchdog Event: Disarm completed successfully";
  ASSERT_TRUE(
      qortest::waitFor([&] { return !qortest::linesWith(host.child().out(), disarmed).empty(); }, 10000))
      << host.child().out();
  EXPECT_EQ(0, host.stop());
  EXPECT_EQ(1u, qortest::linesWith(host.child().out(), disarmed).size()) << host.child().out();
  EXPECT_EQ(kNothingRestarted, host.child().err());
}

TEST_F(OsAgent, AManagedWatchDogCapFileForQorhostKeepsItQuiet) {
  std::string capFile = osAgentCapFile();
  ASSERT_NE("", capFile);
  qortest::writeFile(caps.file("qorhost.xml"), capFile);
  Host host(caps.path(), work.path(), work.file("trace"));
  ASSERT_TRUE(host.waitForListing()) << host.child().out();
  EXPECT_EQ(1u,
            qortest::linesWith(host.child().out(),
                               "qorhost: agent 'qorhost OS agent' id example.qorhost managed 1 (managed) ")
                .size())
      << host.child().out();
  EXPECT_EQ(0, host.stop());
  EXPECT_EQ("", host.child().err());
}

// An operator may have taken the OS agent out of management: the state file
// keeps that, and then nothing is restarted either.
TEST_F(OsAgent, AnOsAgentTakenOutOfManagementGetsTheSameSentence) {
  qortest::writeFile(caps.file("qorhost.xml"), osAgentCapFile());
  {
    Host first(caps.path(), work.path(), work.file("trace"));
    ASSERT_TRUE(first.waitForListing()) << first.child().out();
    ASSERT_EQ(0, first.stop());
    ASSERT_EQ("", first.child().err());
  }
  // The record's seventh line is its managed state: 2, by the watchdog
  // process, becomes 0.
  std::vector<std::string> file = qortest::linesWith(qortest::readFile(caps.file("teo.dat")), "");
  ASSERT_EQ(1u + 18, file.size());
  ASSERT_EQ("example.qorhost", file[3]);
  ASSERT_EQ("2", file[7]);
  file[7] = "0";
  std::string text;
  for (const std::string& line : file) text += line + "\n";
  qortest::writeFile(caps.file("teo.dat"), text);

  Host second(caps.path(), work.path(), work.file("trace"));
  ASSERT_TRUE(second.waitForListing()) << second.child().out();
  EXPECT_EQ(1u,
            qortest::linesWith(second.child().out(),
                               "qorhost: agent 'qorhost OS agent' id example.qorhost managed 0 (unmanaged) ")
                .size())
      << second.child().out();
  ASSERT_TRUE(second.waitForError(kNothingRestarted)) << second.child().err();
  EXPECT_EQ(0, second.stop());
  EXPECT_EQ(kNothingRestarted, second.child().err());
}

}  // namespace
