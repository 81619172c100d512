// The control socket of a real qorhost: the agents as JSON, the commands with
// their codes and meanings, the events, the socket file's mode and lifetime,
// and the read-only TCP listener. Each test starts its own qorhost on a
// temporary CAP directory with one running agent.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tools/controlhost.h"

namespace {

using controltest::ControlHost;
using controltest::json;
using controltest::kAgentKeys;

std::vector<std::string> keysOf(const json& object) {
  std::vector<std::string> keys;
  for (auto it = object.begin(); it != object.end(); ++it) keys.push_back(it.key());
  return keys;
}

long mtimeOf(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<long>(status.st_mtime) : -1;
}

// The resident pages of a process, from /proc/PID/statm.
long residentPages(int pid) {
  long size = 0, resident = -1;
  FILE* file = std::fopen(("/proc/" + std::to_string(pid) + "/statm").c_str(), "r");
  if (file == nullptr) return -1;
  if (std::fscanf(file, "%ld %ld", &size, &resident) != 2) resident = -1;
  std::fclose(file);
  return resident;
}

}  // namespace

TEST_F(ControlHost, TheAgentListGivesEveryKeyAndTheRunningAgentsValues) {
  withRunningAgent();
  startHost();
  json all = getJson("/v1/agents");
  ASSERT_TRUE(all.is_object());
  EXPECT_EQ(std::vector<std::string>{"agents"}, keysOf(all));
  // The agents first, then the OS agent of the watchdog list.
  ASSERT_EQ(2u, all["agents"].size()) << all.dump(1);
  EXPECT_EQ("Controlled program", all["agents"][0]["name"]);
  EXPECT_EQ("Embedding host", all["agents"][1]["name"]);
  for (const json& agent : all["agents"]) EXPECT_EQ(kAgentKeys, keysOf(agent)) << agent.dump(1);

  const json& a = all["agents"][0];
  EXPECT_EQ("ctl.agent", a["subagent_id"]);
  EXPECT_EQ("qorctlhttpd", a["process_name"]);
  EXPECT_EQ(programs.path("qorctlhttpd"), a["path"]);
  EXPECT_EQ("managed", a["managed"]);
  EXPECT_EQ(1, a["managed_code"]);
  EXPECT_EQ("running", a["state"]);
  EXPECT_EQ(4, a["state_code"]);
  EXPECT_EQ("/bin/sh " + start.path() + " qorctlhttpd", a["start_script"]);
  EXPECT_EQ("/bin/sh " + programs.script() + " stop qorctlhttpd", a["stop_script"]);
  EXPECT_EQ(5, a["check_frequency"]);
  EXPECT_EQ(3, a["max_restarts"]);
  EXPECT_EQ(0, a["restarts_today"]);
  EXPECT_EQ(false, a["gave_up"]);
  EXPECT_EQ(pid, a["pid"]);
  EXPECT_EQ(caps.file("agent.xml"), a["cap_file"]);
  EXPECT_EQ(mtimeOf(caps.file("agent.xml")), a["cap_file_modified"]);
  ASSERT_TRUE(a["uptime_seconds"].is_number()) << a.dump(1);
  EXPECT_GE(a["uptime_seconds"].get<long>(), 0);
  EXPECT_LE(a["uptime_seconds"].get<long>(), 60);
  // The figures of the process come with the first check. The library keeps
  // pages; the endpoint gives bytes.
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["last_check"].is_number(); }, 15000));
  const json checked = listed(kAgent);
  EXPECT_GT(checked["threads"].get<long>(), 0);
  const long pageSize = sysconf(_SC_PAGESIZE);
  ASSERT_TRUE(checked["resident_bytes"].is_number());
  EXPECT_GT(checked["resident_bytes"].get<long>(), 0);
  EXPECT_EQ(0, checked["resident_bytes"].get<long>() % pageSize);
  EXPECT_NEAR(residentPages(pid), checked["resident_bytes"].get<long>() / pageSize, 64);

  const json& os = all["agents"][1];
  EXPECT_EQ(2, os["manage_type"]);
  EXPECT_EQ("e2e.host", os["subagent_id"]);
  EXPECT_EQ(caps.file("host.xml"), os["cap_file"]);
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, TheLastCheckIsNullUntilTheFirstCheckThenItsTime) {
  withRunningAgent();
  const long before = static_cast<long>(time(nullptr));
  startHost();
  json agent = listed(kAgent);
  ASSERT_TRUE(agent.is_object());
  EXPECT_TRUE(agent["last_check"].is_null() || agent["last_check"].get<long>() >= before) << agent.dump(1);
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["last_check"].is_number(); }, 15000));
  const long checked = listed(kAgent)["last_check"].get<long>();
  EXPECT_GE(checked, before);
  EXPECT_LE(checked, static_cast<long>(time(nullptr)));
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, OneAgentByItsNameAndA404ThatNamesAnUnknownOne) {
  withRunningAgent();
  startHost();
  int status = 0;
  json agent = getJson("/v1/agents/Controlled%20program", &status);
  EXPECT_EQ(200, status);
  EXPECT_EQ(kAgentKeys, keysOf(agent));
  EXPECT_EQ(listed(kAgent)["subagent_id"], agent["subagent_id"]);
  EXPECT_EQ(pid, agent["pid"]);

  json missing = getJson("/v1/agents/Nobody%20here", &status);
  EXPECT_EQ(404, status);
  EXPECT_EQ(json({{"error", "no agent named Nobody here"}}), missing);
  // Names are compared exactly.
  getJson("/v1/agents/controlled%20program", &status);
  EXPECT_EQ(404, status);
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, AStopIsAcceptedAndCarriedOutThenASecondIsRefusedWith201AndAStartBringsItBack) {
  withRunningAgent();
  startHost();
  int status = 0;
  EXPECT_EQ(json({{"agent", kAgent}, {"command", "stop"}, {"code", 0}, {"meaning", "accepted"}}),
            post("/v1/agents/Controlled%20program/stop", &status));
  EXPECT_EQ(200, status);
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["state_code"] == 5; }, 15000)) << host->out();
  EXPECT_EQ("stopped", listed(kAgent)["state"]);
  EXPECT_EQ(0, listed(kAgent)["pid"]);
  EXPECT_TRUE(listed(kAgent)["uptime_seconds"].is_null());
  EXPECT_TRUE(qortest::waitFor([&] { return kill(pid, 0) != 0; }, 5000));

  EXPECT_EQ(json({{"agent", kAgent},
                  {"command", "stop"},
                  {"code", 201},
                  {"meaning", "agent is starting, stopping or already stopped by an operator"}}),
            post("/v1/agents/Controlled%20program/stop", &status));
  EXPECT_EQ(200, status);

  EXPECT_EQ(json({{"agent", kAgent}, {"command", "start"}, {"code", 0}, {"meaning", "accepted"}}),
            post("/v1/agents/Controlled%20program/start"));
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["state_code"] == 4; }, 15000)) << host->out();
  EXPECT_EQ(programs.pid(kProgram), listed(kAgent)["pid"]);
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, EveryCommandOnANameNobodyHasIsAnsweredWithItsNoSuchAgentCode) {
  withRunningAgent();
  startHost();
  const std::vector<std::pair<std::string, int>> expected = {
      {"stop", 202}, {"start", 102}, {"recycle", 302}, {"reset", 601}, {"manage", 401}, {"unmanage", 501}};
  for (const auto& command : expected) {
    int status = 0;
    EXPECT_EQ(json({{"agent", "Nobody"},
                    {"command", command.first},
                    {"code", command.second},
                    {"meaning", "no such agent"}}),
              post("/v1/agents/Nobody/" + command.first, &status));
    EXPECT_EQ(200, status);
  }
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, UnmanageManageResetAndRecycleGiveTheirOwnCodes) {
  withRunningAgent();
  startHost();
  const std::string agentPath = "/v1/agents/Controlled%20program/";
  EXPECT_EQ(603, post(agentPath + "reset")["code"]);
  EXPECT_EQ("the restart count is already 0", post(agentPath + "reset")["meaning"]);

  EXPECT_EQ(json({{"agent", kAgent}, {"command", "unmanage"}, {"code", 0}, {"meaning", "accepted"}}),
            post(agentPath + "unmanage"));
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["managed"] == "unmanaged"; }, 10000));
  EXPECT_EQ(json({{"agent", kAgent},
                  {"command", "unmanage"},
                  {"code", 500},
                  {"meaning", "agent not managed, or the OS agent not managed"}}),
            post(agentPath + "unmanage"));
  EXPECT_EQ(json({{"agent", kAgent}, {"command", "stop"}, {"code", 200}, {"meaning", "agent not managed"}}),
            post(agentPath + "stop"));
  EXPECT_EQ(json({{"agent", kAgent}, {"command", "start"}, {"code", 100}, {"meaning", "agent not managed"}}),
            post(agentPath + "start"));

  EXPECT_EQ(json({{"agent", kAgent}, {"command", "manage"}, {"code", 0}, {"meaning", "accepted"}}),
            post(agentPath + "manage"));
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["managed"] == "managed"; }, 10000));
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["state_code"] == 4; }, 15000));

  EXPECT_EQ(json({{"agent", kAgent}, {"command", "recycle"}, {"code", 0}, {"meaning", "accepted"}}),
            post(agentPath + "recycle"));
  ASSERT_TRUE(
      host->waitForOutput("Controlled program Operational Event: Agent recycle command received", 15000))
      << host->out();
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, WrongMethodsPathsAndCommandWordsGet405And404) {
  withRunningAgent();
  startHost();
  struct Case {
    std::string method, target;
    int status;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"GET", "/v1/agents/Controlled%20program/stop", 405, "this resource takes POST only"},
      {"POST", "/v1/agents", 405, "this resource takes GET only"},
      {"POST", "/v1/agents/Controlled%20program", 405, "this resource takes GET only"},
      {"POST", "/v1/events", 405, "this resource takes GET only"},
      {"POST", "/metrics", 405, "this resource takes GET only"},
      {"PUT", "/v1/agents", 405, "this resource takes GET, POST only"},
      {"DELETE", "/v1/agents/Controlled%20program", 405, "this resource takes GET, POST only"},
      {"POST", "/v1/agents/Controlled%20program/explode", 404,
       "no command named explode; one of stop, start, recycle, reset, manage, unmanage"},
      {"POST", "/v1/agents/Controlled%20program/disarm", 404,
       "no command named disarm; one of stop, start, recycle, reset, manage, unmanage"},
      {"GET", "/v2/agents", 404, "nothing is served at /v2/agents"},
      {"GET", "/index.html", 404, "nothing is served at /index.html"},
      {"GET", "/v1/events?since=abc", 400,
       "since must be a whole number: the seq of the last event already seen"},
      {"GET", "/v1/events?since=-1", 400,
       "since must be a whole number: the seq of the last event already seen"},
  };
  for (const Case& c : cases) {
    const std::string answer = request(c.method, c.target);
    EXPECT_EQ(c.status, controltest::statusOf(answer)) << c.method << " " << c.target << "\n" << answer;
    EXPECT_EQ(json({{"error", c.error}}).dump() + "\n", controltest::bodyOf(answer))
        << c.method << " " << c.target;
  }
  EXPECT_NE(std::string::npos, request("GET", "/v1/agents/x/stop").find("\r\nAllow: POST\r\n"));
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, TheSocketIsForOwnerAndGroupAloneAndGoesWithQorhost) {
  // qorhost inherits this umask; the socket's own is set for its bind alone.
  const mode_t previous = umask(022);
  startHost();
  umask(previous);
  struct stat status;
  ASSERT_EQ(0, lstat(socketPath().c_str(), &status));
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(0770u, status.st_mode & 0777u);
  EXPECT_NE(std::string::npos, host->out().find("qorhost: control socket: " + socketPath() + "\n"));
  EXPECT_EQ(0, stopHost());
  EXPECT_FALSE(qortest::fileExists(socketPath()));
  // Files qorhost makes after the bind get its own umask back: the state file
  // written at the stop is readable by others.
  ASSERT_EQ(0, stat(caps.file("teo.dat").c_str(), &status));
  EXPECT_EQ(0644u, status.st_mode & 0777u);
}

