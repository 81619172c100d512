#include "watchdog/qorusr.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorutil.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/qorcmdunx.h"
#include "watchdog/qorunx.h"

namespace {

// A user id that no passwd entry has.
int unknownUserId() {
  for (int id = 54321; id < 64000; ++id) {
    if (getpwuid(static_cast<uid_t>(id)) == nullptr) return id;
  }
  return -1;
}

std::wstring realUserName() {
  struct passwd* entry = getpwuid(getuid());
  return entry == nullptr ? std::wstring() : qor_mbstowcs(entry->pw_name);
}

QorCmdUNIX* manager() { return static_cast<QorCmdUNIX*>(GetCmdManager()); }

}  // namespace

TEST(UserNames, AUserIdWithoutPasswdEntryIsNotAvailableAndAskedForOnce) {
  int id = unknownUserId();
  ASSERT_NE(-1, id);
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR | QOR_TL_DETAIL);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(L"NOT_AVAILABLE", manager()->idToUserName(id));
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Error executing getpwuid - errno = "));
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace, "Adding userName NOT_AVAILABLE (key = " + std::to_string(id) + ") to cache\n"));
  EXPECT_EQ(L"NOT_AVAILABLE", GetIDUserName(id));
}

TEST(UserNames, RootAndNobodyAreNamedFromThePasswdFile) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR | QOR_TL_DETAIL);
  EXPECT_EQ(L"root", manager()->idToUserName(0));
  EXPECT_EQ(L"nobody", manager()->idToUserName(65534));
  EXPECT_EQ(L"root", manager()->idToUserName(0));
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Adding userName root (key = 0) to cache\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Adding userName nobody (key = 65534) to cache\n"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "Error executing getpwuid"));
  EXPECT_EQ(L"root", GetIDUserName(0));
  EXPECT_EQ(L"nobody", GetIDUserName(65534));
}

TEST(UserNames, AKnownUserIdIsCachedUnderItsName) {
  EXPECT_EQ(L"", GetIDUserName(static_cast<int>(getuid())));
  EXPECT_EQ(realUserName(), manager()->idToUserName(static_cast<int>(getuid())));
  EXPECT_EQ(realUserName(), GetIDUserName(static_cast<int>(getuid())));
}

TEST(UserNames, TheCacheKeepsTheFirstNameAndIgnoresAnEmptyOne) {
  SetIDUserName(4711, L"");
  EXPECT_EQ(L"", GetIDUserName(4711));
  SetIDUserName(4711, L"first");
  SetIDUserName(4711, L"second");
  EXPECT_EQ(L"first", GetIDUserName(4711));
  EXPECT_EQ(L"first", manager()->idToUserName(4711));
}

TEST(UserNames, ThreadsAskingForOneUnknownIdCauseOnePasswdLookup) {
  int id = unknownUserId();
  ASSERT_NE(-1, id);
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR);
  std::atomic<int> wrong{0};
  // getpwuid is not reentrant: the expected name is read before the threads.
  const std::wstring realName = realUserName();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        if (manager()->idToUserName(id) != L"NOT_AVAILABLE") ++wrong;
        if (manager()->idToUserName(static_cast<int>(getuid())) != realName) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "Error executing getpwuid"));
}

TEST(CurrentUser, TheUserVariableComesFirst) {
  setenv("USER", "qorop", 1);
  EXPECT_EQ(L"qorop", GetCurrentUser());
  setenv("USER", "later", 1);
  EXPECT_EQ(L"qorop", GetCurrentUser());  // found once, then kept
}

TEST(CurrentUser, WithoutTheUserVariableTheRealUserIdsName) {
  unsetenv("USER");
  EXPECT_EQ(realUserName(), GetCurrentUser());
}

// ---- Run-as files ------------------------------------------------------------

