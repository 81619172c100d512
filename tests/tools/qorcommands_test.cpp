// The operator commands' table: every result code of every command has its
// meaning in words, lines are read into a command word and a name that may
// hold blanks, and the answers and hints read as an operator sees them.
#include "qorcommands.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "core/qorctrl.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

const qorcmd::Command& command(const std::string& word) {
  const qorcmd::Command* found = qorcmd::find(word);
  if (found == nullptr) {
    ADD_FAILURE() << "no command " << word;
    static const qorcmd::Command kNone{"", "", "", nullptr, {}};
    return kNone;
  }
  return *found;
}

std::vector<int> codesOf(const std::string& word) {
  std::vector<int> codes;
  for (const qorcmd::Meaning& meaning : command(word).meanings) codes.push_back(meaning.code);
  return codes;
}

}  // namespace

TEST(QorCommands, TheTableHoldsTheTenCommandsInTheOrderOfTheHelp) {
  std::vector<std::string> words;
  for (const qorcmd::Command& entry : qorcmd::commands()) words.push_back(entry.word);
  EXPECT_EQ((std::vector<std::string>{"stop", "start", "recycle", "reset", "manage", "unmanage", "disarm",
                                      "rearm", "list", "help"}),
            words);
  for (const char* word : {"stop", "start", "recycle", "reset", "manage", "unmanage"}) {
    EXPECT_STREQ("NAME", command(word).argument) << word;
    EXPECT_NE(nullptr, command(word).call) << word;
  }
  for (const char* word : {"disarm", "rearm"}) {
    EXPECT_STREQ("", command(word).argument) << word;
    EXPECT_NE(nullptr, command(word).call) << word;
  }
  for (const char* word : {"list", "help"}) {
    EXPECT_STREQ("", command(word).argument) << word;
    EXPECT_EQ(nullptr, command(word).call) << word;
    EXPECT_TRUE(command(word).meanings.empty()) << word;
  }
  EXPECT_EQ(nullptr, qorcmd::find("STOP"));
  EXPECT_EQ(nullptr, qorcmd::find(""));
}

TEST(QorCommands, EachCommandKnowsExactlyTheResultCodesTheServiceGivesIt) {
  EXPECT_EQ((std::vector<int>{0, 200, 201, 202, 203, -1}), codesOf("stop"));
  EXPECT_EQ((std::vector<int>{0, 100, 101, 102, 103, -1}), codesOf("start"));
  EXPECT_EQ((std::vector<int>{0, 300, 301, 302, -1}), codesOf("recycle"));
  EXPECT_EQ((std::vector<int>{0, 600, 601, 602, 603, -1}), codesOf("reset"));
  EXPECT_EQ((std::vector<int>{0, 401, 404, -1}), codesOf("manage"));
  EXPECT_EQ((std::vector<int>{0, 500, 501, -1}), codesOf("unmanage"));
  EXPECT_EQ((std::vector<int>{0, -1}), codesOf("disarm"));
  EXPECT_EQ((std::vector<int>{0, -1}), codesOf("rearm"));
}

TEST(QorCommands, EveryResultCodeHasAMeaningInWords) {
  for (const qorcmd::Command& entry : qorcmd::commands()) {
    for (const qorcmd::Meaning& meaning : entry.meanings) {
      const std::string text = qorcmd::meaning(entry, meaning.code);
      EXPECT_GT(text.size(), 5u) << entry.word << " " << meaning.code;
      EXPECT_NE("unknown result", text) << entry.word << " " << meaning.code;
    }
  }
}

