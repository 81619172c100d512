// The socket servers over real sockets: each server's run() on a thread of
// the test, with agents in the live lists, and a client that sends raw bytes
// and reads every byte of the answer. The wire format (commands, queries,
// codes, zero-byte answers), the socket file's rights and the refusals at
// start, and what bad clients cannot do to the server.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <string>
#include <thread>
#include <vector>

#include "core/qorevthand.h"
#include "e2e/embedded.h"
#include "include/qorapi.h"
#include "interfaces/qorsockclient.h"
#include "interfaces/socktest.h"

namespace {

using socktest::answerTo;
using socktest::ListedAgents;
using socktest::ScriptedServer;
using socktest::ServerThread;
using Queued = ListedAgents::Queued;

// QOR_IP_DIR is a fresh directory of the test; traces of every level the
// servers use go to a file there.
class SocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QOR_IP_DIR", dir.path().c_str(), 1);
    qortest::traceTo(dir.file("trace"), 1 | 2 | 16 | 128);
  }
  std::string trace() { return qortest::readFile(dir.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }

  qortest::TempDir dir;
  ListedAgents agents;
};

// The embedded service's server on .teo_sock.
class TeoSocket : public SocketTest {
 protected:
  void SetUp() override {
    SocketTest::SetUp();
    SOCKET_ANSWER_CYCLE_MS = 20;  // the recycle's wait for the watchdog process
    server.reset(new TEOSocketServer());
    thread.reset(new ServerThread(*server));
    ASSERT_TRUE(thread->start()) << trace();
  }
  void TearDown() override { EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread->stop()) << trace(); }
  std::string ask(const std::string& request) { return answerTo(server->getSocketPath(), request); }

  std::unique_ptr<TEOSocketServer> server;
  std::unique_ptr<ServerThread> thread;
};

// The watchdog process's server on .teo_wd_sock.
class WatchdogSocket : public SocketTest {
 protected:
  void SetUp() override {
    SocketTest::SetUp();
    server.reset(new WatchdogSocketServer());
    thread.reset(new ServerThread(*server));
    ASSERT_TRUE(thread->start()) << trace();
  }
  void TearDown() override { EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread->stop()) << trace(); }
  std::string ask(const std::string& request) { return answerTo(server->getSocketPath(), request); }

  std::unique_ptr<WatchdogSocketServer> server;
  std::unique_ptr<ServerThread> thread;
};

}  // namespace

// ---- The tokens ---------------------------------------------------------------------

TEST(RequestTokensTest, BlanksSeparateRunsOfThemCountOnceAndLeadingOnesAreSkipped) {
  char request[] = "   622  started -o   db1 qg  ";
  socktest::RequestTokensList tokens = socktest::allTokens(request);
  EXPECT_EQ((socktest::RequestTokensList{"622", "started", "-o", "db1", "qg"}), tokens);
}

TEST(RequestTokensTest, OnlyTheBlankSeparatesAndTwoReadersKeepTheirOwnPlace) {
  char first[] = "622\tstarted qg\n";
  char second[] = "a b";
  RequestTokens one(first);
  RequestTokens two(second);
  EXPECT_STREQ("622\tstarted", one.next());
  EXPECT_STREQ("a", two.next());
  EXPECT_STREQ("qg\n", one.next());
  EXPECT_STREQ("b", two.next());
  EXPECT_EQ(nullptr, one.next());
  EXPECT_EQ(nullptr, one.next());
  EXPECT_EQ(nullptr, two.next());
  char blanks[] = "    ";
  EXPECT_EQ(nullptr, RequestTokens(blanks).next());
  char empty[] = "";
  EXPECT_EQ(nullptr, RequestTokens(empty).next());
}

// ---- Commands on .teo_sock ----------------------------------------------------------

TEST_F(TeoSocket, EachStateCommandQueuesItsEventForAManagedAgentAndAnswersZero) {
  Agent* db1 = agents.add(L"Agent Q", L"qg", L"db1", Managed, OpRunning);
  EXPECT_EQ("0", ask("622 starting -o db1 qg"));
  EXPECT_EQ("0", ask("622 stopping -p db1 qg"));
  EXPECT_EQ("0", ask("622 started -o db1 qg"));
  EXPECT_EQ("0", ask("622 stopped -o db1 qg"));
  EXPECT_EQ("0", ask("622 recycle -p db1 qg"));
  EXPECT_EQ((std::vector<Queued>{{agent_start_cmd, OpRunning, false, db1},
                                 {agent_stop_cmd, OpRunning, false, db1},
                                 {agent_started, OpRunning, false, db1},
                                 {agent_stopped, OpRunning, false, db1},
                                 {agent_recycle_cmd, OpRunning, true, db1}}),
            ListedAgents::commandsQueued());
  EXPECT_EQ(1, traced("Socket received command: 622 recycle -p db1 qg\n"));
  EXPECT_EQ(5, traced("Product code token in request: qg\n"));
  EXPECT_EQ(5, traced("Instance name match.\n"));
  EXPECT_EQ(5, traced("Answer sent.\n"));
}

TEST_F(TeoSocket, TheEventCarriesTheAgentsOperatingStateOfThatMoment) {
  Agent* agent = agents.add(L"Agent Q", L"qg", L"", Managed, OpStopped);
  EXPECT_EQ("0", ask("622 started qg"));
  agents.list()->lockList();
  agent->setOperatingState(OpStarting);
  agents.list()->unlockList();
  EXPECT_EQ("0", ask("622 started qg"));
  EXPECT_EQ((std::vector<Queued>{{agent_started, OpStopped, false, agent},
                                 {agent_started, OpStarting, false, agent}}),
            ListedAgents::commandsQueued());
}

TEST_F(TeoSocket, AnAgentNotManagedAnswersOneAndQueuesNothing) {
  agents.add(L"Agent Q", L"qg", L"", Unmanaged);
  agents.add(L"Agent R", L"qr", L"", WatchdogManaged);
  EXPECT_EQ("1", ask("622 started qg"));
  EXPECT_EQ("1", ask("622 stopped qr"));
  EXPECT_TRUE(ListedAgents::commandsQueued().empty());
  EXPECT_EQ(2, traced("Agent not managed.\n"));
}