namespace {

std::string hostName() {
  char name[256] = {0};
  gethostname(name, sizeof name - 1);
  return name;
}

// An entry of a run-as file: the product code and its instances, each a
// (name, user) pair; a name of "-" leaves the name element out.
std::string entry(const std::string& code, const std::vector<std::pair<std::string, std::string>>& instances,
                  bool closed = true) {
  std::string text = "<agent>\n  <productCode>" + code + "</productCode>\n";
  for (const auto& instance : instances) {
    text += "  <instance>";
    if (instance.first != "-") text += "<name>" + instance.first + "</name>";
    text += "<user>" + instance.second + "</user></instance>\n";
  }
  return closed ? text + "</agent>\n" : text;
}

// A $MARLOWHOME with a config folder, set in the environment before anything
// expands the variable; and agents of the suite to read the files for.
class RunAs : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("MARLOWHOME", home.path().c_str(), 1);
    ASSERT_EQ(0, qortest::runProgram({"/bin/mkdir", "-p", home.file("config")}).exitCode);
    qortest::traceTo(home.file("trace"), QOR_TL_ERROR | QOR_TL_DETAIL);
  }
  std::string hostFile() const { return home.file("config/" + hostName() + "_hlxrunas.cfg"); }
  std::string generalFile() const { return home.file("config/hmvrunas.cfg"); }
  std::string trace() const { return qortest::readFile(home.file("trace")); }
  int traced(const std::string& text) const { return qortest::countOccurrences(trace(), text); }
  // An agent of the suite with product code `code` and instance `instance`,
  // whose user name is "before" until a file names another.
  static std::unique_ptr<Agent> suiteAgent(const std::string& code, const std::string& instance,
                                           AgentType type = ZEL_UNIX) {
    std::unique_ptr<Agent> agent(new Agent());
    Policy* policy = new Policy();
    policy->setAgentTypeElement(type);
    // Specific, so that setting the code does not ask the suite's tool for instances.
    policy->setGeneric(false);
    policy->setProductCode(qor_mbstowcs(code.c_str()));
    agent->setPolicy(policy);
    agent->setInstanceName(qor_mbstowcs(instance.c_str()));
    agent->setUserName(L"before");
    return agent;
  }
  static std::wstring userAfterCollecting(Agent& agent) {
    ZELUserProcessor::collectZELUser(agent);
    return agent.getUserName();
  }

  qortest::TempDir home;
};

}  // namespace

TEST_F(RunAs, NeitherFileExistsTwoErrorTracesAndTheUserNameStays) {
  auto agent = suiteAgent("ab", "None");
  EXPECT_EQ(L"before", userAfterCollecting(*agent));
  EXPECT_EQ(1, traced("Parsing file: " + hostFile()));
  EXPECT_EQ(1, traced("Error reading file " + hostFile()));
  EXPECT_EQ(1, traced("Parsing file: " + generalFile()));
  EXPECT_EQ(1, traced("Error reading file " + generalFile()));
  EXPECT_EQ(2, traced("Error reading file "));
}

TEST_F(RunAs, TheHostFileWinsAndTheGeneralFileIsThenNotRead) {
  qortest::writeFile(hostFile(), entry("ab", {{"inst1", "hostuser"}}));
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "generaluser"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"hostuser", userAfterCollecting(*agent));
  EXPECT_EQ(1, traced("Parsing file: " + hostFile()));
  EXPECT_EQ(0, traced("Parsing file: " + generalFile()));
}

TEST_F(RunAs, AHostFileWithoutAnEntryForTheProductCodeLeadsToTheGeneralFile) {
  qortest::writeFile(hostFile(), entry("xy", {{"inst1", "otheruser"}}));
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "generaluser"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"generaluser", userAfterCollecting(*agent));
  EXPECT_EQ(1, traced("Parsing file: " + generalFile()));
  EXPECT_EQ(0, traced("Error reading file "));
}

TEST_F(RunAs, AHostFileThatNamesNoUserForTheInstanceLeadsToTheGeneralFile) {
  qortest::writeFile(hostFile(), entry("ab", {{"inst2", "otheruser"}}));
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "generaluser"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"generaluser", userAfterCollecting(*agent));
}

