// A real qorhost for the tests of its control endpoint: a temporary CAP
// directory with the OS agent and one running agent (a copy of sleep with
// start and stop scripts), and ways to talk to its socket: httplib's client,
// raw bytes. Used on the test's main thread.
#ifndef QOR_TESTS_TOOLS_CONTROLHOST_H
#define QOR_TESTS_TOOLS_CONTROLHOST_H

#include <gtest/gtest.h>
#include <httplib.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "support/qortest.h"

namespace controltest {

// Ordered, so that a test sees the keys in the order they were sent.
using json = nlohmann::ordered_json;

// Every key of an agent object, in the order the endpoint writes them.
inline const std::vector<std::string> kAgentKeys = {
    "name",
    "subagent_id",
    "agent_type",
    "process_name",
    "instance_process_name",
    "path",
    "manage_type",
    "managed",
    "managed_code",
    "state",
    "state_code",
    "start_script",
    "stop_script",
    "config_script",
    "status_script",
    "check_frequency",
    "max_restarts",
    "restarts_today",
    "gave_up",
    "health_port",
    "os_type",
    "os_version",
    "os_name",
    "kernel_release",
    "dependencies",
    "memory_threshold_value",
    "memory_threshold_unit",
    "memory_threshold",
    "cpu_threshold",
    "ip_address",
    "host_name",
    "pid",
    "parent_pid",
    "command_line",
    "build_date",
    "build_number",
    "version",
    "user_cpu",
    "system_cpu",
    "cpu_percent",
    "page_faults",
    "threads",
    "handles",
    "service_name",
    "instance_name",
    "working_set_size",
    "resident_bytes",
    "total_memory_size",
    "vm_size",
    "process_user",
    "last_check",
    "cap_file",
    "cap_file_modified",
    "uptime_seconds",
};

// A connection to a unix socket; -1 when it failed.
inline int connectUnix(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Everything the peer sends on `fd` until it closes or `timeoutMs` passes.
inline std::string readAll(int fd, int timeoutMs) {
  std::string text;
  const long long deadline = qortest::nowMs() + timeoutMs;
  for (;;) {
    const long long left = deadline - qortest::nowMs();
    if (left <= 0) break;
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(left)) <= 0) break;
    char buffer[4096];
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count <= 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

// The status code of a raw response ("HTTP/1.1 404 ..."), or 0.
inline int statusOf(const std::string& response) {
  if (response.compare(0, 9, "HTTP/1.1 ") != 0) return 0;
  return std::atoi(response.c_str() + 9);
}

// The body of a raw response.
inline std::string bodyOf(const std::string& response) {
  const size_t end = response.find("\r\n\r\n");
  return end == std::string::npos ? std::string() : response.substr(end + 4);
}

class ControlHost : public ::testing::Test {
 protected:
  static constexpr const char* kAgent = "Controlled program";
  static constexpr const char* kProgram = "qorctlhttpd";

  ControlHost() : start(programs) { writeCap("host.xml", e2e::osAgentCapFile()); }

  void writeCap(const std::string& file, const std::string& content) {
    qortest::writeFile(caps.file(file), content);
  }
  // The agent of these tests: running before qorhost starts, checked every
  // five seconds, restarted three times a day, stopped by its stop script.
  captest::Subagent agent() {
    captest::Subagent agent = e2e::agentFor("ctl.agent", kAgent, programs, kProgram, start, 3);
    agent.stopScript = captest::script("stopScript", "/bin/sh " + programs.script() + " stop " + kProgram);
    return agent;
  }
  void withRunningAgent() {
    pid = programs.start(kProgram);
    writeCap("agent.xml", captest::document(agent()));
  }
  // Starts qorhost and waits for its first listing.
  void startHost(const std::vector<std::string>& extraArgs = {}) {
    std::vector<std::string> argv = {e2e::tool("qorhost"), "--cap-dir",     caps.path(), "--ip-dir",
                                     work.path(),          "--trace-level", "128",       "--trace-file",
                                     work.file("trace")};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    host.reset(new qortest::Child(argv, {programs.env()}));
    ASSERT_TRUE(host->waitForOutput("qorhost: service started", 15000)) << host->out() << host->err();
  }
  int stopHost() {
    host->signal(SIGINT);
    return host->wait(15000);
  }
  bool alive() { return kill(host->pid(), 0) == 0 && host->wait(0) == -1; }
  std::string socketPath() const { return work.file("qorhost.sock"); }

  std::unique_ptr<httplib::Client> client() {
    std::unique_ptr<httplib::Client> c(new httplib::Client(socketPath()));
    c->set_address_family(AF_UNIX);
    c->set_read_timeout(10, 0);
    return c;
  }
  // GET PATH on the socket; its JSON body, with the status in `status`.
  json getJson(const std::string& path, int* status = nullptr) {
    httplib::Result result = client()->Get(path.c_str());
    if (!result) {
      ADD_FAILURE() << "GET " << path << ": " << httplib::to_string(result.error());
      return json();
    }
    if (status != nullptr) *status = result->status;
    EXPECT_EQ("application/json; charset=utf-8", result->get_header_value("Content-Type"));
    return json::parse(result->body);
  }
  json post(const std::string& path, int* status = nullptr) {
    httplib::Result result = client()->Post(path.c_str());
    if (!result) {
      ADD_FAILURE() << "POST " << path << ": " << httplib::to_string(result.error());
      return json();
    }
    if (status != nullptr) *status = result->status;
    return json::parse(result->body);
  }
  // Sends `bytes` as they are and gives the whole answer, the connection
  // closed by the server or after `timeoutMs`.
  std::string raw(const std::string& bytes, int timeoutMs = 5000) {
    const int fd = connectUnix(socketPath());
    if (fd < 0) return std::string();
    if (write(fd, bytes.data(), bytes.size()) < 0) {
      // The server may close early; what it said is still read.
    }
    std::string answer = readAll(fd, timeoutMs);
    close(fd);
    return answer;
  }
  // One request of `method` for `target` (sent as typed: percent-encoding
  // and all) on a connection of its own.
  std::string request(const std::string& method, const std::string& target) {
    return raw(method + " " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
  }
  // The agent object of `name` in GET /v1/agents, or null.
  json listed(const std::string& name) {
    json all = getJson("/v1/agents");
    for (const json& agent : all["agents"]) {
      if (agent["name"] == name) return agent;
    }
    return json();
  }

  qortest::TempDir caps;
  qortest::TempDir work;
  e2e::Programs programs;
  e2e::StartScript start;
  int pid = 0;
  // Last, so that qorhost is gone before the programs are stopped.
  std::unique_ptr<qortest::Child> host;
};

}  // namespace controltest

#endif  // QOR_TESTS_TOOLS_CONTROLHOST_H