TEST_F(ControlHost, ControlSocketOptionPutsTheSocketWhereItSays) {
  qortest::TempDir elsewhere;
  const std::string path = elsewhere.file("ctl.sock");
  startHost({"--control-socket", path});
  EXPECT_FALSE(qortest::fileExists(socketPath()));
  httplib::Client c(path);
  c.set_address_family(AF_UNIX);
  httplib::Result result = c.Get("/v1/agents");
  ASSERT_TRUE(result);
  EXPECT_EQ(200, result->status);
  EXPECT_EQ(0, stopHost());
  EXPECT_FALSE(qortest::fileExists(path));
}

TEST_F(ControlHost, AStaleSocketFileIsReplaced) {
  // A socket bound by a process that is gone: nobody answers on it.
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  close(fd);
  ASSERT_TRUE(qortest::fileExists(socketPath()));
  startHost();
  int status = 0;
  getJson("/v1/agents", &status);
  EXPECT_EQ(200, status);
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, ASecondQorhostOnALiveSocketSaysSoAndExitsWithOne) {
  startHost();
  qortest::Child second(
      {e2e::tool("qorhost"), "--cap-dir", caps.path(), "--ip-dir", work.path(), "--trace-level", "0"});
  EXPECT_EQ(1, second.wait(15000));
  EXPECT_EQ("qorhost: another qorhost already answers on " + socketPath() +
                "; stop it first, or give this one --control-socket another path\n",
            second.err());
  EXPECT_EQ(std::string::npos, second.out().find("service started"));
  // The first one is untouched and still answers.
  int status = 0;
  getJson("/v1/agents", &status);
  EXPECT_EQ(200, status);
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, AFileThatIsNoSocketIsLeftAloneAndQorhostExitsWithOne) {
  qortest::writeFile(socketPath(), "not a socket\n");
  qortest::Child second({e2e::tool("qorhost"), "--cap-dir", caps.path(), "--ip-dir", work.path()});
  EXPECT_EQ(1, second.wait(15000));
  EXPECT_EQ("qorhost: " + socketPath() +
                " exists and is not a socket; remove it or give --control-socket another path\n",
            second.err());
  EXPECT_EQ("not a socket\n", qortest::readFile(socketPath()));
}