TEST_F(RunAs, OfTwoMatchingInstancesTheLaterOnesUserIsSet) {
  qortest::writeFile(generalFile(),
                     entry("ab", {{"inst1", "first"}, {"inst2", "other"}, {"inst1", "second"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"second", userAfterCollecting(*agent));
}

TEST_F(RunAs, AnInstanceWithoutNameAppliesToAnAgentWithInstanceNone) {
  qortest::writeFile(generalFile(), entry("ab", {{"-", "nameless"}}));
  auto agent = suiteAgent("ab", "None");
  EXPECT_EQ(L"nameless", userAfterCollecting(*agent));
}

TEST_F(RunAs, AnInstanceWithoutNameDoesNotApplyToAnAgentWithAnotherInstance) {
  qortest::writeFile(generalFile(), entry("ab", {{"-", "nameless"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"before", userAfterCollecting(*agent));
  ZELUserProcessor processor;
  EXPECT_FALSE(processor.getUserInfo(qor_mbstowcs(generalFile().c_str()), *agent));
}

TEST_F(RunAs, ZeluserIsSkippedAlsoForTheRightInstance) {
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "real"}, {"inst1", "zeluser"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"real", userAfterCollecting(*agent));
}

TEST_F(RunAs, AnEntryNamingOnlyZeluserLeavesTheUserNameAsItWas) {
  qortest::writeFile(hostFile(), entry("ab", {{"inst1", " zeluser "}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"before", userAfterCollecting(*agent));
  // It settles nothing, so the general file is looked for.
  EXPECT_EQ(1, traced("Error reading file " + generalFile()));
}

TEST_F(RunAs, AnEntryThatIsNotWellFormedIsTracedAndTheNextEntryIsTried) {
  const std::string broken = "<agent>\n  <productCode>ab</productCode>\n  <instance><user>x</instance>\n";
  qortest::writeFile(generalFile(), broken + "</agent>\n" + entry("ab", {{"inst1", "fromsecond"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"fromsecond", userAfterCollecting(*agent));
  EXPECT_EQ(1, traced("Error parsing xml product code entry"));
  EXPECT_EQ(1,
            traced("Unable to parse entry <productCode>ab</productCode>\n  <instance><user>x</instance>\n"));
}

TEST_F(RunAs, NamesAndCodesAreTrimmed) {
  qortest::writeFile(generalFile(),
                     "<agent><productCode>\n  ab \t</productCode>"
                     "<instance><name> inst1\n</name><user>\r\n  spaced  </user></instance></agent>\n");
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"spaced", userAfterCollecting(*agent));
}

TEST_F(RunAs, TextAroundTheEntriesIsSkipped) {
  qortest::writeFile(generalFile(), "<?xml version=\"1.0\"?>\n<runas>\n<!-- one entry per agent -->\n" +
                                        entry("xy", {{"inst1", "other"}}) + "junk & < > text\n" +
                                        entry("ab", {{"inst1", "mine"}}) + "</runas>\n");
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"mine", userAfterCollecting(*agent));
  EXPECT_EQ(0, traced("Error parsing xml product code entry"));
}

// ---- Run-as files with bad input ---------------------------------------------

TEST_F(RunAs, AnEmptyFileNamesNoOneWithoutAnErrorAndTheGeneralFileIsRead) {
  qortest::writeFile(hostFile(), "");
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "generaluser"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"generaluser", userAfterCollecting(*agent));
  EXPECT_EQ(0, traced("Error reading file "));
  EXPECT_EQ(0, traced("Error parsing xml product code entry"));
}

TEST_F(RunAs, AFileThatCannotBeReadIsTracedLikeAMissingOne) {
  // A folder in the file's place: it opens, but reading it fails, as root too.
  ASSERT_EQ(0, qortest::runProgram({"/bin/mkdir", hostFile()}).exitCode);
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "generaluser"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"generaluser", userAfterCollecting(*agent));
  EXPECT_EQ(1, traced("Error reading file " + hostFile()));
}

TEST_F(RunAs, AnOverlongUserIsCutAtTheBufferAndNotReadPast) {
  const std::string longUser(3000, 'u');
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", longUser}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(std::wstring(ZELUserProcessor::kTextCapacity, L'u'), userAfterCollecting(*agent));
  EXPECT_EQ(2096, ZELUserProcessor::kTextCapacity);
}

TEST_F(RunAs, AUserOfExactlyTheBuffersLengthIsKeptWhole) {
  std::string user(2095, 'v');
  user += 'w';
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", user}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(qor_mbstowcs(user.c_str()), userAfterCollecting(*agent));
}

TEST_F(RunAs, AHugeLineBeforeTheEntryDoesNotHideIt) {
  qortest::writeFile(generalFile(), std::string(1 << 20, 'x') + "\n" + entry("ab", {{"inst1", "afterhuge"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"afterhuge", userAfterCollecting(*agent));
}

TEST_F(RunAs, OfTwoEntriesForOneProductCodeTheFirstThatNamesTheAgentWins) {
  qortest::writeFile(generalFile(), entry("ab", {{"inst2", "notmine"}}) + entry("ab", {{"inst1", "second"}}) +
                                        entry("ab", {{"inst1", "third"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"second", userAfterCollecting(*agent));
}

TEST_F(RunAs, AnEntryWithBytesThatAreNotUtf8IsTracedAndTheNextEntryIsTried) {
  qortest::writeFile(generalFile(),
                     entry("ab", {{"inst1", "bad\xff\xfe"}}) + entry("ab", {{"inst1", "good"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"good", userAfterCollecting(*agent));
  EXPECT_EQ(1, traced("Error parsing xml product code entry"));
}

TEST_F(RunAs, AUserInUtf8IsConvertedWhole) {
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "J\xc3\xb6rg\xe2\x82\xac"}}));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"J\u00f6rg\u20ac", userAfterCollecting(*agent));
}

TEST_F(RunAs, AnInstanceWithoutUserNamesNoOne) {
  qortest::writeFile(generalFile(),
                     "<agent><productCode>ab</productCode>"
                     "<instance><name>inst1</name></instance></agent>\n");
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"before", userAfterCollecting(*agent));
}

// Kept: an entry without "</agent>" ends at a blank line, and is the last one
// read, so the entries after it are never looked at.
TEST_F(RunAs, AnEntryEndedByABlankLineIsTheLastOneRead) {
  qortest::writeFile(generalFile(), entry("xy", {{"inst1", "other"}}, false) + "\n" +
                                        entry("ab", {{"inst1", "unseen"}}, false));
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"before", userAfterCollecting(*agent));
}

TEST_F(RunAs, AnEntryEndedByABlankLineOrTheEndOfTheFileIsRead) {
  qortest::writeFile(hostFile(), entry("ab", {{"inst1", "blank"}}, false) + "\n" + "trailing text <x>\n");
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "end"}}, false));
  auto host = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"blank", userAfterCollecting(*host));
  std::remove(hostFile().c_str());
  auto general = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"end", userAfterCollecting(*general));
}

TEST_F(RunAs, AnEntryWithoutItsEndRunsToTheNextEntrysEnd) {
  // The first entry has no "</agent>" and no blank line: it takes in the
  // second one's instances, and its own product code counts.
  qortest::writeFile(
      generalFile(),
      "<productCode>ab</productCode><instance><name>inst1</name><user>first</user></instance>\n"
      "<productCode>xy</productCode><instance><name>inst1</name><user>second</user></instance>"
      "</agent>\n");
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"second", userAfterCollecting(*agent));
  auto other = suiteAgent("xy", "inst1");
  EXPECT_EQ(L"before", userAfterCollecting(*other));
}

TEST_F(RunAs, AZeroByteEndsTheFilesText) {
  std::string text = entry("xy", {{"inst1", "other"}});
  text += '\0';
  text += entry("ab", {{"inst1", "hidden"}});
  qortest::writeFile(generalFile(), text);
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"before", userAfterCollecting(*agent));
}

