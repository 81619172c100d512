#include "qorstatusfmt.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace qorfmt {

namespace {

const char kGreen[] = "\033[32m";
const char kRed[] = "\033[31m";
const char kYellow[] = "\033[33m";
const char kReset[] = "\033[0m";

// A member of an object, whatever qorhost sent: a field that is missing or of
// another type is shown as unknown rather than ending the program.
std::string text(const Json& object, const char* key, const std::string& absent = "?") {
  if (!object.is_object()) return absent;
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : absent;
}

bool hasNumber(const Json& object, const char* key) {
  if (!object.is_object()) return false;
  const auto found = object.find(key);
  return found != object.end() && found->is_number();
}

long long number(const Json& object, const char* key, long long absent) {
  return hasNumber(object, key) ? object.at(key).get<long long>() : absent;
}

bool flag(const Json& object, const char* key) {
  if (!object.is_object()) return false;
  const auto found = object.find(key);
  return found != object.end() && found->is_boolean() && found->get<bool>();
}

// Characters of UTF-8 text: the bytes that do not continue a character.
size_t width(const std::string& utf8) {
  size_t count = 0;
  for (unsigned char byte : utf8) count += (byte & 0xC0) != 0x80;
  return count;
}

std::string padded(const std::string& utf8, size_t columns) {
  const size_t have = width(utf8);
  return have >= columns ? utf8 : utf8 + std::string(columns - have, ' ');
}

const char* stateColour(long long code) {
  if (code == kRunningState) return kGreen;
  // not_found and down: the agent should run and does not.
  if (code == 1 || code == 2) return kRed;
  return kYellow;
}

std::string pid(const Json& agent) {
  const long long value = number(agent, "pid", 0);
  return value > 0 ? std::to_string(value) : "-";
}

// The part after the state: "pid P, uptime U, restarts C/M[, GAVE UP]".
std::string details(const Json& agent, bool colour) {
  const std::string restarts =
      (hasNumber(agent, "restarts_today") ? std::to_string(number(agent, "restarts_today", 0)) : "?") + "/" +
      (hasNumber(agent, "max_restarts") ? std::to_string(number(agent, "max_restarts", 0)) : "?");
  std::string line =
      "pid " + pid(agent) + ", uptime " +
      uptime(agent.is_object() && agent.contains("uptime_seconds") ? agent.at("uptime_seconds") : Json()) +
      ", restarts " + restarts;
  if (flag(agent, "gave_up")) line += colour ? std::string(", ") + kRed + "GAVE UP" + kReset : ", GAVE UP";
  return line;
}

std::string escaped(const std::string& value) {
  std::string result;
  for (char c : value) {
    if (c == '\n') {
      result += "\\n";
    } else if (c == '\r') {
      result += "\\r";
    } else {
      result += c;
    }
  }
  return result;
}

std::string localTime(long long epoch) {
  const time_t when = static_cast<time_t>(epoch);
  struct tm local;
  if (localtime_r(&when, &local) == nullptr) return std::to_string(epoch);
  char buffer[32];
  strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local);
  return buffer;
}

}  // namespace

std::string uptime(const Json& seconds) {
  if (!seconds.is_number()) return "-";
  const long long total = seconds.get<long long>();
  if (total < 0) return "-";
  const long long days = total / 86400;
  char clock[32];
  std::snprintf(clock, sizeof clock, "%02lld:%02lld:%02lld", total % 86400 / 3600, total % 3600 / 60,
                total % 60);
  return days > 0 ? std::to_string(days) + "d " + clock : clock;
}

std::vector<std::string> statusLines(const Json& agents, bool colour) {
  std::vector<std::string> lines;
  if (!agents.is_array()) return lines;
  size_t nameWidth = 0;
  size_t stateWidth = 0;
  for (const Json& agent : agents) {
    nameWidth = std::max(nameWidth, width(text(agent, "name")));
    stateWidth = std::max(stateWidth, width(text(agent, "state")));
  }
  for (const Json& agent : agents) {
    const std::string state = text(agent, "state");
    std::string stateColumn = padded(state, stateWidth);
    if (colour) {
      stateColumn =
          stateColour(number(agent, "state_code", 0)) + state + kReset + stateColumn.substr(state.size());
    }
    lines.push_back(padded(text(agent, "name"), nameWidth) + "  " + stateColumn + "  " +
                    details(agent, colour));
  }
  return lines;
}

int statusExitCode(const Json& agents) {
  if (!agents.is_array()) return 3;
  for (const Json& agent : agents) {
    if (number(agent, "state_code", -1) != kRunningState) return 3;
  }
  return 0;
}

std::vector<std::string> showLines(const Json& agent) {
  std::vector<std::string> lines;
  if (!agent.is_object()) return lines;
  for (auto item = agent.begin(); item != agent.end(); ++item) {
    const Json& value = item.value();
    std::string shown;
    if (value.is_string()) {
      shown = escaped(value.get<std::string>());
    } else if (!value.is_null()) {
      // Replacing bad UTF-8 keeps dump() from throwing on a string nested in
      // an array.
      shown = value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    }
    lines.push_back(item.key() + "=" + shown);
  }
  return lines;
}

std::string commandLine(const Json& reply) {
  const std::string code = hasNumber(reply, "code") ? std::to_string(number(reply, "code", 0)) : "?";
  return text(reply, "command") + " '" + text(reply, "agent") + "': " + code + " (" + text(reply, "meaning") +
         ")";
}

std::string eventLine(const Json& event) {
  char id[16];
  std::snprintf(id, sizeof id, "[%2lld]", number(event, "id", 0));
  std::string agent = text(event, "agent", "");
  if (agent.empty()) agent = "-";
  const std::string time = hasNumber(event, "time") ? localTime(number(event, "time", 0)) : "?";
  return time + "  " + id + "  " + agent + "  " + (flag(event, "alert") ? "ALERT " : "") +
         escaped(text(event, "text", ""));
}

std::string pathSegment(const std::string& name) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string result;
  for (unsigned char c : name) {
    const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                            c == '-' || c == '_' || c == '~';
    if (unreserved) {
      result += static_cast<char>(c);
    } else {
      result += '%';
      result += kHex[c >> 4];
      result += kHex[c & 15];
    }
  }
  return result;
}

}  // namespace qorfmt
