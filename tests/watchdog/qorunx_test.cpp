#include "watchdog/qorunx.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "agents/qoragt.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmd.h"

namespace {

// Commands of the suite's tool must end within the loop's second pass.
void fastCommands() {
  MIN_CMD_TIMEOUT = 3;
  unsetenv("QOR_CMD_TIMEOUT");
}

std::wstring realUserName() {
  struct passwd* entry = getpwuid(getuid());
  return entry == nullptr ? std::wstring() : qor_mbstowcs(entry->pw_name);
}

}  // namespace

TEST(EnvVariables, ANameEndsAtASlash) {
  setenv("MARLOWHOME", "/opt/suite", 1);
  EXPECT_EQ(L"/opt/suite/bin", ReplaceEnvVariables(L"$MARLOWHOME/bin"));
}

TEST(EnvVariables, ANameEndsAtABlankAndAtTheNextDollarSign) {
  setenv("QOR_T_A", "a", 1);
  setenv("QOR_T_B", "b", 1);
  EXPECT_EQ(L"a b", ReplaceEnvVariables(L"$QOR_T_A $QOR_T_B"));
  EXPECT_EQ(L"ab", ReplaceEnvVariables(L"$QOR_T_A$QOR_T_B"));
}

TEST(EnvVariables, AColonBelongsToTheNameSoTheFirstNameStaysUnexpanded) {
  setenv("MARLOWHOME", "/opt/suite", 1);
  setenv("HOME", "/home/qor", 1);
  EXPECT_EQ(L"$MARLOWHOME:/home/qor", ReplaceEnvVariables(L"$MARLOWHOME:$HOME"));
}

TEST(EnvVariables, ADollarSignAtTheEndIsAnInvalidNameAndTheTextStays) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  EXPECT_EQ(L"costs 5$", ReplaceEnvVariables(L"costs 5$"));
  EXPECT_EQ(1,
            qortest::countOccurrences(qortest::readFile(dir.file("trace")), "Invalid var name -- null.\n"));
}

TEST(EnvVariables, ADoubleDollarLooksUpANameThatBeginsWithDollarThenExpandsTheRest) {
  setenv("X", "value", 1);
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  EXPECT_EQ(L"$value", ReplaceEnvVariables(L"$$X"));
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Env variable $X not defined.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Replacing env variable $X with value.\n"));
}

TEST(EnvVariables, AnUndefinedVariableStaysAndTheDefinedOneAfterItIsExpanded) {
  unsetenv("QOR_T_UNDEFINED");
  setenv("QOR_T_DEFINED", "here", 1);
  EXPECT_EQ(L"$QOR_T_UNDEFINED/here", ReplaceEnvVariables(L"$QOR_T_UNDEFINED/$QOR_T_DEFINED"));
}

TEST(EnvVariables, AValueIsExpandedInTurnUnlessItsDollarComesFirst) {
  setenv("QOR_T_INNER", "in", 1);
  setenv("QOR_T_OUTER", "x$QOR_T_INNER", 1);
  setenv("QOR_T_LEADING", "$QOR_T_INNER", 1);
  EXPECT_EQ(L"xin/", ReplaceEnvVariables(L"$QOR_T_OUTER/"));
  EXPECT_EQ(L"$QOR_T_INNER/", ReplaceEnvVariables(L"$QOR_T_LEADING/"));
}

TEST(EnvVariables, AValueThatNamesItselfStopsAfterABoundedNumberOfReplacements) {
  setenv("QOR_T_SELF", "x$QOR_T_SELF", 1);
  std::wstring result = ReplaceEnvVariables(L"$QOR_T_SELF");
  EXPECT_EQ(std::wstring(256, L'x') + L"$QOR_T_SELF", result);
}

TEST(EnvVariables, MarlowhomeLosesOneTrailingSlash) {
  setenv("MARLOWHOME", "/opt/suite/", 1);
  EXPECT_EQ(L"/opt/suite/bin", ReplaceEnvVariables(L"$MARLOWHOME/bin"));
}

TEST(EnvVariables, MarlowhomeWithTwoTrailingSlashesKeepsOne) {
  setenv("MARLOWHOME", "/opt/suite//", 1);
  EXPECT_EQ(L"/opt/suite//bin", ReplaceEnvVariables(L"$MARLOWHOME/bin"));
}

TEST(EnvVariables, NumbersWithALetterOrASignAreInvalidAndLeadingZerosAreFine) {
  int value = 9;
  setenv("QOR_T_NUMBER", "12a", 1);
  EXPECT_FALSE(QOR_GetEnvironmentAsInt("QOR_T_NUMBER", value));
  EXPECT_EQ(0, value);
  setenv("QOR_T_NUMBER", "-5", 1);
  value = 9;
  EXPECT_FALSE(QOR_GetEnvironmentAsInt("QOR_T_NUMBER", value));
  EXPECT_EQ(0, value);
  setenv("QOR_T_NUMBER", "0042", 1);
  EXPECT_TRUE(QOR_GetEnvironmentAsInt("QOR_T_NUMBER", value));
  EXPECT_EQ(42, value);
}

TEST(EnvVariables, AnInvalidByteMakesTheWholeConversionEmpty) {
  setenv("LC_ALL", "C.UTF-8", 1);
  EXPECT_EQ(L"", qor_mbstowcs("path/\xff/bin"));
  EXPECT_EQ(L"path/bin", qor_mbstowcs("path/bin"));
}

