// The socket client against real sockets: servers of the test that answer,
// close, stay silent or answer in pieces, and the results, answers, traces
// and descriptors that each leaves with the caller.
#include "interfaces/qorsockclient.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/socktest.h"

namespace {

// A listening socket of the test at $QOR_IP_DIR + `tail`, whose one accepted
// connection is handed to `behaviour` on a thread. The first bytes the
// client sent are kept.
class FakeServer {
 public:
  using Behaviour = std::function<void(int connection)>;
  FakeServer(const std::string& path, Behaviour behaviour) : behaviour_(behaviour) {
    listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    unlink(path.c_str());
    bound_ = bind(listener_, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0 &&
             listen(listener_, 10) == 0;
    thread_ = std::thread([this] {
      int connection = accept(listener_, nullptr, nullptr);
      if (connection < 0) return;
      char buffer[4096];
      ssize_t got = recv(connection, buffer, sizeof buffer, 0);
      if (got > 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        request_.assign(buffer, static_cast<size_t>(got));
      }
      behaviour_(connection);
      close(connection);
    });
  }
  ~FakeServer() {
    shutdown(listener_, SHUT_RDWR);  // wakes an accept that nobody came to
    thread_.join();
    close(listener_);
  }
  bool bound() const { return bound_; }
  // What the client sent; read after the exchange. The socket orders the
  // two threads, but only the lock says so to ThreadSanitizer.
  std::string request() {
    std::lock_guard<std::mutex> lock(mutex_);
    return request_;
  }

 private:
  Behaviour behaviour_;
  int listener_ = -1;
  bool bound_ = false;
  std::mutex mutex_;
  std::string request_;
  std::thread thread_;
};

void answer(int connection, const std::string& text) {
  send(connection, text.data(), text.size(), MSG_NOSIGNAL);
}

// Waits until the client has gone: its end of the connection reads as closed.
void untilClientGone(int connection) { socktest::readAll(connection, 20000); }

class SocketClient : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QOR_IP_DIR", dir.path().c_str(), 1);
    unsetenv("QOR_SOCKET_ANSWER_WAIT");
    qortest::traceTo(dir.file("trace"), 1 | 128);
    SOCKET_ANSWER_CYCLES = 60;
    SOCKET_ANSWER_CYCLE_MS = 10;
  }
  std::string trace() { return qortest::readFile(dir.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }
  // The count of the one "Waiting for answer loop count(N)." traced; -1 when
  // not traced exactly once.
  int loopCount() {
    const std::vector<std::string> lines = qortest::linesWith(trace(), "Waiting for answer loop count(");
    if (lines.size() != 1) return -1;
    return std::atoi(lines[0].c_str() + lines[0].find("count(") + 6);
  }
  std::string teoSock() { return dir.file(".teo_sock"); }
  std::string wdSock() { return dir.file(".teo_wd_sock"); }

  qortest::TempDir dir;
};

}  // namespace

TEST(SocketClientDefaults, TheAnswerIsAwaitedSixtyCyclesOfOneSecond) {
  EXPECT_EQ(60, SOCKET_ANSWER_CYCLES);
  EXPECT_EQ(1000, SOCKET_ANSWER_CYCLE_MS);
}

TEST_F(SocketClient, WithoutQorIpDirTheResultIsTwoAndNoSocketIsMade) {
  unsetenv("QOR_IP_DIR");
  const int descriptors = socktest::openDescriptors();
  EXPECT_EQ(SOCKET_CLIENT_NO_SOCKET, sendTEOCommand("622 started qg"));
  setenv("QOR_IP_DIR", "", 1);
  std::string answer = "untouched";
  EXPECT_EQ(SOCKET_CLIENT_NO_SOCKET, sendWDQuery("622 QUERY HEALTH_INFO", answer));
  EXPECT_EQ("untouched", answer);
  EXPECT_EQ(descriptors, socktest::openDescriptors());
  EXPECT_EQ(2, traced("Invalid QOR_IP_DIR path\n"));
}

TEST_F(SocketClient, ASocketPathThatDoesNotFitIsRefusedWithTwo) {
  std::string deep = dir.path();
  while (deep.size() + sizeof("/.teo_wd_sock") - 1 < 108) deep += "/d";
  setenv("QOR_IP_DIR", deep.c_str(), 1);
  const int descriptors = socktest::openDescriptors();
  EXPECT_EQ(SOCKET_CLIENT_NO_SOCKET, sendWDCommand("622 RECYCLE"));
  EXPECT_EQ(descriptors, socktest::openDescriptors());
  const std::string path = deep + "/.teo_wd_sock";
  EXPECT_EQ(1, traced("Socket path too long: " + path + " has " + std::to_string(path.size()) +
                      " bytes, at most 107 fit.\n"));
}