TEST_F(TeoSocket, WrongVersionMissingTokensAndUnknownCommandsAnswerTheirCodes) {
  agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("100", ask("621 started qg"));
  EXPECT_EQ("110", ask("622 started"));
  EXPECT_EQ("110", ask("622"));
  EXPECT_EQ("110", ask("   "));
  EXPECT_EQ("120", ask("622 restart qg"));
  EXPECT_EQ("120", ask("622 Started qg"));
  EXPECT_TRUE(ListedAgents::commandsQueued().empty());
  EXPECT_EQ(1, traced("Unsupported version of request received: 621 started qg\n"));
  EXPECT_EQ(1, traced("Incorrectly formatted request received: 622 started\n"));
  EXPECT_EQ(1, traced("Unsupported command request received: 622 restart qg\n"));
}

TEST_F(TeoSocket, TheTokenBehindAnInstanceMustBeThere) {
  agents.add(L"Agent Q", L"qg", L"db1");
  EXPECT_EQ("110", ask("622 started -o db1"));
  EXPECT_EQ("110", ask("622 started -o"));
  EXPECT_EQ("110", ask("622 started -p"));
  EXPECT_TRUE(ListedAgents::commandsQueued().empty());
}

TEST_F(TeoSocket, AnUnknownFlagIsTakenAsTheProductCode) {
  EXPECT_EQ("200", ask("622 started -x qg"));
  EXPECT_EQ(1, traced("Product code token in request: -x\n"));
  EXPECT_EQ(1, traced("No agents found.\n"));
  agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("202", ask("622 started -x qg"));
  EXPECT_EQ(1, traced("No agent found that matches the request.\n"));
  EXPECT_TRUE(ListedAgents::commandsQueued().empty());
}

TEST_F(TeoSocket, WithoutAnInstanceTheRequestAsksForNoneAndAnAgentNamedNoneMatches) {
  agents.add(L"Agent Q", L"qg", L"db1");
  EXPECT_EQ("202", ask("622 started qg"));
  Agent* none = agents.add(L"Agent Q", L"qg", L"None");
  EXPECT_EQ("0", ask("622 started qg"));
  EXPECT_EQ((std::vector<Queued>{{agent_started, OpRunning, false, none}}), ListedAgents::commandsQueued());
}

TEST_F(TeoSocket, AnAgentWithoutInstanceNameMatchesAnyInstanceAsked) {
  Agent* plain = agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("0", ask("622 started -o anything qg"));
  EXPECT_EQ((std::vector<Queued>{{agent_started, OpRunning, false, plain}}), ListedAgents::commandsQueued());
  EXPECT_EQ(1, traced("Instance name requested: anything\n"));
  EXPECT_EQ(1, traced("No Instance name provided\n"));
}

TEST_F(TeoSocket, OfTwoAgentsOfOneProductCodeTheFirstThatMatchesWins) {
  agents.add(L"Other", L"qo", L"");
  Agent* first = agents.add(L"Agent Q", L"qg", L"db1");
  Agent* second = agents.add(L"Agent Q", L"qg", L"db1");
  Agent* plain = agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("0", ask("622 stopping -o db1 qg"));
  EXPECT_EQ("0", ask("622 stopping -o db2 qg"));
  EXPECT_EQ((std::vector<Queued>{{agent_stop_cmd, OpRunning, false, first},
                                 {agent_stop_cmd, OpRunning, false, plain}}),
            ListedAgents::commandsQueued());
  (void)second;
}

TEST_F(TeoSocket, BlanksInFrontAndDoubledBetweenTokensChangeNothing) {
  Agent* agent = agents.add(L"Agent Q", L"qg", L"db1");
  EXPECT_EQ("0", ask("    622   started  -o     db1   qg    "));
  EXPECT_EQ((std::vector<Queued>{{agent_started, OpRunning, false, agent}}), ListedAgents::commandsQueued());
}

TEST_F(TeoSocket, TokensBehindTheProductCodeAreIgnored) {
  Agent* agent = agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("0", ask("622 stopped qg and whatever follows"));
  EXPECT_EQ((std::vector<Queued>{{agent_stopped, OpRunning, false, agent}}), ListedAgents::commandsQueued());
}

TEST_F(TeoSocket, EventDataAnswersZeroWithNothingToCollect) {
  EXPECT_EQ("0", ask("622 EVENT_DATA"));
  EXPECT_EQ("0", ask("622 EVENT_DATA and more"));
  EXPECT_TRUE(ListedAgents::commandsQueued().empty());
}

// ---- The OS agent through .teo_sock -------------------------------------------------

namespace {

// A stand-in for the watchdog process: a server on .teo_wd_sock that answers
// every command with `code`.
class WatchdogPeer {
 public:
  explicit WatchdogPeer(int code) : server(ScriptedServer("/.teo_wd_sock", code)), thread(server) {}
  ScriptedServer server;
  ServerThread thread;
};

}  // namespace

TEST_F(TeoSocket, AStateCommandForTheManagedOSAgentRecyclesItThroughTheWatchdogProcess) {
  socktest::WatchedOSAgent host(L"OS agent", L"qb", WatchdogManaged);
  agents.add(L"Agent Q", L"qg", L"");
  WatchdogPeer peer(0);
  ASSERT_TRUE(peer.thread.start());
  EXPECT_EQ("0", ask("622 started qb"));
  EXPECT_EQ("0", ask("622 stopping -o x qb"));
  EXPECT_EQ((std::vector<std::string>{"622 RECYCLE", "622 RECYCLE"}), peer.server.requests());
  EXPECT_TRUE(ListedAgents::commandsQueued().empty());
  EXPECT_EQ(2, traced("Recycle OS Agent.\n"));
  EXPECT_EQ(2, traced("Result of command: 0, 622 RECYCLE \n"));
  ASSERT_TRUE(thread->waitInAccept());
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, peer.thread.stop());
}