TEST(AgentEnvironment, BinarchOfAnotherAgentRunsTheToolOnceWhenTheAnswerIsNotEmpty) {
  fastCommands();
  proctest::FakeSuite suite;
  suite.answer("p", "linux-x86_64 qb 9.1\nlinux-ppc qbx 9.1\n");
  EXPECT_EQ(L"/opt/linux-x86_64/qb", ReplaceEnvVariables(L"/opt/$BINARCH@qb/qb"));
  EXPECT_EQ(L"/opt/linux-x86_64/qb", ReplaceEnvVariables(L"/opt/$BINARCH@qb/qb"));
  EXPECT_EQ(1, suite.runs());
  EXPECT_EQ("-p qb\n", suite.log());
  EXPECT_EQ(L"linux-x86_64", GetEnvVarValue(L"qb_BINARCH"));
}

TEST(AgentEnvironment, AnEmptyAnswerIsNotCachedAndTheToolRunsAgain) {
  fastCommands();
  proctest::FakeSuite suite;
  EXPECT_EQ(L"$BINARCH@qc/bin", ReplaceEnvVariables(L"$BINARCH@qc/bin"));
  EXPECT_EQ(L"$BINARCH@qc/bin", ReplaceEnvVariables(L"$BINARCH@qc/bin"));
  EXPECT_EQ(2, suite.runs());
}

TEST(AgentEnvironment, ASettingOfAnotherAgentComesFromItsConfiguration) {
  fastCommands();
  proctest::FakeSuite suite;
  suite.answer("s", "OTHER = 1\nDB_PORT = 5432\n");
  EXPECT_EQ(L"port 5432 here", ReplaceEnvVariables(L"port $DB_PORT@qg here"));
  EXPECT_EQ("-s qg\n", suite.log());
  EXPECT_EQ(L"", GetZELEnvVarValue(L"qg", L"MISSING"));
}

TEST(AgentEnvironment, ASetValueIsAddedOnceAndNotReplaced) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  QOR_SetZELAgentEnvironment(L"qx", L"HOME_DIR", L"/first");
  QOR_SetZELAgentEnvironment(L"qx", L"HOME_DIR", L"/second");
  EXPECT_EQ(L"/first", GetEnvVarValue(GetZELAgentCacheKey(L"qx", L"HOME_DIR")));
  EXPECT_EQ(L"qx_HOME_DIR", GetZELAgentCacheKey(L"qx", L"HOME_DIR"));
  // A cached value answers without asking anyone.
  EXPECT_EQ(L"/first/bin", ReplaceEnvVariables(L"$HOME_DIR@qx/bin"));
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Adding ZEL Agent env variable qx_HOME_DIR=/first.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "ZEL Agent env variable qx_HOME_DIR already defined.\n"));
}

TEST(RunVariables, InstanceIsReplacedAndAMissingInstanceRemovesTheMarker) {
  Agent agent;
  agent.setInstanceName(L"db1");
  EXPECT_EQ(L"start db1 --name=db1", ReplaceTEOVariables(L"start ##INSTANCE## --name=##INSTANCE##", &agent));
  Agent bare;
  EXPECT_EQ(L"start  now", ReplaceTEOVariables(L"start ##INSTANCE## now", &bare));
}

TEST(RunVariables, UserIsTheAgentsUserWhenItHasOne) {
  Agent agent;
  agent.setUserName(L"oracle");
  EXPECT_EQ(L"su oracle -c run", ReplaceTEOVariables(L"su ##USER## -c run", &agent));
}

TEST(RunVariables, UserFallsBackToTheUserVariable) {
  setenv("USER", "qoruser", 1);
  Agent agent;
  EXPECT_EQ(L"su qoruser", ReplaceTEOVariables(L"su ##USER##", &agent));
}

TEST(RunVariables, UserFallsBackToTheRealUserWithoutTheVariable) {
  unsetenv("USER");
  Agent agent;
  EXPECT_EQ(L"su " + realUserName(), ReplaceTEOVariables(L"su ##USER##", &agent));
}

TEST(RunVariables, ACommandWithoutAMarkerIsUnchangedAndDoesNotAskForTheUser) {
  setenv("USER", "first", 1);
  Agent agent;
  EXPECT_EQ(L"run it", ReplaceTEOVariables(L"run it", &agent));
  // Neither the variable nor the current user was read: the later value counts.
  setenv("USER", "second", 1);
  EXPECT_EQ(L"su second", ReplaceTEOVariables(L"su ##USER##", &agent));
}

TEST(RunVariables, ANullAgentLeavesTheCommandAsItIs) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  EXPECT_EQ(L"run ##INSTANCE##", ReplaceTEOVariables(L"run ##INSTANCE##", nullptr));
  EXPECT_EQ(
      1, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "Agent is null - nothing to do.\n"));
}

TEST(RunVariables, AValueHoldingTheVariableIsReplacedOnceAndTheLoopEnds) {
  std::wstring text = L"a ##X## b ##X##";
  ReplaceTEOVariables(text, L"##X##", L"[##X##]");
  EXPECT_EQ(L"a [##X##] b [##X##]", text);
}

TEST(RunVariables, EveryOccurrenceIsReplacedFromTheStart) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  std::wstring text = L"##I##-##I##";
  ReplaceTEOVariables(text, L"##I##", L"v");
  EXPECT_EQ(L"v-v", text);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Index 0.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Index 2.\n"));
  EXPECT_EQ(2, qortest::countOccurrences(trace, "Replacing instance variable.\n"));
}

TEST(ControlFiles, DeleteFileRemovesTheFile) {
  qortest::TempDir dir;
  const std::string path = dir.file("qg.dy");
  qortest::writeFile(path, "");
  DeleteFile(std::wstring(path.begin(), path.end()));
  EXPECT_FALSE(qortest::fileExists(path));
  DeleteFile(L"/nonexistent/qor/file.dy");  // nothing to remove: no harm
}
