#include "qorstatusfmt.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "qorcommands.h"

namespace {

using qorfmt::Json;

Json agent(const std::string& name, const std::string& state, int code, Json pid, Json uptime, int restarts,
           int max, bool gaveUp) {
  Json object;
  object["name"] = name;
  object["state"] = state;
  object["state_code"] = code;
  object["pid"] = pid;
  object["uptime_seconds"] = uptime;
  object["max_restarts"] = max;
  object["restarts_today"] = restarts;
  object["gave_up"] = gaveUp;
  return object;
}

TEST(QorStatusFormat, UptimeShowsDaysOnlyFromOneDayOn) {
  EXPECT_EQ("00:00:00", qorfmt::uptime(Json(0)));
  EXPECT_EQ("00:00:59", qorfmt::uptime(Json(59)));
  EXPECT_EQ("04:05:06", qorfmt::uptime(Json(4 * 3600 + 5 * 60 + 6)));
  EXPECT_EQ("23:59:59", qorfmt::uptime(Json(86399)));
  EXPECT_EQ("1d 00:00:00", qorfmt::uptime(Json(86400)));
  EXPECT_EQ("3d 04:05:06", qorfmt::uptime(Json(3 * 86400 + 4 * 3600 + 5 * 60 + 6)));
  EXPECT_EQ("400d 00:00:01", qorfmt::uptime(Json(400LL * 86400 + 1)));
}

TEST(QorStatusFormat, UptimeIsADashWhenUnknown) {
  EXPECT_EQ("-", qorfmt::uptime(Json()));
  EXPECT_EQ("-", qorfmt::uptime(Json(-5)));
  EXPECT_EQ("-", qorfmt::uptime(Json("12")));
}

TEST(QorStatusFormat, StatusLinesAlignNameAndStateColumns) {
  Json agents = Json::array();
  agents.push_back(agent("Example sleeper", "running", 4, 4711, 3 * 86400 + 14706, 1, 3, false));
  agents.push_back(agent("db", "down", 2, 0, nullptr, 3, 3, true));
  agents.push_back(agent("Example watched", "not_configured", 7, nullptr, nullptr, 0, 0, false));
  const std::vector<std::string> lines = qorfmt::statusLines(agents, false);
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("Example sleeper  running         pid 4711, uptime 3d 04:05:06, restarts 1/3", lines[0]);
  EXPECT_EQ("db               down            pid -, uptime -, restarts 3/3, GAVE UP", lines[1]);
  EXPECT_EQ("Example watched  not_configured  pid -, uptime -, restarts 0/0", lines[2]);
}

TEST(QorStatusFormat, StatusColumnsCountCharactersNotBytes) {
  Json agents = Json::array();
  agents.push_back(agent("Agent \xc3\xa9t\xc3\xa9", "running", 4, 10, 5, 0, 3, false));
  agents.push_back(agent("Agent summer", "running", 4, 11, 6, 0, 3, false));
  const std::vector<std::string> lines = qorfmt::statusLines(agents, false);
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("Agent \xc3\xa9t\xc3\xa9     running  pid 10, uptime 00:00:05, restarts 0/3", lines[0]);
  EXPECT_EQ("Agent summer  running  pid 11, uptime 00:00:06, restarts 0/3", lines[1]);
}

TEST(QorStatusFormat, ColourPaintsTheStateWordAndGaveUpButNotThePadding) {
  Json agents = Json::array();
  agents.push_back(agent("a", "running", 4, 1, 1, 0, 3, false));
  agents.push_back(agent("b", "down", 2, 0, nullptr, 3, 3, true));
  agents.push_back(agent("c", "stopped", 5, 0, nullptr, 0, 3, false));
  agents.push_back(agent("d", "not_found", 1, 0, nullptr, 0, 3, false));
  const std::vector<std::string> lines = qorfmt::statusLines(agents, true);
  ASSERT_EQ(4u, lines.size());
  EXPECT_EQ("a  \033[32mrunning\033[0m    pid 1, uptime 00:00:01, restarts 0/3", lines[0]);
  EXPECT_EQ("b  \033[31mdown\033[0m       pid -, uptime -, restarts 3/3, \033[31mGAVE UP\033[0m", lines[1]);
  EXPECT_EQ("c  \033[33mstopped\033[0m    pid -, uptime -, restarts 0/3", lines[2]);
  EXPECT_EQ("d  \033[31mnot_found\033[0m  pid -, uptime -, restarts 0/3", lines[3]);
}

TEST(QorStatusFormat, MissingFieldsShowAsUnknownInsteadOfFailing) {
  Json agents = Json::array();
  agents.push_back(Json::object());
  agents.push_back(Json("not an agent"));
  const std::vector<std::string> lines = qorfmt::statusLines(agents, false);
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("?  ?  pid -, uptime -, restarts ?/?", lines[0]);
  EXPECT_EQ("?  ?  pid -, uptime -, restarts ?/?", lines[1]);
  EXPECT_TRUE(qorfmt::statusLines(Json::object(), false).empty());
}

TEST(QorStatusFormat, StatusExitsZeroOnlyWhenEveryShownAgentRuns) {
  Json agents = Json::array();
  EXPECT_EQ(0, qorfmt::statusExitCode(agents));
  agents.push_back(agent("a", "running", 4, 1, 1, 0, 3, false));
  EXPECT_EQ(0, qorfmt::statusExitCode(agents));
  agents.push_back(agent("b", "starting", 3, 2, 1, 0, 3, false));
  EXPECT_EQ(3, qorfmt::statusExitCode(agents));
  agents[1]["state_code"] = 4;
  EXPECT_EQ(0, qorfmt::statusExitCode(agents));
  agents[1].erase("state_code");
  EXPECT_EQ(3, qorfmt::statusExitCode(agents));
}

TEST(QorStatusFormat, ShowPrintsEveryKeyInTheApisOrder) {
  const Json object = Json::parse(
      R"({"name":"Example sleeper","subagent_id":"example.sleeper","state_code":4,"gave_up":false,)"
      R"("last_check":null,"cpu_percent":1.5,"command_line":"sleep\n2","dependencies":["a","b"]})");
  const std::vector<std::string> lines = qorfmt::showLines(object);
  const std::vector<std::string> expected = {"name=Example sleeper",
                                             "subagent_id=example.sleeper",
                                             "state_code=4",
                                             "gave_up=false",
                                             "last_check=",
                                             "cpu_percent=1.5",
                                             "command_line=sleep\\n2",
                                             "dependencies=[\"a\",\"b\"]"};
  EXPECT_EQ(expected, lines);
}

TEST(QorStatusFormat, ACommandsAnswerHasTheFormOfQorhostsOwnAnswers) {
  const Json reply =
      Json::parse(R"({"agent":"Example sleeper","command":"recycle","code":0,"meaning":"accepted"})");
  EXPECT_EQ("recycle 'Example sleeper': 0 (accepted)", qorfmt::commandLine(reply));
  const qorcmd::Command* stop = qorcmd::find("stop");
  ASSERT_NE(nullptr, stop);
  const Json refused = Json::parse(R"({"agent":"x","command":"stop","code":202,"meaning":")" +
                                   qorcmd::meaning(*stop, 202) + "\"}");
  EXPECT_EQ(qorcmd::answer(*stop, "x", 202), qorfmt::commandLine(refused));
  EXPECT_EQ("stop 'x': 202 (no such agent)", qorfmt::commandLine(refused));
}

