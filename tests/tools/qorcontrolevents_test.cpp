// The events and the metrics of a real qorhost through its control socket:
// what the listeners heard, in order and numbered, the alerts marked, and the
// metrics text that promtool accepts.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <string>
#include <vector>

#include "tools/controlhost.h"

namespace {

using controltest::ControlHost;
using controltest::json;

// The events of `agent` in a GET /v1/events answer, as "ID TEXT" lines.
std::vector<std::string> eventsOf(const json& answer, const std::string& agent) {
  std::vector<std::string> lines;
  for (const json& event : answer["events"]) {
    if (event["agent"] == agent)
      lines.push_back(std::to_string(event["id"].get<int>()) + " " + event["text"].get<std::string>());
  }
  return lines;
}

// The metrics text qorhost serves on `socket`.
std::string metricsOn(const std::string& socket) {
  return qortest::runProgram({"/usr/bin/curl", "-s", "--unix-socket", socket, "http://localhost/metrics"})
      .out;
}

// What `promtool check metrics` says of `metrics`, kept in `file`: its exit
// status and everything it printed.
qortest::RunResult promtoolCheck(const std::string& metrics, const std::string& file) {
  qortest::writeFile(file, metrics);
  return qortest::runProgram({"/bin/sh", "-c", "promtool check metrics < '" + file + "'"});
}

}  // namespace

