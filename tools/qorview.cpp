#include "qorview.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

#include "qorapi.h"
#include "qorheap.h"

#ifndef QOR_VERSION
#error "QOR_VERSION is set by the build from the project's version"
#endif

namespace qorview {

namespace {

using json = nlohmann::ordered_json;
using qorring::utf8;

// The library keeps the resident set size as /proc/PID/stat has it: pages.
long residentBytes(long pages) { return pages < 0 ? -1 : pages * sysconf(_SC_PAGESIZE); }

json lastCheck(QOR_AgentIterator& agents) {
  long when = 0;
  if (!agents.getLastHealthCheck(when) || when <= 0) return nullptr;
  return when;
}

json capFileModified(QOR_AgentIterator& agents) {
  long when = 0;
  if (!agents.getCAPFileModifyTimestamp(when)) return nullptr;
  return when;
}

json uptime(long pid) {
  const long seconds = uptimeSeconds(pid);
  if (seconds < 0) return nullptr;
  return seconds;
}

// The identity and configuration of an agent, from its CAP file.
void describe(QOR_AgentIterator& a, json& o) {
  o["name"] = utf8(a.getAgentName());
  o["subagent_id"] = utf8(a.getSubagentID());
  o["agent_type"] = a.getAgentType();
  o["process_name"] = utf8(a.getProcessName());
  o["instance_process_name"] = utf8(a.getInstanceProcessName());
  o["path"] = utf8(a.getAgentPath());
  o["manage_type"] = a.getManageType();
  o["managed"] = managedWord(a.getManagedState());
  o["managed_code"] = a.getManagedState();
  o["state"] = stateWord(a.getOperationalStatus());
  o["state_code"] = a.getOperationalStatus();
  o["start_script"] = utf8(a.getStartScript());
  o["stop_script"] = utf8(a.getStopScript());
  o["config_script"] = utf8(a.getConfigScript());
  o["status_script"] = utf8(a.getStatusScript());
  o["check_frequency"] = a.getDailyCheckFreq();
  const int maxRestarts = a.getMaxRestartsPerDay();
  const int restarts = a.getDailyRestartCount();
  o["max_restarts"] = maxRestarts;
  o["restarts_today"] = restarts;
  o["gave_up"] = maxRestarts > 0 && restarts >= maxRestarts;
  o["health_port"] = a.getAgentHealthPort();
  o["os_type"] = a.getOSType();
  o["os_version"] = utf8(a.getOSVersion());
  o["os_name"] = utf8(a.getOSName());
  o["kernel_release"] = utf8(a.getKernelRelease());
  o["dependencies"] = utf8(a.getDependencies());
  o["memory_threshold_value"] = a.getMemoryThresholdValue();
  o["memory_threshold_unit"] = a.getMemoryThresholdUnit();
  o["memory_threshold"] = a.getMemoryThreshold();
  o["cpu_threshold"] = a.getCPUThreshold();
  o["ip_address"] = utf8(a.getIPAddress());
  o["host_name"] = utf8(a.getHostName());
}

// What the last look at its process found.
void measure(QOR_AgentIterator& a, json& o) {
  const long pid = a.getProcessID();
  o["pid"] = pid;
  o["parent_pid"] = a.getParentProcessID();
  o["command_line"] = utf8(a.getCommandLine());
  o["build_date"] = utf8(a.getBuildDate());
  o["build_number"] = utf8(a.getAgentBuildNumber());
  o["version"] = utf8(a.getAgentVersion());
  o["user_cpu"] = a.getUserCPU();
  o["system_cpu"] = a.getSystemCPU();
  o["cpu_percent"] = a.getCPUUsage();
  o["page_faults"] = a.getPageFaults();
  o["threads"] = a.getThreadCount();
  o["handles"] = a.getHandleCount();
  o["service_name"] = utf8(a.getServiceName());
  o["instance_name"] = utf8(a.getZELInstanceName());
  o["working_set_size"] = a.getWorkingSetSize();
  o["resident_bytes"] = residentBytes(a.getResidentSetSize());
  o["total_memory_size"] = a.getTotalMemorySize();
  o["vm_size"] = a.getVMSize();
  o["process_user"] = utf8(a.getProcessUser());
  o["last_check"] = lastCheck(a);
  o["cap_file"] = utf8(a.getCAPFileName());
  o["cap_file_modified"] = capFileModified(a);
  o["uptime_seconds"] = uptime(pid);
}

}  // namespace

const char* stateWord(int code) {
  static const char* const kWords[] = {"unknown", "not_found", "down",     "starting",
                                       "running", "stopped",   "stopping", "not_configured"};
  return code >= 0 && code < static_cast<int>(sizeof kWords / sizeof kWords[0]) ? kWords[code] : "unknown";
}

const char* managedWord(int code) {
  switch (code) {
    case 0:
      return "unmanaged";
    case 1:
      return "managed";
    case 2:
      return "watchdog";
    default:
      return "unknown";
  }
}

json agentJson(QOR_AgentIterator& agents) {
  json o = json::object();
  describe(agents, o);
  measure(agents, o);
  return o;
}

bool allAgents(QOR_QueryService& service, json& agents) {
  QOR_AgentIterator* iterator = service.getAgentIterator(true);
  if (iterator == nullptr) return false;
  agents = json::array();
  while (iterator->getNextAgentEntry()) agents.push_back(agentJson(*iterator));
  service.releaseAgentIterator(iterator);
  return true;
}

bool agentNamed(QOR_QueryService& service, const std::string& name, json& agent) {
  QOR_AgentIterator* iterator = service.getAgentIterator(true);
  if (iterator == nullptr) return false;
  bool found = false;
  while (!found && iterator->getNextAgentEntry()) {
    if (utf8(iterator->getAgentName()) != name) continue;
    agent = agentJson(*iterator);
    found = true;
  }
  service.releaseAgentIterator(iterator);
  return found;
}

long uptimeSeconds(long pid) {
  if (pid <= 0) return -1;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return -1;
  // The command name, in parentheses, may hold blanks; the fields after it
  // are plain. The start time is field 22, the 20th after the name (the
  // state, field 3, is the first).
  const size_t close = line.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream fields(line.substr(close + 1));
  std::string field;
  for (int i = 0; i < 19 && fields >> field; ++i) {
  }
  unsigned long long startTicks = 0;
  if (!(fields >> startTicks)) return -1;
  std::ifstream uptimeFile("/proc/uptime");
  double systemUp = 0;
  if (!(uptimeFile >> systemUp)) return -1;
  const long hz = sysconf(_SC_CLK_TCK);
  const double up = systemUp - static_cast<double>(startTicks) / static_cast<double>(hz > 0 ? hz : 100);
  return up < 0 ? 0 : static_cast<long>(up);
}

std::string escapeLabel(const std::string& value) {
  std::string out;
  out.reserve(value.size());
  for (char c : value) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

namespace {

struct Series {
  std::string labels;  // {agent="...",subagent_id="...",instance="..."}
  json agent;
};

void family(std::string& text, const char* name, const char* type, const char* help) {
  text += std::string("# HELP ") + name + " " + help + "\n";
  text += std::string("# TYPE ") + name + " " + type + "\n";
}

// The gauge `name` of every agent whose field `key` is a number.
void gauge(std::string& text, const std::vector<Series>& series, const char* name, const char* help,
           const char* key) {
  family(text, name, "gauge", help);
  for (const Series& s : series) {
    const json& value = s.agent[key];
    if (value.is_number()) text += std::string(name) + s.labels + " " + value.dump() + "\n";
  }
}

// The instance label: the suite's instance name when the agent has one,
// otherwise the name of its instance's process, so that the instances of one
// agent, which share name and id, still make series of their own.
std::string instanceLabel(const json& agent) {
  const std::string instance = agent["instance_name"].get<std::string>();
  return instance.empty() ? agent["instance_process_name"].get<std::string>() : instance;
}

}  // namespace

bool metricsText(QOR_QueryService& service, const qorring::EventRing& ring, std::string& text) {
  // Taken before this answer is built, so that it counts what the program
  // holds and not the answer's own text.
  std::uint64_t heapBytes = 0;
  const bool heapKnown = qorheap::inUseBytes(heapBytes);
  json agents;
  if (!allAgents(service, agents)) return false;
  std::vector<Series> series;
  for (json& agent : agents) {
    Series s;
    s.labels = "{agent=\"" + escapeLabel(agent["name"].get<std::string>()) + "\",subagent_id=\"" +
               escapeLabel(agent["subagent_id"].get<std::string>()) + "\",instance=\"" +
               escapeLabel(instanceLabel(agent)) + "\"}";
    agent["up"] = agent["state_code"].get<int>() == 4 ? 1 : 0;
    s.agent = std::move(agent);
    series.push_back(std::move(s));
  }
  text.clear();
  gauge(text, series, "qor_agent_up", "Whether the agent's process runs (1) or not (0).", "up");
  gauge(text, series, "qor_agent_operating_state",
        "Operating state: 0 unknown, 1 not found, 2 down, 3 starting, 4 running, 5 stopped, 6 stopping, "
        "7 not configured.",
        "state_code");
  gauge(text, series, "qor_agent_restarts_today", "Restarts of the agent today.", "restarts_today");
  gauge(text, series, "qor_agent_max_restarts", "Restarts allowed a day; 0 means none.", "max_restarts");
  gauge(text, series, "qor_agent_last_check_timestamp_seconds",
        "When the agent was last checked, in seconds since the epoch.", "last_check");
  gauge(text, series, "qor_agent_cpu_percent", "CPU use of the agent's process, in percent.", "cpu_percent");
  gauge(text, series, "qor_agent_resident_bytes", "Resident memory of the agent's process, in bytes.",
        "resident_bytes");
  family(text, "qor_events_total", "counter", "Events heard by qorhost, by event id.");
  for (const auto& count : ring.counts())
    text +=
        "qor_events_total{id=\"" + std::to_string(count.first) + "\"} " + std::to_string(count.second) + "\n";
  if (heapKnown) {
    family(text, "qor_heap_in_use_bytes", "gauge",
           "Bytes that qorhost's heap allocations hold now, as its allocator counts them.");
    text += "qor_heap_in_use_bytes " + std::to_string(heapBytes) + "\n";
  }
  family(text, "qor_build_info", "gauge", "The version of qorhost; always 1.");
  text += "qor_build_info{version=\"" + escapeLabel(QOR_VERSION) + "\"} 1\n";
  return true;
}

}  // namespace qorview