TEST_F(SocketClient, WithNoServerListeningTheResultIsThreeAndTheDescriptorStaysOpen) {
  const int descriptors = socktest::openDescriptors();
  EXPECT_EQ(SOCKET_CLIENT_NO_CONNECT, sendTEOCommand("622 started qg"));
  EXPECT_EQ(1, traced("Error executing connect - errno = 2, No such file or directory\n"));
  // Kept: the early return leaves its socket open.
  EXPECT_EQ(descriptors + 1, socktest::openDescriptors());
  // A socket file with nobody behind it: refused.
  int dead = socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, teoSock().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(dead, reinterpret_cast<struct sockaddr*>(&address), sizeof address));
  close(dead);
  EXPECT_EQ(SOCKET_CLIENT_NO_CONNECT, sendTEOCommand("622 started qg"));
  EXPECT_EQ(1, traced("Error executing connect - errno = 111, Connection refused\n"));
  EXPECT_EQ(2, traced("Attempting to connect to socket " + teoSock() + ".\n"));
}

TEST_F(SocketClient, AServerThatNeverAnswersCostsSixtyCyclesAndGivesFive) {
  FakeServer server(wdSock(), untilClientGone);
  ASSERT_TRUE(server.bound());
  const int descriptors = socktest::openDescriptors();
  const long long started = qortest::nowMs();
  EXPECT_EQ(SOCKET_CLIENT_NO_ANSWER, sendWDCommand("622 RECYCLE"));
  const long long waited = qortest::nowMs() - started;
  EXPECT_GE(waited, 60 * 10);
  EXPECT_LT(waited, 60 * 10 + 1000);
  EXPECT_EQ("622 RECYCLE", server.request());
  // Sixty waits of a cycle each, fewer when a busy machine wakes the waits
  // late: the deadline is the cycles' sum, not their count.
  const int cycles = loopCount();
  EXPECT_GE(cycles, 1);
  EXPECT_LE(cycles, 60);
  EXPECT_EQ(1, traced("Error receiving result- errno = 11, Resource temporarily unavailable\n"));
  // An exchange that reached the wait closes its socket (and the server of
  // the test its end, once it sees the client gone).
  EXPECT_TRUE(qortest::waitFor([&] { return socktest::openDescriptors() == descriptors; }, 5000));
}

TEST_F(SocketClient, TheEnvironmentSetsTheLengthOfACycle) {
  SOCKET_ANSWER_CYCLES = 5;
  SOCKET_ANSWER_CYCLE_MS = 5000;
  setenv("QOR_SOCKET_ANSWER_WAIT", "40", 1);
  FakeServer server(wdSock(), untilClientGone);
  const long long started = qortest::nowMs();
  EXPECT_EQ(SOCKET_CLIENT_NO_ANSWER, sendWDCommand("622 RECYCLE"));
  const long long waited = qortest::nowMs() - started;
  EXPECT_GE(waited, 5 * 40);
  EXPECT_LT(waited, 5000);
  const int cycles = loopCount();
  EXPECT_GE(cycles, 1);
  EXPECT_LE(cycles, 5);
}

TEST_F(SocketClient, AnAnswerIsTakenWhenItArrivesNotAtTheEndOfACycle) {
  SOCKET_ANSWER_CYCLE_MS = 1000;
  FakeServer server(teoSock(), [](int connection) {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    answer(connection, "7");
  });
  const long long started = qortest::nowMs();
  EXPECT_EQ(7, sendTEOCommand("622 started qg"));
  const long long waited = qortest::nowMs() - started;
  EXPECT_GE(waited, 150);
  EXPECT_LT(waited, 900);
  EXPECT_EQ(1, traced("Waiting for answer loop count(1).\n"));
}

TEST_F(SocketClient, AServerThatClosesAtOnceGivesSix) {
  FakeServer server(teoSock(), [](int) {});
  std::string answer = "untouched";
  EXPECT_EQ(SOCKET_CLIENT_CLOSED, sendTEOQuery("622 QUERY OS_RESTART_COUNT", answer));
  EXPECT_EQ("untouched", answer);
  EXPECT_EQ(1, traced("Error receiving result- server closed the connection -- no data.\n"));
}

