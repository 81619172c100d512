#include "qorcommands.h"

#include <cstdlib>
#include <string>
#include <vector>

#include "qorapi.h"

namespace qorcmd {

namespace {

// Every agent found by the lookups below may be any of the agent's instances;
// the service decides on the first (start, recycle, reset) or on all (stop).
constexpr int kAnyPid = -1;

int stopCall(QOR_QueryService& service, const Target& target) {
  return service.stopAgent(target.name, target.process, kAnyPid);
}
int startCall(QOR_QueryService& service, const Target& target) {
  // An operator's start leaves the daily count alone: `reset` does that, and
  // says so with its own event.
  return service.startAgent(target.name, false, target.process, std::wstring());
}
int recycleCall(QOR_QueryService& service, const Target& target) {
  return service.recycleAgent(target.name, target.process, std::wstring(), kAnyPid);
}
int resetCall(QOR_QueryService& service, const Target& target) {
  return service.resetRestartCount(target.name, target.process, std::wstring());
}
int manageCall(QOR_QueryService& service, const Target& target) {
  return service.startManagingAgent(target.name);
}
int unmanageCall(QOR_QueryService& service, const Target& target) {
  return service.stopManagingAgent(target.name);
}
// Disarm and rearm give no result of their own: once the service runs they
// always take effect, and the event that follows (18 or 19) says so. Before
// the start there are no queues for that event, so they are refused as the
// other commands are.
int disarmCall(QOR_QueryService& /*service*/, const Target& /*target*/) {
  if (!QOR_QueryService::isStarted()) return -1;
  DisarmWatchdog(0);
  return 0;
}
int rearmCall(QOR_QueryService& /*service*/, const Target& /*target*/) {
  if (!QOR_QueryService::isStarted()) return -1;
  RearmWatchdog(0);
  return 0;
}

// The wrappers answer -1 before the service has started as well, so each -1
// names both of its causes.
const char kNotStarted[] = "the service is not started";

const std::vector<Command>& table() {
  static const std::vector<Command> kCommands = {
      {"stop",
       "NAME",
       "stop the agent by its stop script; it stays down until started",
       stopCall,
       {{0, "accepted"},
        {200, "agent not managed"},
        {201, "agent is starting, stopping or already stopped by an operator"},
        {202, "no such agent"},
        {203, "it is the OS agent, which cannot stop itself"},
        {-1, kNotStarted}}},
      {"start",
       "NAME",
       "start the agent by its start script",
       startCall,
       {{0, "accepted"},
        {100, "agent not managed"},
        {101, "agent is starting or stopping"},
        {102, "no such agent"},
        {103, "it is the OS agent, which cannot start itself"},
        {-1, kNotStarted}}},
      {"recycle",
       "NAME",
       "stop the agent and start it again",
       recycleCall,
       {{0, "accepted"},
        {300, "agent not managed, or the OS agent not managed"},
        {301, "agent is starting or stopping"},
        {302, "no such agent"},
        {-1, "the watchdog process refused or could not be reached, or the service is not started"}}},
      {"reset",
       "NAME",
       "set the agent's restarts today back to 0, so that it is restarted again",
       resetCall,
       {{0, "accepted"},
        {600, "agent not managed, or the OS agent not managed"},
        {601, "no such agent"},
        {602, "agent is starting or stopping"},
        {603, "the restart count is already 0"},
        {-1,
         "the agent list could not be locked or the watchdog process refused, or the service is not "
         "started"}}},
      {"manage",
       "NAME",
       "take the agent into management: checked and restarted",
       manageCall,
       {{0, "accepted"},
        {401, "no such agent"},
        {404, "the OS agent is unmanaged, so no agent may be managed"},
        {-1,
         "the discovery lock could not be had, or the OS agent may never be managed, or the service is "
         "not started"}}},
      {"unmanage",
       "NAME",
       "take the agent out of management: no longer checked or restarted",
       unmanageCall,
       {{0, "accepted"},
        {500, "agent not managed, or the OS agent not managed"},
        {501, "no such agent"},
        {-1, kNotStarted}}},
      {"disarm",
       "",
       "disarm the service: agents found down are no longer restarted",
       disarmCall,
       {{0, "accepted"}, {-1, kNotStarted}}},
      {"rearm",
       "",
       "rearm the service: agents found down are restarted again",
       rearmCall,
       {{0, "accepted"}, {-1, kNotStarted}}},
      {"list", "", "list the agents, as SIGUSR1 does", nullptr, {}},
      {"help", "", "list these commands", nullptr, {}},
  };
  return kCommands;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string trim(const std::string& text) {
  size_t begin = 0;
  while (begin < text.size() && isBlank(text[begin])) ++begin;
  size_t end = text.size();
  while (end > begin && isBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

std::string narrow(const std::wstring& text) {
  char* converted = QOR_wcstombs(text);
  std::string result(converted ? converted : "");
  delete[] converted;
  return result;
}

std::wstring wide(const std::string& text) {
  wchar_t* converted = QOR_u_strFromUTF8(text.c_str());
  std::wstring result(converted ? converted : L"");
  delete[] converted;
  return result;
}

// "stop NAME | start NAME | ... | help", the words of every command.
std::string synopsis() {
  std::string text;
  for (const Command& command : table()) {
    if (!text.empty()) text += " | ";
    text += command.word;
    if (*command.argument) text += std::string(" ") + command.argument;
  }
  return text;
}

}  // namespace

const std::vector<Command>& commands() { return table(); }

const Command* find(const std::string& word) {
  for (const Command& command : table()) {
    if (word == command.word) return &command;
  }
  return nullptr;
}

std::string meaning(const Command& command, int code) {
  for (const Meaning& entry : command.meanings) {
    if (entry.code == code) return entry.text;
  }
  return "unknown result";
}

Line parse(const std::string& text) {
  Line line;
  const std::string trimmed = trim(text);
  if (trimmed.empty()) return line;
  size_t end = 0;
  while (end < trimmed.size() && !isBlank(trimmed[end])) ++end;
  line.word = trimmed.substr(0, end);
  line.name = trim(trimmed.substr(end));
  line.command = find(line.word);
  if (line.command == nullptr) {
    line.kind = Line::Kind::Unknown;
  } else if (*line.command->argument && line.name.empty()) {
    line.kind = Line::Kind::MissingName;
  } else {
    line.kind = Line::Kind::Run;
  }
  return line;
}

std::string answer(const Command& command, const std::string& name, int code) {
  // A command that takes no name has none to repeat.
  const std::string subject = *command.argument ? " '" + name + "'" : "";
  return std::string(command.word) + subject + ": " + std::to_string(code) + " (" + meaning(command, code) +
         ")";
}

std::string hint(const Line& line) {
  if (line.kind == Line::Kind::MissingName) {
    return std::string(line.command->word) +
           " needs the agent's name as the listing shows it: " + line.command->word + " " +
           line.command->argument;
  }
  return "unknown command '" + line.word + "'; one of: " + synopsis();
}

std::string help() {
  std::string text;
  for (const Command& command : table()) {
    std::string usage = std::string(command.word) + (*command.argument ? " " : "") + command.argument;
    usage.resize(usage.size() < 16 ? 16 : usage.size() + 1, ' ');
    text += "  " + usage + command.summary + "\n";
  }
  return text;
}

Target lookup(QOR_QueryService& service, const std::string& name) {
  Target target;
  target.name = wide(name);
  target.process = target.name;
  QOR_AgentIterator* agents = service.getAgentIterator(false);
  if (agents == nullptr) return target;
  while (!target.listed && agents->getNextAgentEntry()) {
    if (narrow(agents->getAgentName()) != name) continue;
    target.listed = true;
    target.name = agents->getAgentName();
    target.process = agents->getInstanceProcessName();
    if (target.process.empty()) target.process = agents->getProcessName();
  }
  service.releaseAgentIterator(agents);
  return target;
}

int run(QOR_QueryService& service, const Command& command, const std::string& name) {
  if (command.call == nullptr) return -1;
  if (!*command.argument) return command.call(service, Target());
  return command.call(service, lookup(service, name));
}

std::string controlSocketPath(const std::string& given) {
  if (!given.empty()) return given;
  const char* ipDir = std::getenv("QOR_IP_DIR");
  if (ipDir == nullptr || *ipDir == '\0') return std::string();
  return std::string(ipDir) + "/qorhost.sock";
}

}  // namespace qorcmd