TEST_F(ControlHost, HttpServesTheReadOnlyRoutesAndRefusesCommandsWith403) {
  withRunningAgent();
  startHost({"--http", "127.0.0.1:0"});
  const std::string out = host->out();
  const std::string said = "qorhost: read-only HTTP on 127.0.0.1:";
  const size_t at = out.find(said);
  ASSERT_NE(std::string::npos, at) << out;
  const int port = std::atoi(out.c_str() + at + said.size());
  ASSERT_GT(port, 0);
  EXPECT_EQ(said + std::to_string(port) + "\n", out.substr(at, out.find('\n', at) + 1 - at));
  httplib::Client tcp("127.0.0.1", port);
  httplib::Result agents = tcp.Get("/v1/agents");
  ASSERT_TRUE(agents);
  EXPECT_EQ(200, agents->status);
  EXPECT_EQ(json::parse(agents->body)["agents"][0]["name"], kAgent);
  httplib::Result metrics = tcp.Get("/metrics");
  ASSERT_TRUE(metrics);
  EXPECT_EQ(200, metrics->status);
  EXPECT_EQ("text/plain; version=0.0.4", metrics->get_header_value("Content-Type"));
  httplib::Result events = tcp.Get("/v1/events");
  ASSERT_TRUE(events);
  EXPECT_EQ(200, events->status);
  for (const char* path : {"/v1/agents/Controlled%20program/stop", "/v1/agents/Nobody/start", "/nowhere"}) {
    httplib::Result refused = tcp.Post(path);
    ASSERT_TRUE(refused);
    EXPECT_EQ(403, refused->status) << path;
    EXPECT_EQ("{\"error\":\"commands are only taken on the unix socket\"}\n", refused->body);
  }
  // Refused, so the agent still runs.
  EXPECT_EQ("running", listed(kAgent)["state"]);
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, HttpWithoutAPortIsAUsageErrorInOneSentence) {
  qortest::Child bad(
      {e2e::tool("qorhost"), "--cap-dir", caps.path(), "--ip-dir", work.path(), "--http", "localhost"});
  EXPECT_EQ(1, bad.wait(15000));
  EXPECT_EQ("qorhost: --http takes ADDR:PORT, e.g. 127.0.0.1:9464, not 'localhost'\n", bad.err());
}