TEST_F(TeoSocket, ARefusedOrUnansweredRecycleOfTheOSAgentAnswersMinusOne) {
  socktest::WatchedOSAgent host(L"OS agent", L"qb", WatchdogManaged);
  agents.add(L"Agent Q", L"qg", L"");
  {
    WatchdogPeer peer(302);
    ASSERT_TRUE(peer.thread.start());
    EXPECT_EQ("-1", ask("622 recycle qb"));
    EXPECT_EQ(1, traced("Result of command: 302, 622 RECYCLE \n"));
    // The shutdown flag is the whole process's: the other server must be
    // waiting in accept, where it does not look, while it is set.
    ASSERT_TRUE(thread->waitInAccept());
    EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, peer.thread.stop());
  }
  // Nobody listens on .teo_wd_sock any longer: the client's 3.
  EXPECT_EQ("-1", ask("622 recycle qb"));
  EXPECT_EQ(1, traced("Result of command: 3, 622 RECYCLE \n"));
}

TEST_F(TeoSocket, TheOSAgentNotManagedAnswersOne) {
  socktest::WatchedOSAgent host(L"OS agent", L"qb", Unmanaged);
  agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("1", ask("622 started qb"));
  EXPECT_EQ(0, traced("Recycle OS Agent.\n"));
}

// ---- Queries on .teo_sock -----------------------------------------------------------

TEST_F(TeoSocket, OSRestartCountAnswersTheCountAndABar) {
  EXPECT_EQ("", ask("622 QUERY OS_RESTART_COUNT"));
  EXPECT_EQ(1, traced("No os agent found.\n"));
  socktest::WatchedOSAgent host(L"OS agent", L"qb", WatchdogManaged);
  Controller::getController()->getWatchdogList()->lockList();
  Controller::getController()->getWatchdogList()->front()->setDailyRestartCount(3);
  Controller::getController()->getWatchdogList()->unlockList();
  EXPECT_EQ("3|", ask("622 QUERY OS_RESTART_COUNT"));
  EXPECT_EQ(1, traced("Answer returned: 3|\n"));
}

TEST_F(TeoSocket, AWrongQueryIsAnsweredWithZeroBytes) {
  socktest::WatchedOSAgent host(L"OS agent", L"qb", WatchdogManaged);
  EXPECT_EQ("", ask("622 QUERY HEALTH_INFO"));
  EXPECT_EQ("", ask("621 QUERY OS_RESTART_COUNT"));
  EXPECT_EQ("", ask("622 QUERYX OS_RESTART_COUNT"));
  EXPECT_EQ("", ask("622 QUERY"));
  EXPECT_EQ(2, traced("Incorrectly formatted query received: "));
}

TEST_F(TeoSocket, ACommandWhoseInstanceNameContainsQUERYIsAQueryAnsweredWithZeroBytes) {
  agents.add(L"Agent Q", L"qg", L"");
  socktest::Exchange answer = socktest::exchange(server->getSocketPath(), "622 started -o myQUERYdb qg");
  EXPECT_TRUE(answer.closed);
  EXPECT_EQ("", answer.answer);
  EXPECT_TRUE(ListedAgents::commandsQueued().empty());
  EXPECT_EQ(1, traced("Incorrectly formatted query received: 622 started -o myQUERYdb qg\n"));
}

TEST_F(TeoSocket, ALoneQUERYFailsTheVersionTestAndIsAnsweredWithZeroBytes) {
  socktest::Exchange answer = socktest::exchange(server->getSocketPath(), "QUERY");
  EXPECT_TRUE(answer.closed);
  EXPECT_EQ("", answer.answer);
  EXPECT_EQ(1, traced("Unsupported version of request received: QUERY\n"));
  EXPECT_EQ(1, traced("Answer to return: , 0\n"));
}

// ---- .teo_wd_sock -------------------------------------------------------------------

TEST_F(WatchdogSocket, AnEmptyListAnswers202ToCommandsAndZeroBytesToHealthInfo) {
  EXPECT_EQ("202", ask("622 RECYCLE"));
  EXPECT_EQ("202", ask("622 RESET_COUNT"));
  EXPECT_EQ("", ask("622 QUERY HEALTH_INFO"));
  EXPECT_EQ(3, traced("No agents found.\n"));
}

TEST_F(WatchdogSocket, WithoutTheOSAgentCommandsAnswer202AndHealthInfoNothing) {
  agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("202", ask("622 RECYCLE"));
  EXPECT_EQ("", ask("622 QUERY HEALTH_INFO"));
  EXPECT_EQ(2, traced("OS Agent not found: "));
  EXPECT_EQ(2, traced("agent list size: 1\n"));
}

TEST_F(WatchdogSocket, VersionTokensAndUnknownCommandsAnswerTheirCodes) {
  agents.addOSAgent(L"OS agent", L"qb", 0);
  EXPECT_EQ("100", ask("621 RECYCLE"));
  EXPECT_EQ("110", ask("622"));
  EXPECT_EQ("120", ask("622 recycle"));
  EXPECT_EQ("120", ask("622 started qb"));
  EXPECT_TRUE(ListedAgents::commandsQueued().empty());
}

TEST_F(WatchdogSocket, RecycleAndResetCountActOnTheOSAgentsRecordHere) {
  Agent* os = agents.addOSAgent(L"OS agent", L"qb", 2);
  agents.list()->lockList();
  os->setInstanceProcName(L"osagentd");
  agents.list()->unlockList();
  EXPECT_EQ("0", ask("622 RESET_COUNT"));
  EXPECT_EQ("603", ask("622 RESET_COUNT"));
  EXPECT_EQ("0", ask("622 RECYCLE"));
  EXPECT_EQ((std::vector<Queued>{{agent_recycle_cmd, OpRunning, true, os}}), ListedAgents::commandsQueued());
  agents.list()->lockList();
  EXPECT_EQ(0, os->getDailyRestartCount());
  os->setOperatingState(OpStarting);
  agents.list()->unlockList();
  EXPECT_EQ("301", ask("622 RECYCLE"));
}

TEST_F(WatchdogSocket, TheRecordAnsweredForIsTheLastOfTheListWhenAnyIsTheOSAgent) {
  agents.addOSAgent(L"OS agent", L"qb", 1);
  agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("0|", ask("622 QUERY HEALTH_INFO"));
}