TEST_F(ControlHost, EventsAreNumberedInOrderAndSinceGivesOnlyTheNewerOnes) {
  withRunningAgent();
  const long before = static_cast<long>(time(nullptr));
  startHost();
  json first = getJson("/v1/events");
  EXPECT_EQ(std::vector<std::string>({"events", "last"}),
            std::vector<std::string>({first.begin().key(), std::next(first.begin()).key()}));
  ASSERT_FALSE(first["events"].empty());
  uint64_t seq = 0;
  for (const json& event : first["events"]) {
    EXPECT_EQ(std::vector<std::string>({"seq", "time", "id", "agent", "text", "alert"}), [&] {
      std::vector<std::string> keys;
      for (auto it = event.begin(); it != event.end(); ++it) keys.push_back(it.key());
      return keys;
    }());
    EXPECT_EQ(++seq, event["seq"].get<uint64_t>());
    EXPECT_GE(event["time"].get<long>(), before);
  }
  const uint64_t last = first["last"].get<uint64_t>();
  EXPECT_EQ(seq, last);

  ASSERT_EQ(0, post("/v1/agents/Controlled%20program/stop")["code"]);
  // qorhost prints an event before the ring hears it (the printing listener
  // is registered first), so the wait is on the ring itself.
  json newer;
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        newer = getJson("/v1/events?since=" + std::to_string(last));
        return eventsOf(newer, kAgent).size() >= 2;
      },
      15000))
      << host->out();
  ASSERT_FALSE(newer["events"].empty());
  EXPECT_EQ(last + 1, newer["events"][0]["seq"].get<uint64_t>());
  EXPECT_EQ((std::vector<std::string>{
                "4 Controlled program Operational Event: Agent stop command received.",
                "10 Controlled program Operational Event: Agent stopped successfully.",
            }),
            eventsOf(newer, kAgent));
  EXPECT_FALSE(newer["events"][0]["alert"].get<bool>());
  // A follower that asks again with the newest number gets nothing new.
  json none = getJson("/v1/events?since=" + std::to_string(newer["last"].get<uint64_t>()));
  EXPECT_TRUE(none["events"].empty());
  EXPECT_EQ(newer["last"], none["last"]);
  // since=0 is all of them.
  EXPECT_EQ(getJson("/v1/events")["events"], getJson("/v1/events?since=0")["events"]);
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, AnAgentThatDiesIsOneEventMarkedAsAnAlertWithItsAgent) {
  withRunningAgent();
  startHost();
  // Not restarted, so that the death is the last of its story.
  start.failNext(kProgram, 10);
  ASSERT_EQ(0, kill(pid, SIGKILL));
  ASSERT_TRUE(host->waitForOutput("ALERT agent 'Controlled program'", 20000)) << host->out();
  json all;
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        all = getJson("/v1/events");
        for (const json& event : all["events"]) {
          if (event["alert"] == true) return true;
        }
        return false;
      },
      5000));
  int alerts = 0;
  for (const json& event : all["events"]) {
    if (event["alert"] != true) continue;
    ++alerts;
    EXPECT_EQ(kAgent, event["agent"]);
    // The text is the log text of the same event, not a second entry.
    EXPECT_EQ(0u, event["text"].get<std::string>().rfind("Controlled program Operational Event: ", 0));
    EXPECT_NE(std::string::npos, host->out().find("[" + std::string(event["id"].get<int>() < 10 ? " " : "") +
                                                  std::to_string(event["id"].get<int>()) +
                                                  "] ALERT agent 'Controlled program'"));
  }
  EXPECT_GE(alerts, 1);
  // Each alert qorhost printed is one event of the ring, marked, not a second entry.
  auto ringAlerts = [&] {
    int count = 0;
    const json answer = getJson("/v1/events");
    for (const json& event : answer["events"]) count += event["alert"] == true ? 1 : 0;
    return count;
  };
  auto printedAlerts = [&] {
    return static_cast<int>(qortest::linesWith(host->out(), "] ALERT agent ").size());
  };
  EXPECT_TRUE(qortest::waitFor([&] { return ringAlerts() == printedAlerts(); }, 5000))
      << ringAlerts() << " vs " << printedAlerts() << "\n"
      << host->out();
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, MetricsPassPromtoolAndGiveTheAgentsFigures) {
  withRunningAgent();
  startHost();
  ASSERT_TRUE(qortest::waitFor([&] { return listed(kAgent)["last_check"].is_number(); }, 15000));
  const std::string metrics = metricsOn(socketPath());
  ASSERT_NE(std::string::npos, metrics.find("qor_agent_up{")) << metrics;
  qortest::RunResult check = promtoolCheck(metrics, work.file("metrics.txt"));
  EXPECT_EQ(0, check.exitCode) << check.out << check.err << metrics;
  EXPECT_EQ("", check.out + check.err);

  const json agent = listed(kAgent);
  const std::string labels =
      "{agent=\"Controlled program\",subagent_id=\"ctl.agent\",instance=\"qorctlhttpd\"}";
  EXPECT_NE(std::string::npos, metrics.find("# TYPE qor_agent_up gauge\nqor_agent_up" + labels + " 1\n"))
      << metrics;
  EXPECT_NE(std::string::npos, metrics.find("qor_agent_operating_state" + labels + " 4\n"));
  EXPECT_NE(std::string::npos, metrics.find("qor_agent_restarts_today" + labels + " 0\n"));
  EXPECT_NE(std::string::npos, metrics.find("qor_agent_max_restarts" + labels + " 3\n"));
  EXPECT_NE(std::string::npos, metrics.find("qor_agent_last_check_timestamp_seconds" + labels + " "));
  EXPECT_NE(std::string::npos, metrics.find("qor_agent_cpu_percent" + labels + " "));
  EXPECT_NE(std::string::npos, metrics.find("qor_agent_resident_bytes" + labels + " "));
  EXPECT_NE(std::string::npos, metrics.find("# TYPE qor_events_total counter\n"));
  EXPECT_NE(std::string::npos, metrics.find("qor_events_total{id=\"0\"} "));
  EXPECT_NE(
      std::string::npos,
      metrics.find("# TYPE qor_build_info gauge\nqor_build_info{version=\"" QOR_TEST_VERSION "\"} 1\n"));
  // One figure without labels: whole bytes, and more than nothing, since a
  // running service always holds its agents' records.
  EXPECT_TRUE(std::regex_search(
      metrics, std::regex("\n# TYPE qor_heap_in_use_bytes gauge\nqor_heap_in_use_bytes [1-9][0-9]*\n")))
      << metrics;
  for (const char* name :
       {"qor_agent_up", "qor_agent_operating_state", "qor_agent_restarts_today", "qor_agent_max_restarts",
        "qor_agent_last_check_timestamp_seconds", "qor_agent_cpu_percent", "qor_agent_resident_bytes",
        "qor_events_total", "qor_heap_in_use_bytes", "qor_build_info"})
    EXPECT_NE(std::string::npos, metrics.find(std::string("# HELP ") + name + " ")) << name;
  EXPECT_EQ(0, stopHost());
}

TEST_F(ControlHost, MetricsOfAnAgentWhoseNameNeedsEscapingStillPassPromtool) {
  captest::Subagent odd = agent();
  odd.agentName = "<agentName>Say \"hi\" \\ there</agentName>";
  pid = programs.start(kProgram);
  writeCap("agent.xml", captest::document(odd));
  startHost();
  const std::string metrics = metricsOn(socketPath());
  EXPECT_NE(
      std::string::npos,
      metrics.find("qor_agent_max_restarts{agent=\"Say \\\"hi\\\" \\\\ there\",subagent_id=\"ctl.agent\""))
      << metrics;
  ASSERT_NE(std::string::npos, metrics.find("qor_agent_up{")) << metrics;
  qortest::RunResult check = promtoolCheck(metrics, work.file("metrics.txt"));
  EXPECT_EQ(0, check.exitCode) << check.out << check.err << metrics;
  EXPECT_EQ("", check.out + check.err);
  EXPECT_EQ(0, stopHost());
}