TEST(QorCommands, TheMeaningsSayWhatEachCodeMeans) {
  EXPECT_EQ("accepted", qorcmd::meaning(command("stop"), 0));
  EXPECT_EQ("agent not managed", qorcmd::meaning(command("stop"), 200));
  EXPECT_EQ("agent is starting, stopping or already stopped by an operator",
            qorcmd::meaning(command("stop"), 201));
  EXPECT_EQ("no such agent", qorcmd::meaning(command("stop"), 202));
  EXPECT_EQ("it is the OS agent, which cannot stop itself", qorcmd::meaning(command("stop"), 203));
  EXPECT_EQ("the service is not started", qorcmd::meaning(command("stop"), -1));

  EXPECT_EQ("agent not managed", qorcmd::meaning(command("start"), 100));
  EXPECT_EQ("agent is starting or stopping", qorcmd::meaning(command("start"), 101));
  EXPECT_EQ("no such agent", qorcmd::meaning(command("start"), 102));
  EXPECT_EQ("it is the OS agent, which cannot start itself", qorcmd::meaning(command("start"), 103));

  EXPECT_EQ("agent not managed, or the OS agent not managed", qorcmd::meaning(command("recycle"), 300));
  EXPECT_EQ("agent is starting or stopping", qorcmd::meaning(command("recycle"), 301));
  EXPECT_EQ("no such agent", qorcmd::meaning(command("recycle"), 302));
  EXPECT_EQ("the watchdog process refused or could not be reached, or the service is not started",
            qorcmd::meaning(command("recycle"), -1));

  // Reset is the one group whose busy code is not code+1.
  EXPECT_EQ("agent not managed, or the OS agent not managed", qorcmd::meaning(command("reset"), 600));
  EXPECT_EQ("no such agent", qorcmd::meaning(command("reset"), 601));
  EXPECT_EQ("agent is starting or stopping", qorcmd::meaning(command("reset"), 602));
  EXPECT_EQ("the restart count is already 0", qorcmd::meaning(command("reset"), 603));

  EXPECT_EQ("no such agent", qorcmd::meaning(command("manage"), 401));
  EXPECT_EQ("the OS agent is unmanaged, so no agent may be managed", qorcmd::meaning(command("manage"), 404));
  EXPECT_EQ("agent not managed, or the OS agent not managed", qorcmd::meaning(command("unmanage"), 500));
  EXPECT_EQ("no such agent", qorcmd::meaning(command("unmanage"), 501));

  EXPECT_EQ("accepted", qorcmd::meaning(command("disarm"), 0));
  EXPECT_EQ("the service is not started", qorcmd::meaning(command("disarm"), -1));
  EXPECT_EQ("accepted", qorcmd::meaning(command("rearm"), 0));
  EXPECT_EQ("the service is not started", qorcmd::meaning(command("rearm"), -1));
}

TEST(QorCommands, ACodeOfAnotherCommandOrNoneIsAnUnknownResult) {
  EXPECT_EQ("unknown result", qorcmd::meaning(command("stop"), 100));
  EXPECT_EQ("unknown result", qorcmd::meaning(command("reset"), 604));
  EXPECT_EQ("unknown result", qorcmd::meaning(command("unmanage"), 401));
  EXPECT_EQ("unknown result", qorcmd::meaning(command("list"), 0));
}

TEST(QorCommands, TheNameIsTheRestOfTheLineTrimmedWithItsInnerBlanks) {
  qorcmd::Line line = qorcmd::parse("stop Example sleeper");
  EXPECT_EQ(qorcmd::Line::Kind::Run, line.kind);
  EXPECT_EQ(&command("stop"), line.command);
  EXPECT_EQ("stop", line.word);
  EXPECT_EQ("Example sleeper", line.name);

  line = qorcmd::parse(" \t start \t Two  words\t here  \r");
  EXPECT_EQ(qorcmd::Line::Kind::Run, line.kind);
  EXPECT_EQ(&command("start"), line.command);
  EXPECT_EQ("Two  words\t here", line.name);

  line = qorcmd::parse("reset\tTabbed");
  EXPECT_EQ(qorcmd::Line::Kind::Run, line.kind);
  EXPECT_EQ("Tabbed", line.name);
}

TEST(QorCommands, ListHelpDisarmAndRearmRunWithoutAName) {
  for (const char* text : {"list", "  help\r", "disarm", "\trearm "}) {
    qorcmd::Line line = qorcmd::parse(text);
    EXPECT_EQ(qorcmd::Line::Kind::Run, line.kind) << text;
    EXPECT_EQ("", line.name) << text;
  }
  EXPECT_EQ(&command("help"), qorcmd::parse("help").command);
  EXPECT_EQ(&command("disarm"), qorcmd::parse("disarm").command);
  EXPECT_EQ(&command("rearm"), qorcmd::parse("rearm").command);
}

TEST(QorCommands, ACommandWithoutItsNameIsMissingIt) {
  for (const char* text : {"stop", "start   ", "recycle\t\r", "  manage  "}) {
    qorcmd::Line line = qorcmd::parse(text);
    EXPECT_EQ(qorcmd::Line::Kind::MissingName, line.kind) << text;
    EXPECT_EQ("", line.name) << text;
  }
  EXPECT_EQ("stop needs the agent's name as the listing shows it: stop NAME",
            qorcmd::hint(qorcmd::parse("stop")));
  EXPECT_EQ("unmanage needs the agent's name as the listing shows it: unmanage NAME",
            qorcmd::hint(qorcmd::parse("unmanage ")));
}