class QorEventFormat : public ::testing::Test {
 protected:
  QorEventFormat() {
    const char* zone = std::getenv("TZ");
    if (zone != nullptr) saved_ = zone;
    hadZone_ = zone != nullptr;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  ~QorEventFormat() override {
    if (hadZone_) {
      setenv("TZ", saved_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::string saved_;
  bool hadZone_ = false;
};

TEST_F(QorEventFormat, AnEventShowsTimeIdAgentAndText) {
  const Json event = Json::parse(
      R"({"seq":7,"time":1795412401,"id":3,"agent":"Example sleeper","text":"Agent started successfully.","alert":false})");
  EXPECT_EQ("2026-11-23 05:40:01  [ 3]  Example sleeper  Agent started successfully.",
            qorfmt::eventLine(event));
}

TEST_F(QorEventFormat, AnAlertIsMarkedAndAnEventOfNoAgentShowsADash) {
  const Json alert = Json::parse(
      R"({"seq":8,"time":1795412402,"id":12,"agent":"db","text":"Agent stopped abnormally.","alert":true})");
  EXPECT_EQ("2026-11-23 05:40:02  [12]  db  ALERT Agent stopped abnormally.", qorfmt::eventLine(alert));
  const Json general =
      Json::parse(R"({"seq":9,"time":0,"id":18,"agent":"","text":"Watchdog disarmed.","alert":false})");
  EXPECT_EQ("1970-01-01 00:00:00  [18]  -  Watchdog disarmed.", qorfmt::eventLine(general));
}

TEST(QorPathSegment, EncodesEverythingButLettersDigitsAndDashUnderscoreTilde) {
  EXPECT_EQ("Example%20sleeper", qorfmt::pathSegment("Example sleeper"));
  EXPECT_EQ("a%2Fb%25c", qorfmt::pathSegment("a/b%c"));
  EXPECT_EQ("%2E%2E", qorfmt::pathSegment(".."));
  EXPECT_EQ("x-y_z~1", qorfmt::pathSegment("x-y_z~1"));
  EXPECT_EQ("%C3%A9", qorfmt::pathSegment("\xc3\xa9"));
}

}  // namespace
