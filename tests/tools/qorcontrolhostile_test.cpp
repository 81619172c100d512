// Hostile and careless clients of qorhost's control socket: bytes that are no
// HTTP, a header of 100 KB, a client that sends one byte a second, a thousand
// connections at once, clients that never read their answers, and names that
// try to leave their place. Each must
// end in a 4xx or a dropped connection, with qorhost alive, answering others,
// and still checking its agents.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tools/controlhost.h"

namespace {

using controltest::bodyOf;
using controltest::ControlHost;
using controltest::json;
using controltest::statusOf;

class HostileClients : public ControlHost {
 protected:
  void SetUp() override {
    withRunningAgent();
    startHost();
  }
  // qorhost answers a plain request and its agent is still supervised.
  void expectServing() {
    int status = 0;
    json all = getJson("/v1/agents", &status);
    EXPECT_EQ(200, status);
    EXPECT_TRUE(alive());
  }
  // The time of the agent's last check; 0 before the first.
  long lastCheck() {
    json agent = listed(kAgent);
    return agent.is_object() && agent["last_check"].is_number() ? agent["last_check"].get<long>() : 0;
  }
};

}  // namespace

TEST_F(HostileClients, BytesThatAreNoHttpGet400OrADroppedConnection) {
  const std::vector<std::string> garbage = {
      std::string("\x00\x01\x02\xff\xfe garbage\r\n\r\n", 17),
      "HELLO\r\n\r\n",
      "GET\r\n\r\n",
      "GET /v1/agents HTTP/9.9 extra words\r\n\r\n",
      "GET /v1/agents HTTP/1.1\r\nContent-Length: -5\r\n\r\n",
      "\r\n\r\n\r\n",
  };
  for (const std::string& bytes : garbage) {
    const std::string answer = raw(bytes, 4000);
    EXPECT_TRUE(answer.empty() || statusOf(answer) == 400) << answer;
    EXPECT_TRUE(alive());
  }
  expectServing();
  EXPECT_EQ(0, stopHost());
}

TEST_F(HostileClients, AHeaderOf100KilobytesIsRefusedAndOthersAreStillServed) {
  const std::string big =
      "GET /v1/agents HTTP/1.1\r\nHost: localhost\r\nX-Big: " + std::string(100 * 1024, 'a') +
      "\r\nConnection: close\r\n\r\n";
  const std::string answer = raw(big, 5000);
  // The library drops the connection or answers 400 or 431; never 200.
  const int status = statusOf(answer);
  EXPECT_TRUE(answer.empty() || (status >= 400 && status < 500)) << answer.substr(0, 200);
  // A body larger than any route takes is refused too.
  const std::string body =
      "POST /v1/agents/Nobody/stop HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100000\r\n"
      "Connection: close\r\n\r\n" +
      std::string(100000, 'b');
  const std::string refused = raw(body, 5000);
  EXPECT_EQ(413, statusOf(refused)) << refused.substr(0, 200);
  EXPECT_EQ("{\"error\":\"the request's body is too large; no route takes one\"}\n", bodyOf(refused));
  expectServing();
  EXPECT_EQ(0, stopHost());
}