TEST_F(SocketClient, AQueryAnswerIsHandedBackAndTheResultIsZero) {
  FakeServer server(teoSock(), [](int connection) { answer(connection, "3|"); });
  std::string text;
  EXPECT_EQ(0, sendTEOQuery("622 QUERY OS_RESTART_COUNT", text));
  EXPECT_EQ("3|", text);
  EXPECT_EQ("622 QUERY OS_RESTART_COUNT", server.request());
  EXPECT_EQ(1, traced("Received answer bytes(2):\n"));
  EXPECT_EQ(1, traced("Total len(2): rc:(0) answer: 3| cycle: ("));
}

TEST_F(SocketClient, ACommandsResultIsTheNumberAnswered) {
  {
    FakeServer server(wdSock(), [](int connection) { answer(connection, "202"); });
    EXPECT_EQ(202, sendWDCommand("622 RESET_COUNT"));
    EXPECT_EQ("622 RESET_COUNT", server.request());
  }
  {
    FakeServer server(wdSock(), [](int connection) { answer(connection, "-1"); });
    EXPECT_EQ(-1, sendWDCommand("622 RECYCLE"));
  }
  {
    FakeServer server(wdSock(), [](int connection) { answer(connection, "0"); });
    EXPECT_EQ(0, sendWDCommand("622 RECYCLE"));
  }
}

TEST_F(SocketClient, ACommandAnsweredWithTextThatIsNoNumberLooksLikeSuccess) {
  FakeServer server(teoSock(), [](int connection) { answer(connection, "$$NODATA"); });
  EXPECT_EQ(0, sendTEOCommand("622 EVENT_DATA"));
}

TEST_F(SocketClient, TheAnswerToACommandLeavesTheAnswerStringAlone) {
  FakeServer server(teoSock(), [](int connection) { answer(connection, "120"); });
  std::string text = "untouched";
  EXPECT_EQ(120, sendCommand("/.teo_sock", SOCKET_COMMAND, "622 restart qg", text));
  EXPECT_EQ("untouched", text);
}

TEST_F(SocketClient, OfAnAnswerLongerThan3000BytesOnlyTheFirst3000AreSeen) {
  std::string longAnswer;
  for (int i = 0; longAnswer.size() < 3500; ++i) longAnswer += std::to_string(i) + "|";
  FakeServer server(wdSock(), [&](int connection) {
    answer(connection, longAnswer);
    untilClientGone(connection);
  });
  std::string text;
  EXPECT_EQ(0, sendWDQuery("622 QUERY EVENT_DATA", text));
  EXPECT_EQ(longAnswer.substr(0, 3000), text);
}

TEST_F(SocketClient, OfAnAnswerInTwoPiecesOnlyTheFirstIsSeen) {
  std::atomic<bool> secondSent{false};
  FakeServer server(wdSock(), [&](int connection) {
    answer(connection, "2|");
    // The second piece follows only once the client has gone with the first.
    untilClientGone(connection);
    answer(connection, "14 10 126 13 5 9 0");
    secondSent.store(true);
  });
  std::string text;
  EXPECT_EQ(0, sendWDQuery("622 QUERY HEALTH_INFO", text));
  EXPECT_EQ("2|", text);
}

TEST_F(SocketClient, TheRequestGoesOutAsItIsWithNoTerminator) {
  FakeServer server(teoSock(), [](int connection) { answer(connection, "0"); });
  EXPECT_EQ(0, sendTEOCommand("  622   started -o db1 qg  "));
  EXPECT_EQ("  622   started -o db1 qg  ", server.request());
}

TEST_F(SocketClient, AgainstTheRealServerACommandAndAQueryMakeTheRoundTrip) {
  socktest::ListedAgents agents;
  Agent* os = agents.addOSAgent(L"OS agent", L"qb", 4);
  WatchdogSocketServer server;
  socktest::ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  std::string text;
  EXPECT_EQ(0, sendWDQuery("622 QUERY HEALTH_INFO", text));
  EXPECT_EQ("4|", text);
  EXPECT_EQ(0, sendWDCommand("622 RECYCLE"));
  EXPECT_EQ(120, sendWDCommand("622 RESTART"));
  text.clear();
  EXPECT_EQ(0, sendWDQuery("622 QUERY EVENT_DATA", text));
  EXPECT_EQ("$$NODATA", text);
  // An empty answer to a wrong query: the server closes without a byte.
  EXPECT_EQ(SOCKET_CLIENT_CLOSED, sendWDQuery("622 QUERY SOMETHING", text));
  EXPECT_EQ((std::vector<socktest::ListedAgents::Queued>{{agent_recycle_cmd, OpRunning, true, os}}),
            socktest::ListedAgents::commandsQueued());
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}