TEST_F(RunAs, AnEntryClosingTheWrapperIsRefusedAsNotWellFormed) {
  qortest::writeFile(generalFile(),
                     "<productCode>ab</productCode></doc><doc><instance><name>inst1</name>"
                     "<user>sneaky</user></instance></agent>\n");
  auto agent = suiteAgent("ab", "inst1");
  EXPECT_EQ(L"before", userAfterCollecting(*agent));
  EXPECT_EQ(1, traced("Error parsing xml product code entry"));
}

// ---- Who asks for the run-as user ---------------------------------------------

TEST_F(RunAs, OnlyAgentsOfTheSuiteAreLookedUp) {
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "suiteuser"}}));
  auto console = suiteAgent("ab", "inst1", Console);
  console->setZELUserName();
  EXPECT_EQ(L"before", console->getUserName());
  EXPECT_EQ(0, traced("Parsing file: "));
  auto unix = suiteAgent("ab", "inst1", ZEL_UNIX);
  unix->setZELUserName();
  EXPECT_EQ(L"suiteuser", unix->getUserName());
  auto windows = suiteAgent("ab", "inst1", ZEL_Windows);
  windows->setZELUserName();
  EXPECT_EQ(L"suiteuser", windows->getUserName());
}

TEST_F(RunAs, TheUserMarkerOfAScriptExpandsToTheRunAsUser) {
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "oracle"}}));
  auto agent = suiteAgent("ab", "inst1");
  agent->setUserName(L"");
  agent->setZELUserName();
  EXPECT_EQ(L"su oracle -c ./start inst1",
            ReplaceTEOVariables(L"su ##USER## -c ./start ##INSTANCE##", agent.get()));
}

TEST_F(RunAs, AgentsOnSeveralThreadsAreLookedUpAtOnce) {
  qortest::writeFile(generalFile(), entry("ab", {{"inst1", "one"}, {"inst2", "two"}}));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        const bool first = (t + i) % 2 == 0;
        auto agent = suiteAgent("ab", first ? "inst1" : "inst2");
        agent->setZELUserName();
        if (agent->getUserName() != (first ? L"one" : L"two")) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, wrong.load());
}

TEST(UToWstring, TrimsAndConvertsAndGivesEmptyForAHalfSurrogate) {
  icu::UnicodeString text = icu::UnicodeString::fromUTF8("  \tname\xc3\xa9 \n");
  std::wstring result = L"old";
  uToWstring(text, result);
  EXPECT_EQ(L"name\u00e9", result);
  icu::UnicodeString broken;
  broken.append(static_cast<UChar>(0xD800));
  broken.append(static_cast<UChar>('x'));
  uToWstring(broken, result);
  EXPECT_EQ(L"", result);
}