TEST_F(HostileClients, AClientSendingOneByteASecondHoldsUpNeitherOthersNorSupervision) {
  ASSERT_TRUE(qortest::waitFor([&] { return lastCheck() > 0; }, 15000));
  const long firstCheck = lastCheck();
  const int slow = controltest::connectUnix(socketPath());
  ASSERT_GE(slow, 0);
  std::atomic<bool> done{false};
  std::thread trickle([&] {
    const std::string request = "GET /v1/agents HTTP/1.1\r\nHost: localhost\r\n\r\n";
    for (size_t i = 0; i < request.size() && !done; ++i) {
      if (write(slow, &request[i], 1) != 1) break;
      // The point of this client is to be slow.
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  });
  // Meanwhile everybody else is served at once, again and again, and the
  // agent is checked again.
  int served = 0;
  const long long deadline = qortest::nowMs() + 12000;
  while (qortest::nowMs() < deadline && (lastCheck() <= firstCheck || served < 20)) {
    const long long asked = qortest::nowMs();
    int status = 0;
    getJson("/v1/events?since=0", &status);
    EXPECT_EQ(200, status);
    EXPECT_LT(qortest::nowMs() - asked, 1000);
    ++served;
  }
  EXPECT_GE(served, 20);
  EXPECT_GT(lastCheck(), firstCheck);
  done = true;
  trickle.join();
  close(slow);
  expectServing();
  EXPECT_EQ(0, stopHost());
}

TEST_F(HostileClients, AThousandConnectionsHeldOpenDelayANewClientBySecondsAndBlockNoSupervision) {
  rlimit files;
  getrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 2048 && files.rlim_max >= 2048) {
    files.rlim_cur = 2048;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  const std::string request = "GET /v1/agents HTTP/1.1\r\nHost: localhost\r\n\r\n";
  std::vector<int> sockets;
  int connected = 0;
  for (int i = 0; i < 1000; ++i) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath().c_str(), sizeof address.sun_path - 1);
    // A full backlog refuses at once (EAGAIN): those count as dropped. Half
    // of them ask for something, half say nothing.
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      ++connected;
      if (i % 2 == 0 && write(fd, request.data(), request.size()) < 0) {
        // Dropped meanwhile.
      }
    }
    sockets.push_back(fd);
  }
  EXPECT_GT(connected, 900);
  // A new client goes before the crowd: it waits for one worker to be free
  // (a keep-alive time-out of 2 seconds at most), not for them all.
  // (The bound is loose for the sanitizer builds, which run several of these
  // at once on few cores; a plain build answers within the time-out.)
  const long long crowded = qortest::nowMs();
  std::unique_ptr<httplib::Client> patient = client();
  patient->set_read_timeout(30, 0);
  httplib::Result answer = patient->Get("/v1/agents");
  ASSERT_TRUE(answer) << httplib::to_string(answer.error()) << host->err().substr(0, 2000);
  EXPECT_EQ(200, answer->status);
  EXPECT_LT(qortest::nowMs() - crowded, 15000);
  // While they are all open, supervision goes on: an agent that dies is
  // found dead at its next check.
  ASSERT_EQ(0, kill(pid, SIGKILL));
  EXPECT_TRUE(
      host->waitForOutput("[ 8] Controlled program Operational Event: Agent stopped abnormally.", 30000))
      << host->out();
  for (int fd : sockets) close(fd);
  const long long asked = qortest::nowMs();
  expectServing();
  EXPECT_LT(qortest::nowMs() - asked, 10000);
  EXPECT_EQ(0, stopHost());
}

TEST_F(HostileClients, ClientsThatNeverReadTheEventsTheyAskedForDelayNeitherTheListenersNorTheRing) {
  ASSERT_TRUE(qortest::waitFor([&] { return lastCheck() > 0; }, 15000));
  // More clients than workers, each asking for the events and the page over
  // and over without reading a byte: their answers fill the socket's buffer
  // and each worker that serves them waits in its write until the time-out.
  std::string pipelined;
  for (int i = 0; i < 20; ++i) {
    pipelined += "GET /v1/events?since=0 HTTP/1.1\r\nHost: localhost\r\n\r\n";
    pipelined += "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
  }
  std::vector<int> readers;
  for (int i = 0; i < 24; ++i) {
    const int fd = controltest::connectUnix(socketPath());
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(pipelined.size()), write(fd, pipelined.data(), pipelined.size()));
    readers.push_back(fd);
  }
  // The listeners hear an agent's death at its next check as ever, and the
  // ring keeps it for the first client that reads.
  const long long killed = qortest::nowMs();
  ASSERT_EQ(0, kill(pid, SIGKILL));
  const std::string died = "[ 8] Controlled program Operational Event: Agent stopped abnormally.";
  EXPECT_TRUE(host->waitForOutput(died, 12000)) << host->out();
  EXPECT_LT(qortest::nowMs() - killed, 8000);
  bool heard = false;
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        int status = 0;
        json answer = getJson("/v1/events?since=0", &status);
        for (const json& event : answer["events"]) {
          heard = heard || (event["id"] == 8 && event["alert"] == true && event["agent"] == kAgent);
        }
        return heard;
      },
      20000));
  for (int fd : readers) close(fd);
  expectServing();
  EXPECT_EQ(0, stopHost());
}