TEST(QorCommands, ABlankLineIsNoCommandAndNeedsNoAnswer) {
  for (const char* text : {"", "   ", "\t \r"}) {
    qorcmd::Line line = qorcmd::parse(text);
    EXPECT_EQ(qorcmd::Line::Kind::Blank, line.kind) << '"' << text << '"';
    EXPECT_EQ(nullptr, line.command);
  }
}

TEST(QorCommands, AnUnknownWordIsRefusedWithTheListOfCommands) {
  qorcmd::Line line = qorcmd::parse("frobnicate the agent");
  EXPECT_EQ(qorcmd::Line::Kind::Unknown, line.kind);
  EXPECT_EQ(nullptr, line.command);
  EXPECT_EQ("frobnicate", line.word);
  EXPECT_EQ(
      "unknown command 'frobnicate'; one of: stop NAME | start NAME | recycle NAME | reset NAME | manage "
      "NAME | unmanage NAME | disarm | rearm | list | help",
      qorcmd::hint(line));
  // Command words are exact: neither capitals nor a word run on into the name.
  EXPECT_EQ(qorcmd::Line::Kind::Unknown, qorcmd::parse("STOP Example sleeper").kind);
  EXPECT_EQ(qorcmd::Line::Kind::Unknown, qorcmd::parse("stopExample").kind);
  EXPECT_EQ(
      "unknown command 'stopExample'; one of: stop NAME | start NAME | recycle NAME | reset NAME | manage "
      "NAME | unmanage NAME | disarm | rearm | list | help",
      qorcmd::hint(qorcmd::parse("stopExample")));
}

TEST(QorCommands, TheAnswerNamesTheCommandTheAgentTheCodeAndItsMeaning) {
  EXPECT_EQ("start 'Example sleeper': 0 (accepted)", qorcmd::answer(command("start"), "Example sleeper", 0));
  EXPECT_EQ("stop 'Nobody': 202 (no such agent)", qorcmd::answer(command("stop"), "Nobody", 202));
  EXPECT_EQ("reset 'Example sleeper': 603 (the restart count is already 0)",
            qorcmd::answer(command("reset"), "Example sleeper", 603));
  EXPECT_EQ("stop 'x': 7 (unknown result)", qorcmd::answer(command("stop"), "x", 7));
  // A command without a name has none to repeat.
  EXPECT_EQ("disarm: 0 (accepted)", qorcmd::answer(command("disarm"), "", 0));
  EXPECT_EQ("rearm: -1 (the service is not started)", qorcmd::answer(command("rearm"), "", -1));
}

TEST(QorCommands, TheHelpHasOneLinePerCommandWithItsArgument) {
  const std::string help = qorcmd::help();
  std::vector<std::string> lines = qortest::linesWith(help, "");
  ASSERT_EQ(10u, lines.size()) << help;
  EXPECT_EQ("  stop NAME       stop the agent by its stop script; it stays down until started", lines[0]);
  EXPECT_EQ("  reset NAME      set the agent's restarts today back to 0, so that it is restarted again",
            lines[3]);
  EXPECT_EQ("  disarm          disarm the service: agents found down are no longer restarted", lines[6]);
  EXPECT_EQ("  rearm           rearm the service: agents found down are restarted again", lines[7]);
  EXPECT_EQ("  list            list the agents, as SIGUSR1 does", lines[8]);
  EXPECT_EQ("  help            list these commands", lines[9]);
}

TEST(QorCommands, BeforeTheServiceStartsACommandAnswersMinusOneAndTheNameIsPassedAsItsProcess) {
  qortest::TempDir dir;
  setenv("QOR_CAP_DIR", dir.path().c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  ASSERT_NE(nullptr, service);
  qorcmd::Target target = qorcmd::lookup(*service, "Some agent");
  EXPECT_FALSE(target.listed);
  EXPECT_EQ(L"Some agent", target.name);
  EXPECT_EQ(L"Some agent", target.process);
  for (const char* word : {"stop", "start", "recycle", "reset", "manage", "unmanage"}) {
    EXPECT_EQ(-1, qorcmd::run(*service, command(word), "Some agent")) << word;
  }
  // Nor is the service disarmed: with no queues yet, nothing would tell of it.
  EXPECT_EQ(-1, qorcmd::run(*service, command("disarm"), ""));
  EXPECT_EQ(-1, qorcmd::run(*service, command("rearm"), ""));
  EXPECT_FALSE(Controller::getController()->isDisarmed());
  EXPECT_EQ(-1, qorcmd::run(*service, command("list"), "Some agent"));
  // Not released: the release of a service that never started would wait for
  // threads that were never there, and the process ends with the test.
}