TEST_F(WatchdogSocket, HealthInfoOfAnAgentNeverCheckedIsTheCountAndABar) {
  agents.addOSAgent(L"OS agent", L"qb", 2);
  EXPECT_EQ("2|", ask("622 QUERY HEALTH_INFO"));
}

TEST_F(WatchdogSocket, HealthInfoOfACheckedAgentAddsTheDateOfItsLastCheck) {
  Agent* os = agents.addOSAgent(L"OS agent", L"qb", 2);
  const time_t checked = time(nullptr) - 100;
  agents.list()->lockList();
  os->setCheckTime(checked);
  agents.list()->unlockList();
  struct tm local;
  localtime_r(&checked, &local);
  char date[96];
  snprintf(date, sizeof date, "%d %d %d %d %d %d %d", local.tm_mday, local.tm_mon, local.tm_year,
           local.tm_hour, local.tm_min, local.tm_sec, local.tm_isdst);
  EXPECT_EQ("2|" + std::string(date), ask("622 QUERY HEALTH_INFO"));
  EXPECT_EQ(1, traced("check date to return: " + std::to_string(checked) + ", " + date + "\n"));
}

TEST_F(WatchdogSocket, EventDataWithNoCacheAnswersNoDataWhichIsNotEmpty) {
  EXPECT_EQ("$$NODATA", ask("622 QUERY EVENT_DATA"));
  EXPECT_EQ("", ask("622 QUERY OS_RESTART_COUNT"));
  EXPECT_EQ("", ask("622 QUERY"));
}

// ---- Framing and bad input ----------------------------------------------------------

TEST_F(TeoSocket, ARequestOfExactly1023BytesIsReadWholeAndBytesBeyondAreLost) {
  Agent* agent = agents.add(L"Agent Q", L"qg", L"");
  std::string request = "622 started";
  request += std::string(1023 - request.size() - 3, ' ') + " qg";
  ASSERT_EQ(1023u, request.size());
  EXPECT_EQ("0", ask(request));
  // One byte more: the product code's last letter stays unread.
  std::string longer = "622 started";
  longer += std::string(1023 - longer.size() - 2, ' ') + " qg";
  ASSERT_EQ(1024u, longer.size());
  EXPECT_EQ("202", ask(longer));
  EXPECT_EQ(1, traced("Product code token in request: q\n"));
  EXPECT_EQ((std::vector<Queued>{{agent_started, OpRunning, false, agent}}), ListedAgents::commandsQueued());
  EXPECT_EQ("100", ask(std::string(5000, 'x')));
}

TEST_F(TeoSocket, AConnectionClosedWithoutARequestCostsOnlyItself) {
  socktest::Exchange silent = socktest::exchange(server->getSocketPath(), "");
  EXPECT_TRUE(silent.connected);
  EXPECT_TRUE(silent.closed);
  EXPECT_EQ("", silent.answer);
  EXPECT_TRUE(
      qortest::waitFor([&] { return traced("Error executing receive - errno = 0, Success\n") == 1; }, 5000));
  EXPECT_EQ("110", ask("622"));
}

TEST_F(TeoSocket, BytesThatAreNotTextNameNoAgent) {
  agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("202", ask("622 started \xff\xfe\x80"));
  EXPECT_EQ("120", ask("622 st\xc3\xa4rted qg"));
  EXPECT_EQ("100", ask("\x01\x02\x03 started qg"));
  EXPECT_TRUE(ListedAgents::commandsQueued().empty());
  EXPECT_EQ("0", ask("622 started qg"));
  ListedAgents::commandsQueued();
}

TEST_F(TeoSocket, ANulByteEndsTheRequestSoQUERYBehindItIsNotSeen) {
  Agent* agent = agents.add(L"Agent Q", L"qg", L"");
  EXPECT_EQ("0", ask(std::string("622 started qg\0 QUERY OS_RESTART_COUNT", 38)));
  EXPECT_EQ("110", ask(std::string("622\0 started qg", 15)));
  EXPECT_EQ((std::vector<Queued>{{agent_started, OpRunning, false, agent}}), ListedAgents::commandsQueued());
}