TEST_F(HostileClients, NamesWithSlashDotsNulOrBytesThatAreNotUtf8Get4xx) {
  struct Case {
    std::string method, target;
    int status;
    std::string error;
  };
  const std::string notUtf8 = "an agent's name is UTF-8 text without NUL bytes";
  const std::vector<Case> cases = {
      {"GET", "/v1/agents/a%2Fb", 404, "no agent named a/b"},
      {"GET", "/v1/agents/..", 404, "no agent named .."},
      {"GET", "/v1/agents/../../etc/passwd", 404, "no agent named ../../etc/passwd"},
      {"GET", "/v1/agents/%2E%2E%2Fhost.xml", 404, "no agent named ../host.xml"},
      {"GET", "/v1/agents/a%00b", 400, notUtf8},
      {"GET", "/v1/agents/%00", 400, notUtf8},
      {"GET", "/v1/agents/%FF", 400, notUtf8},
      {"GET", "/v1/agents/%C3%28", 400, notUtf8},
      {"GET", "/v1/agents/%ED%A0%80", 400, notUtf8},
      {"GET", "/v1/agents/%C0%AF", 400, notUtf8},
      {"GET", "/v1/agents/\xFF\xFE", 400, notUtf8},
      {"POST", "/v1/agents/%FF/stop", 400, notUtf8},
      {"POST", "/v1/agents/Controlled%20program%00/stop", 400, notUtf8},
      {"POST", "/v1/agents//stop", 400, "the path names no agent"},
  };
  for (const Case& c : cases) {
    const std::string answer = request(c.method, c.target);
    EXPECT_EQ(c.status, statusOf(answer)) << c.method << " " << c.target << "\n" << answer;
    EXPECT_EQ(json({{"error", c.error}}).dump() + "\n", bodyOf(answer)) << c.method << " " << c.target;
  }
  // A name with a slash is still only a name: the service has no such agent.
  const std::string slashed = request("POST", "/v1/agents/Controlled%20program%2Fx/stop");
  EXPECT_EQ(200, statusOf(slashed));
  EXPECT_EQ(json({{"agent", "Controlled program/x"},
                  {"command", "stop"},
                  {"code", 202},
                  {"meaning", "no such agent"}})
                    .dump() +
                "\n",
            bodyOf(slashed));
  // Nothing was stopped.
  EXPECT_EQ("running", listed(kAgent)["state"]);
  expectServing();
  EXPECT_EQ(0, stopHost());
}

TEST_F(HostileClients, LongPathsAreAnsweredWith404Or414WithOrWithoutABody) {
  for (const size_t length : {1000u, 2000u, 8100u, 9000u, 100000u}) {
    const std::string path = "/v1/agents/" + std::string(length, 'a') + "/stop";
    for (const char* body : {"", "Content-Length: 0\r\n", "Content-Length: 2\r\n"}) {
      const std::string answer =
          raw("POST " + path + " HTTP/1.1\r\nHost: localhost\r\n" + body + "Connection: close\r\n\r\n" +
              (std::string(body).find(" 2") != std::string::npos ? "{}" : ""));
      // A name nobody has, unless the path is too long: for the library
      // beyond 8 KB, for the routes of a request with a body beyond 1 KB.
      const bool withBody = *body != '\0';
      const int expected = length > 8100 || (withBody && length > 1000) ? 414 : 200;
      EXPECT_EQ(expected, statusOf(answer)) << length << " " << body << answer.substr(0, 100);
      EXPECT_TRUE(alive());
    }
  }
  expectServing();
  EXPECT_EQ(0, stopHost());
}