TEST_F(ControlHost, HelpNamesBothOptionsAndTheRoutes) {
  qortest::RunResult run = qortest::runProgram({e2e::tool("qorhost"), "--help"});
  EXPECT_EQ(0, run.exitCode);
  EXPECT_NE(std::string::npos, run.out.find("[--control-socket PATH] [--http ADDR:PORT]"));
  EXPECT_NE(std::string::npos, run.out.find("  --control-socket PATH  the control socket"));
  EXPECT_NE(std::string::npos, run.out.find("Default: $QOR_IP_DIR/qorhost.sock"));
  EXPECT_NE(std::string::npos, run.out.find("  --http ADDR:PORT    also serve the read-only routes on TCP"));
  EXPECT_NE(std::string::npos,
            run.out.find("  POST /v1/agents/NAME/COMMAND    stop, start, recycle, reset, manage, unmanage"));
}

TEST_F(ControlHost, CurlSendsACommandWithoutABodyAndAKeptAliveConnectionGoesOnAfterOneWithABody) {
  withRunningAgent();
  startHost();
  qortest::RunResult curl = qortest::runProgram({"/usr/bin/curl", "-s", "-X", "POST", "--unix-socket",
                                                 socketPath(), "http://localhost/v1/agents/Nobody/start"});
  EXPECT_EQ("{\"agent\":\"Nobody\",\"command\":\"start\",\"code\":102,\"meaning\":\"no such agent\"}\n",
            curl.out);
  // A body no route needs is read and set aside, not taken for the next
  // request on the same connection.
  const int fd = controltest::connectUnix(socketPath());
  ASSERT_GE(fd, 0);
  const std::string first =
      "POST /v1/agents/Nobody/reset HTTP/1.1\r\nHost: localhost\r\nContent-Length: 12\r\n\r\nGET /metrics";
  ASSERT_EQ(static_cast<ssize_t>(first.size()), write(fd, first.data(), first.size()));
  std::string answers;
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        answers += controltest::readAll(fd, 100);
        return answers.find("}\n") != std::string::npos;
      },
      5000));
  const std::string second = "GET /v1/agents/Nobody HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
  ASSERT_EQ(static_cast<ssize_t>(second.size()), write(fd, second.data(), second.size()));
  answers += controltest::readAll(fd, 5000);
  close(fd);
  EXPECT_EQ(2, qortest::countOccurrences(answers, "HTTP/1.1 ")) << answers;
  EXPECT_NE(std::string::npos, answers.find("{\"agent\":\"Nobody\",\"command\":\"reset\",\"code\":601,"));
  EXPECT_NE(std::string::npos, answers.find("HTTP/1.1 404 Not Found\r\n")) << answers;
  EXPECT_NE(std::string::npos, answers.find("{\"error\":\"no agent named Nobody\"}\n"));
  EXPECT_EQ(0, stopHost());
}