TEST_F(SocketTest, AClientThatSendsNothingIsDroppedAfterTheReceiveTimeOut) {
  SOCKET_RECEIVE_TIMEOUT_MS = 300;
  TEOSocketServer server;
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  int silent = socktest::connectTo(server.getSocketPath());
  ASSERT_GE(silent, 0);
  const long long started = qortest::nowMs();
  bool closed = false;
  EXPECT_EQ("", socktest::readAll(silent, 5000, &closed));
  const long long waited = qortest::nowMs() - started;
  close(silent);
  EXPECT_TRUE(closed);
  EXPECT_GE(waited, 250);
  EXPECT_LT(waited, 3000);
  EXPECT_EQ(1, traced("Error executing receive - errno = 11, Resource temporarily unavailable\n"));
  EXPECT_EQ(1, traced("No request within 300 ms: connection closed.\n"));
  // Served again at once.
  EXPECT_EQ("110", answerTo(server.getSocketPath(), "622"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(SocketTest, AClientGoneBeforeTheAnswerCostsTheSendButNotTheProcess) {
  ScriptedServer server("/.teo_sock", 7);
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  server.closeGate();
  int fd = socktest::connectTo(server.getSocketPath());
  ASSERT_GE(fd, 0);
  ASSERT_EQ(4, send(fd, "622 ", 4, MSG_NOSIGNAL));
  ASSERT_TRUE(qortest::waitFor([&] { return server.waiting(); }, 5000));
  close(fd);
  server.openGate();
  EXPECT_TRUE(qortest::waitFor(
      [&] { return traced("Error executing send response - errno = 32, Broken pipe\n") == 1; }, 5000))
      << trace();
  EXPECT_EQ("7", answerTo(server.getSocketPath(), "622 x"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(SocketTest, ABurstOfAThousandConnectionsIsServedAndLeavesNoDescriptorBehind) {
  qortest::traceTo(dir.file("trace"), 0);  // a thousand exchanges need no story
  TEOSocketServer server;
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  const int before = socktest::openDescriptors();
  std::atomic<int> answered{0};
  std::atomic<int> dropped{0};
  std::atomic<int> wrong{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < 8; ++c) {
    clients.emplace_back([&] {
      for (int i = 0; i < 125; ++i) {
        socktest::Exchange result = socktest::exchange(server.getSocketPath(), "621 started qg", 10000);
        if (!result.connected || (result.closed && result.answer.empty())) {
          ++dropped;
        } else if (result.closed && result.answer == "100") {
          ++answered;
        } else {
          ++wrong;
        }
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(1000, answered.load() + dropped.load());
  EXPECT_EQ(0, wrong.load());
  EXPECT_GT(answered.load(), 0);
  EXPECT_EQ("110", answerTo(server.getSocketPath(), "622"));
  EXPECT_TRUE(qortest::waitFor([&] { return socktest::openDescriptors() == before; }, 5000))
      << before << " before, " << socktest::openDescriptors() << " now";
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(SocketTest, AnAnswerTooLongForTheBufferIsCutAtTheEndOfAField) {
  std::string fields;
  while (fields.size() < 2990) fields += "field|";
  ScriptedServer server("/.teo_wd_sock", 0, fields + "the last field is too long|");
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  std::string answer = answerTo(server.getSocketPath(), "622 QUERY x");
  EXPECT_EQ(fields, answer);
  EXPECT_LE(answer.size(), kSocketAnswerLimit);
  EXPECT_EQ(1,
            traced("Answer longer than 3000 bytes: sent as " + std::to_string(fields.size()) + " bytes.\n"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(SocketTest, AnAnswerTooLongWithNoFieldToCutAtIsNotSentAtAll) {
  ScriptedServer server("/.teo_wd_sock", 0, std::string(4000, 'a'));
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  socktest::Exchange answer = socktest::exchange(server.getSocketPath(), "622 QUERY x");
  EXPECT_TRUE(answer.closed);
  EXPECT_EQ("", answer.answer);
  EXPECT_EQ(1, traced("Answer longer than 3000 bytes: sent as 0 bytes.\n"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST(FitSocketAnswer, KeepsWhatFitsAndCutsBehindTheLastBarThatDoes) {
  std::string fits(3000, 'a');
  EXPECT_FALSE(fitSocketAnswer(fits));
  EXPECT_EQ(3000u, fits.size());
  std::string exact = std::string(2999, 'a') + "|b";
  EXPECT_TRUE(fitSocketAnswer(exact));
  EXPECT_EQ(std::string(2999, 'a') + "|", exact);
  std::string small = "ab|cd|ef";
  EXPECT_TRUE(fitSocketAnswer(small, 5));
  EXPECT_EQ("ab|", small);
  std::string none = "abcdef";
  EXPECT_TRUE(fitSocketAnswer(none, 5));
  EXPECT_EQ("", none);
}

// ---- Start: the socket file and its directory ----------------------------------------

TEST_F(SocketTest, BothSocketFilesGiveOthersNoRightsAndTheUmaskIsPutBack) {
  const mode_t before = umask(022);
  umask(022);
  TEOSocketServer teo;
  WatchdogSocketServer watchdog;
  EXPECT_EQ(dir.file(".teo_sock"), teo.getSocketPath());
  EXPECT_EQ(dir.file(".teo_wd_sock"), watchdog.getSocketPath());
  ServerThread teoThread(teo);
  ServerThread watchdogThread(watchdog);
  ASSERT_TRUE(teoThread.start());
  ASSERT_TRUE(watchdogThread.start());
  for (const std::string& path : {teo.getSocketPath(), watchdog.getSocketPath()}) {
    struct stat status;
    ASSERT_EQ(0, stat(path.c_str(), &status)) << path;
    EXPECT_TRUE(S_ISSOCK(status.st_mode)) << path;
    EXPECT_EQ(0u, status.st_mode & 007) << path << " mode " << std::oct << status.st_mode;
    EXPECT_EQ(static_cast<mode_t>(0770), status.st_mode & 0777) << path;
  }
  EXPECT_EQ(static_cast<mode_t>(022), umask(022));
  umask(before);
  EXPECT_EQ(1, traced("Socket path = " + teo.getSocketPath() + "\n"));
  EXPECT_EQ(2, traced("Established socket server.\n"));
  ASSERT_TRUE(watchdogThread.waitInAccept());
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, teoThread.stop());
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, watchdogThread.stop());
  // The file stays behind at shutdown; the next start removes it.
  EXPECT_TRUE(qortest::fileExists(teo.getSocketPath()));
}

TEST_F(SocketTest, AStaleRegularFileInThePlaceOfTheSocketIsReplaced) {
  qortest::writeFile(dir.file(".teo_sock"), "left over");
  TEOSocketServer server;
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  EXPECT_EQ("110", answerTo(server.getSocketPath(), "622"));
  EXPECT_EQ(0, traced("unlink - errno"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(SocketTest, TheSocketFileOfACrashedProcessIsReplaced) {
  // A socket bound and closed without its file being removed, as a process
  // that died leaves it: nobody answers on it.
  int dead = socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, dir.file(".teo_sock").c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(dead, reinterpret_cast<struct sockaddr*>(&address), sizeof address));
  close(dead);
  EXPECT_EQ(-1, socktest::connectTo(dir.file(".teo_sock")));
  TEOSocketServer server;
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  EXPECT_EQ("110", answerTo(server.getSocketPath(), "622"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(SocketTest, TheSocketFileOfARunningPeerIsTakenOverSinceUnlinkDoesNotAsk) {
  ScriptedServer first("/.teo_sock", 1);
  ServerThread firstThread(first);
  ASSERT_TRUE(firstThread.start());
  // Another name of the first socket file, to reach the first server later.
  ASSERT_EQ(0, link(first.getSocketPath().c_str(), dir.file("first").c_str()));
  EXPECT_EQ("1", answerTo(first.getSocketPath(), "622 x"));
  ScriptedServer second("/.teo_sock", 2);
  ServerThread secondThread(second);
  ASSERT_TRUE(secondThread.start());
  EXPECT_EQ("2", answerTo(dir.file(".teo_sock"), "622 x"));
  EXPECT_EQ("1", answerTo(dir.file("first"), "622 x"));
  ASSERT_TRUE(firstThread.waitInAccept());
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, secondThread.stop());
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, firstThread.stop(dir.file("first")));
}

TEST_F(SocketTest, ARemovedSocketFileIsBoundAgainWithinACheckPeriodAndServes) {
  SOCKET_FILE_CHECK_MS = 100;
  TEOSocketServer server;
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  const std::string path = server.getSocketPath();
  EXPECT_EQ("110", answerTo(path, "622"));
  const int descriptors = socktest::openDescriptors();
  ASSERT_EQ(0, unlink(path.c_str()));
  EXPECT_EQ(-1, socktest::connectTo(path));
  const long long removed = qortest::nowMs();
  ASSERT_TRUE(qortest::waitFor([&] { return qortest::fileExists(path); }, 5000)) << trace();
  EXPECT_LT(qortest::nowMs() - removed, 1000);
  EXPECT_EQ("110", answerTo(path, "622"));
  EXPECT_EQ(1, traced("Socket file " + path + " is missing: binding it again.\n"));
  EXPECT_EQ(1, traced("Socket file " + path + " bound again.\n"));
  // The new file has the rights of the first, and the old socket is closed.
  struct stat status;
  ASSERT_EQ(0, stat(path.c_str(), &status));
  EXPECT_EQ(0u, status.st_mode & 07);
  EXPECT_EQ(descriptors, socktest::openDescriptors());
  // Once more: each removal is noticed.
  ASSERT_EQ(0, unlink(path.c_str()));
  ASSERT_TRUE(qortest::waitFor([&] { return answerTo(path, "622") == "110"; }, 5000)) << trace();
  EXPECT_EQ(2, traced("bound again.\n"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(SocketTest, AFileInThePlaceOfTheSocketIsLeftToWhoeverPutItThere) {
  SOCKET_FILE_CHECK_MS = 50;
  ScriptedServer first("/.teo_sock", 1);
  ServerThread firstThread(first);
  ASSERT_TRUE(firstThread.start());
  ASSERT_EQ(0, link(first.getSocketPath().c_str(), dir.file("first").c_str()));
  // A live server that took the name over.
  ScriptedServer second("/.teo_sock", 2);
  ServerThread secondThread(second);
  ASSERT_TRUE(secondThread.start());
  // Many check periods later the name still leads to the second.
  EXPECT_FALSE(qortest::waitFor([&] { return traced("is missing") > 0; }, 500));
  EXPECT_EQ("2", answerTo(dir.file(".teo_sock"), "622 x"));
  EXPECT_EQ("1", answerTo(dir.file("first"), "622 x"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, secondThread.stop());
  // A plain file in the place of the socket is not taken either.
  ASSERT_EQ(0, unlink(dir.file(".teo_sock").c_str()));
  qortest::writeFile(dir.file(".teo_sock"), "somebody's");
  EXPECT_FALSE(qortest::waitFor([&] { return traced("is missing") > 0; }, 500));
  EXPECT_EQ("somebody's", qortest::readFile(dir.file(".teo_sock")));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, firstThread.stop(dir.file("first")));
}

TEST_F(SocketTest, ASocketDirectoryThatIsGoneIsReportedOnceAndUsedAgainWhenItIsBack) {
  SOCKET_FILE_CHECK_MS = 50;
  const std::string ipDir = dir.file("ip");
  ASSERT_EQ(0, mkdir(ipDir.c_str(), 0700));
  setenv("QOR_IP_DIR", ipDir.c_str(), 1);
  TEOSocketServer server;
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  const std::string path = server.getSocketPath();
  ASSERT_EQ(0, unlink(path.c_str()));
  ASSERT_EQ(0, rmdir(ipDir.c_str()));
  ASSERT_TRUE(qortest::waitFor([&] { return traced("Cannot bind the socket file") == 1; }, 5000)) << trace();
  // Ten periods more, and no more reports.
  EXPECT_FALSE(qortest::waitFor([&] { return traced("Cannot bind the socket file") > 1; }, 500));
  EXPECT_EQ(1, traced("Socket file " + path + " is missing: binding it again.\n"));
  EXPECT_EQ(
      1, traced("Cannot bind the socket file " + path + " again - errno = 2, No such file or directory\n"));
  ASSERT_EQ(0, mkdir(ipDir.c_str(), 0700));
  ASSERT_TRUE(qortest::waitFor([&] { return answerTo(path, "622") == "110"; }, 5000)) << trace();
  EXPECT_EQ(1, traced("Socket file " + path + " bound again.\n"));
  EXPECT_EQ(1, traced("is missing"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(SocketTest, AWorldWritableSocketDirectoryIsRefusedWithOrWithoutTheStickyBit) {
  for (mode_t mode : {0777, 01777, 0773}) {
    ASSERT_EQ(0, chmod(dir.path().c_str(), mode));
    TEOSocketServer server;
    EXPECT_EQ(SOCKET_SERVER_NO_BIND, server.run(Controller::getController())) << std::oct << mode;
    EXPECT_FALSE(qortest::fileExists(server.getSocketPath()));
  }
  char expected[512];
  snprintf(
      expected, sizeof expected,
      "Socket directory %s is writable by everyone (mode 1777): anyone could replace the socket, so it is "
      "refused. Use a directory writable by the owner and group only.\n",
      dir.path().c_str());
  EXPECT_EQ(1, traced(expected));
  EXPECT_EQ(3, traced("is writable by everyone"));
  // Writable by the group only is fine: the group is trusted.
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0770));
  TEOSocketServer server;
  ServerThread thread(server);
  EXPECT_TRUE(thread.start());
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
  chmod(dir.path().c_str(), 0700);
}

TEST_F(SocketTest, ASocketPathThatDoesNotFitTheAddressIsRefused) {
  std::string deep = dir.path();
  while (deep.size() + sizeof("/.teo_sock") - 1 < 108) deep += "/d";
  ASSERT_EQ(0, qortest::runProgram({"/bin/mkdir", "-p", deep}).exitCode);
  setenv("QOR_IP_DIR", deep.c_str(), 1);
  TEOSocketServer server;
  const std::string path = deep + "/.teo_sock";
  ASSERT_EQ(path, server.getSocketPath());
  ASSERT_GE(path.size(), 108u);
  const int descriptors = socktest::openDescriptors();
  EXPECT_EQ(SOCKET_SERVER_NO_BIND, server.run(Controller::getController()));
  EXPECT_EQ(descriptors, socktest::openDescriptors());
  EXPECT_EQ(1, traced("Socket path too long: " + path + " has " + std::to_string(path.size()) +
                      " bytes, at most 107 fit.\n"));
  EXPECT_FALSE(qortest::fileExists(path));
}

TEST_F(SocketTest, WithoutQorIpDirTheConstructorLeavesThePathEmptyAndRunAnswers500) {
  unsetenv("QOR_IP_DIR");
  TEOSocketServer teo;
  WatchdogSocketServer watchdog;
  EXPECT_EQ("", teo.getSocketPath());
  EXPECT_EQ("", watchdog.getSocketPath());
  EXPECT_EQ(2, traced("Error QOR_IP_DIR not defined.\n"));
  EXPECT_EQ(SOCKET_SERVER_NO_IP_DIR, teo.run(Controller::getController()));
  // Set only after the constructor: the path is still unknown.
  setenv("QOR_IP_DIR", dir.path().c_str(), 1);
  EXPECT_EQ(SOCKET_SERVER_NO_IP_DIR, watchdog.run(Controller::getController()));
  setenv("QOR_IP_DIR", "", 1);
  TEOSocketServer empty;
  EXPECT_EQ("", empty.getSocketPath());
  // Unset after the constructor: run's own check.
  setenv("QOR_IP_DIR", dir.path().c_str(), 1);
  TEOSocketServer late;
  unsetenv("QOR_IP_DIR");
  EXPECT_EQ(SOCKET_SERVER_NO_IP_DIR, late.run(Controller::getController()));
  EXPECT_EQ(6, traced("Error QOR_IP_DIR not defined.\n"));
}

TEST_F(SocketTest, AMissingSocketDirectoryFailsAtBindWith33) {
  setenv("QOR_IP_DIR", dir.file("missing").c_str(), 1);
  TEOSocketServer server;
  const mode_t before = umask(022);
  EXPECT_EQ(SOCKET_SERVER_NO_BIND, server.run(Controller::getController()));
  EXPECT_EQ(1, traced("Error executing bind - errno = 2, No such file or directory\n"));
  // Kept: the failed bind leaves umask 007 behind.
  EXPECT_EQ(static_cast<mode_t>(007), umask(before));
}

TEST_F(SocketTest, AShutdownIsSeenOnlyBetweenConnectionsSoOneMoreClientIsServedFirst) {
  TEOSocketServer server;
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  EXPECT_EQ("110", answerTo(server.getSocketPath(), "622"));
  ASSERT_TRUE(thread.waitInAccept());
  ControllerTestAccess::setShuttingDown(true);
  // Blocked in accept, the server does not see the flag.
  EXPECT_FALSE(qortest::waitFor([&] { return thread.done(); }, 300));
  EXPECT_EQ("110", answerTo(server.getSocketPath(), "622"));
  EXPECT_TRUE(qortest::waitFor([&] { return thread.done(); }, 5000));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
  EXPECT_EQ(2, traced("Answer sent.\n"));
  // The socket file stays behind.
  EXPECT_TRUE(qortest::fileExists(server.getSocketPath()));
}

TEST_F(SocketTest, TheLooksAtTheSocketFileDoNotLetAWaitingServerSeeAShutdownBeforeAClient) {
  SOCKET_FILE_CHECK_MS = 20;
  TEOSocketServer server;
  ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  ASSERT_TRUE(thread.waitInAccept());
  ControllerTestAccess::setShuttingDown(true);
  // A removed file is not bound again once the service is shutting down.
  ASSERT_EQ(0, link(server.getSocketPath().c_str(), dir.file("other").c_str()));
  ASSERT_EQ(0, unlink(server.getSocketPath().c_str()));
  EXPECT_FALSE(qortest::waitFor([&] { return thread.done(); }, 300));
  EXPECT_FALSE(qortest::fileExists(server.getSocketPath()));
  EXPECT_EQ(0, traced("is missing"));
  EXPECT_EQ("110", answerTo(dir.file("other"), "622"));
  EXPECT_TRUE(qortest::waitFor([&] { return thread.done(); }, 5000));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

// ---- The wire format's writers ----------------------------------------------------------

namespace {

// TZ=UTC for one test, so that dates are the same everywhere.
class InUtc : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = getenv("TZ");
    hadTz_ = tz != nullptr;
    if (hadTz_) oldTz_ = tz;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    if (hadTz_) {
      setenv("TZ", oldTz_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool hadTz_ = false;
  std::string oldTz_;
};

// 14 November 2026, 13:05:09 UTC.
const time_t kNovember14 = 1794661509;

}  // namespace

TEST_F(InUtc, TheDateFormIsDayMonthFromZeroYearFrom1900HourMinuteSecondAndDst) {
  EXPECT_EQ("14 10 126 13 5 9 0", formatWireDate(kNovember14));
  EXPECT_EQ("1 0 70 0 0 0 0", formatWireDate(0));
}

TEST_F(InUtc, AnEventRecordHasThirteenFieldsEachClosedByABar) {
  EventData data;
  data.eventTime = kNovember14;
  data.agentName = L"OS Monitoring Agent";
  data.operatingState = 4;
  data.managedState = 1;
  data.instanceProcName = L"qbagent";
  data.agentType = 0;
  data.osType = 2;
  data.procID = 4711;
  data.eventID = 7;
  data.userMessage = L"N/A";
  EXPECT_EQ(
      "14 10 126 13 5 9 0|OS Monitoring Agent|4|1|qbagent|0|2| |4711|-1|7|N/A|OS Monitoring Agent "
      "Operational "
      "Event: Agent started successfully.|",
      formatEventRecord(data, L"OS Monitoring Agent Operational Event: Agent started successfully."));
}

TEST_F(InUtc, EveryEmptyTextTravelsAsOneBlankAndUnsetNumbersAsMinusOne) {
  EventData data;
  EXPECT_EQ("1 0 70 0 0 0 0| |-1|-1| |-1|-1| |-1|-1|0| | |", formatEventRecord(data, L""));
}

TEST_F(InUtc, ARecordTooLongForAnAnswerShortensTheMessagesAndKeepsEveryField) {
  EventData data;
  data.eventTime = kNovember14;
  data.agentName = L"Agent";
  data.eventID = 8;
  data.userMessage = std::wstring(2000, L'u');
  const std::wstring log(2000, L'l');
  const std::string record = formatEventRecord(data, log);
  EXPECT_EQ(kSocketAnswerLimit, record.size());
  EXPECT_EQ(13, qortest::countOccurrences(record, "|"));
  EXPECT_EQ(
      0u, record.find("14 10 126 13 5 9 0|Agent|-1|-1| |-1|-1| |-1|-1|8|" + std::string(2000, 'u') + "|lll"));
  // Shorter still: the log message is down to one character and the user
  // message gives way too.
  const std::string tight = formatEventRecord(data, log, 100);
  EXPECT_EQ(100u, tight.size());
  EXPECT_EQ(13, qortest::countOccurrences(tight, "|"));
  EXPECT_EQ("|" + std::string(48, 'u') + "|l|", tight.substr(tight.size() - 52));
  // A record that fits is left as it is.
  const std::string whole = formatEventRecord(data, log, 100000);
  EXPECT_EQ(4051u, whole.size());
  EXPECT_EQ(whole, formatEventRecord(data, log, whole.size()));
}

TEST_F(InUtc, ShorteningCutsWholeCharactersNeverAByteOfOne) {
  setenv("LC_ALL", "C.UTF-8", 1);
  EventData data;
  data.userMessage = L"x";
  const std::wstring log(1000, L'\u00e4');  // two bytes each in UTF-8
  const std::string record = formatEventRecord(data, log, 101);
  EXPECT_LE(record.size(), 101u);
  const size_t open = record.rfind("|x|") + 3;
  const std::string kept = record.substr(open, record.size() - open - 1);
  EXPECT_EQ(0u, kept.size() % 2) << kept.size();
  EXPECT_GT(kept.size(), 0u);
  for (size_t i = 0; i < kept.size(); i += 2) EXPECT_EQ("\xc3\xa4", kept.substr(i, 2));
  unsetenv("LC_ALL");
}

// ---- The servers in the running service -----------------------------------------------
// The Controller starts the server of its mode at its place in the startup;
// each test is a process of its own, since the service starts once.

namespace {

class RunningService : public e2e::EmbeddedService {
 protected:
  // A running program of product code qg, managed and left alone: it runs.
  void runManagedAgent() {
    programs.start("qorsockqgd");
    captest::Subagent agent = e2e::agentFor("sock.qg", "Socket agent", programs, "qorsockqgd", start, 3);
    agent.productCode = "<productCode>qg</productCode>";
    writeAgent("qg.xml", agent);
  }
  std::string teoSock() { return work.file(".teo_sock"); }
};

mode_t modeOf(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

}  // namespace

TEST_F(RunningService, TheEmbeddedServiceServesTeoSockAndTheListenersHearTheStateReported) {
  runManagedAgent();
  startService();
  ASSERT_TRUE(waitForState("sock.qg", OpRunning, 10000)) << trace();
  // The server thread binds in its own time after the start.
  ASSERT_TRUE(qortest::waitFor([&] { return socktest::listening(teoSock()) == 1; }, 10000)) << trace();
  EXPECT_TRUE(S_ISSOCK(modeOf(teoSock())));
  EXPECT_EQ(0u, modeOf(teoSock()) & 007);
  EXPECT_EQ("0", answerTo(teoSock(), "622 started qg"));
  EXPECT_TRUE(qortest::waitFor([&] { return heard.count("Socket agent", agent_started) == 1; }, 10000))
      << trace();
  EXPECT_EQ("202", answerTo(teoSock(), "622 stopped qz"));
  EXPECT_EQ("0|", answerTo(teoSock(), "622 QUERY OS_RESTART_COUNT"));
  EXPECT_FALSE(qortest::fileExists(work.file(".teo_wd_sock")));
}

TEST(RunningWatchdogService, TheWatchdogProcessServesTeoWdSockForItsOSAgent) {
  qortest::TempDir caps;
  qortest::TempDir work;
  e2e::Programs programs;
  setenv("QOR_CAP_DIR", caps.path().c_str(), 1);
  setenv("QOR_IP_DIR", work.path().c_str(), 1);
  qortest::traceTo(work.file("trace"), 128);
  programs.start("qorsockosd");
  captest::Subagent os;
  os.id = "sock.os";
  os.agentName = "<agentName>Socket OS agent</agentName>";
  os.procName = "<procName>qorsockosd</procName>";
  os.productCode = "<productCode>qb</productCode>";
  os.agentPath = "<agentPath>" + programs.path("qorsockosd") + "</agentPath>";
  os.managerType = "<managerType>WatchDog</managerType>";
  qortest::writeFile(caps.file("os.xml"), captest::document(os));

  QOR_QueryService* service = QOR_QueryService::initWatchdogService();
  service->startQueryService();
  const std::string wdSock = work.file(".teo_wd_sock");
  ASSERT_TRUE(qortest::waitFor([&] { return socktest::listening(wdSock) == 1; }, 10000));
  EXPECT_TRUE(S_ISSOCK(modeOf(wdSock)));
  EXPECT_EQ(0u, modeOf(wdSock) & 007);
  const std::string health = answerTo(wdSock, "622 QUERY HEALTH_INFO");
  EXPECT_EQ(0u, health.find("0|")) << health;
  EXPECT_EQ("603", answerTo(wdSock, "622 RESET_COUNT"));
  EXPECT_EQ("$$NODATA", answerTo(wdSock, "622 QUERY EVENT_DATA"));
  EXPECT_EQ("120", answerTo(wdSock, "622 started qb"));
  EXPECT_FALSE(qortest::fileExists(work.file(".teo_sock")));
  service->releaseQueryService(false);
}