TEST(ControlSocketReadme, NamesEveryKeyOfTheAgentObjectAndEveryMetric) {
  const std::string readme = qortest::readFile(qortest::sourceDir() + "/README.md");
  const size_t begin = readme.find("## Control socket\n");
  ASSERT_NE(std::string::npos, begin);
  const std::string section = readme.substr(begin, readme.find("\n## ", begin + 1) - begin);
  for (const std::string& key : kAgentKeys)
    EXPECT_NE(std::string::npos, section.find("`" + key + "`")) << key;
  for (const char* metric :
       {"qor_agent_up", "qor_agent_operating_state", "qor_agent_restarts_today", "qor_agent_max_restarts",
        "qor_agent_last_check_timestamp_seconds", "qor_agent_cpu_percent", "qor_agent_resident_bytes",
        "qor_events_total", "qor_heap_in_use_bytes", "qor_build_info"})
    EXPECT_NE(std::string::npos, section.find(std::string("`") + metric)) << metric;
}

TEST_F(ControlHost, TheOsAgentRefusesItsOwnStopAndStartAndOnceUnmanagedNoAgentMayBeManaged) {
  withRunningAgent();
  startHost();
  EXPECT_EQ(json({{"agent", "Embedding host"},
                  {"command", "stop"},
                  {"code", 203},
                  {"meaning", "it is the OS agent, which cannot stop itself"}}),
            post("/v1/agents/Embedding%20host/stop"));
  EXPECT_EQ(json({{"agent", "Embedding host"},
                  {"command", "start"},
                  {"code", 103},
                  {"meaning", "it is the OS agent, which cannot start itself"}}),
            post("/v1/agents/Embedding%20host/start"));
  EXPECT_EQ(
      json({{"agent", "Embedding host"}, {"command", "unmanage"}, {"code", 0}, {"meaning", "accepted"}}),
      post("/v1/agents/Embedding%20host/unmanage"));
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["managed"] == "unmanaged"; }, 10000))
      << host->out();
  EXPECT_EQ(json({{"agent", kAgent},
                  {"command", "manage"},
                  {"code", 404},
                  {"meaning", "the OS agent is unmanaged, so no agent may be managed"}}),
            post("/v1/agents/Controlled%20program/manage"));
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, WhileItsStartScriptRunsTheAgentRefusesStartRecycleAndResetWithTheirBusyCodes) {
  withRunningAgent();
  startHost();
  ASSERT_EQ(0, post("/v1/agents/Controlled%20program/stop")["code"]);
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["state_code"] == 5; }, 15000)) << host->out();
  start.hang(kProgram, 30);
  ASSERT_EQ(0, post("/v1/agents/Controlled%20program/start")["code"]);
  ASSERT_TRUE(qortest::waitFor([&] { return start.hanging(kProgram); }, 10000));
  EXPECT_EQ("starting", listed(kAgent)["state"]);
  EXPECT_EQ(json({{"agent", kAgent},
                  {"command", "start"},
                  {"code", 101},
                  {"meaning", "agent is starting or stopping"}}),
            post("/v1/agents/Controlled%20program/start"));
  EXPECT_EQ(json({{"agent", kAgent},
                  {"command", "recycle"},
                  {"code", 301},
                  {"meaning", "agent is starting or stopping"}}),
            post("/v1/agents/Controlled%20program/recycle"));
  EXPECT_EQ(json({{"agent", kAgent},
                  {"command", "reset"},
                  {"code", 602},
                  {"meaning", "agent is starting or stopping"}}),
            post("/v1/agents/Controlled%20program/reset"));
  start.release(kProgram);
  EXPECT_EQ(0, stopHost());
}
