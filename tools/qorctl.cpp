// qorctl: the command-line companion of qor for the people who run a host.
// `qorctl validate` reads CAP files exactly as the service does and says, for
// each, which subagent the service would take, or what is wrong and where.
// `qorctl notify` tells the running service over its socket that an agent is
// being started or stopped by somebody else, has come up or gone down, or is
// to be recycled, and says what the service answered. `status`, `show`,
// `events` and the agent commands ask qorhost over its control socket.
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "cap/qorconv.h"
#include "cap/qorxmlproc.h"
#include "core/qorutil.h"
#include "interfaces/qorsockclient.h"
#include "platform/log1.h"
#include "qorcommands.h"
#include "qorctlhttp.h"
#include "qorstatusfmt.h"

namespace {

// The codes listed here are the XML result codes of cap/qorxml.h.
const char kUsage[] =
    "Usage: qorctl COMMAND [ARGS] [--socket PATH]\n"
    "\n"
    "Commands:\n"
    "  status [NAME...] [--json]\n"
    "                          the agents qorhost supervises, one line each\n"
    "  show NAME               every field of one agent, as key=value lines\n"
    "  stop|start|recycle|reset|manage|unmanage NAME\n"
    "                          one of qorhost's commands, for one agent\n"
    "  events [-f]             the latest events qorhost heard; -f follows them\n"
    "  validate [-q] FILE...   check CAP files the way the service reads them\n"
    "  notify STATE [-o INSTANCE] PRODUCT_CODE [--ip-dir DIR]\n"
    "                          tell the running service about an agent\n"
    "  help                    this text (also -h and --help)\n"
    "\n"
    "Finding qorhost\n"
    "  status, show, events and the agent commands talk HTTP to qorhost's\n"
    "  control socket: PATH of --socket PATH (or --socket=PATH, anywhere on the\n"
    "  line), else $QOR_IP_DIR/qorhost.sock. The socket lets in only the user\n"
    "  and the group of qorhost's process. When it cannot be reached, one line\n"
    "  on standard error says why and what to do, and the exit status is 4:\n"
    "    qorctl: permission denied on PATH: run qorctl as the service's user\n"
    "      or a member of its group\n"
    "    qorctl: there is no socket PATH: is qorhost running? start it, or\n"
    "      give --socket\n"
    "    qorctl: nobody accepts connections on PATH: qorhost is not answering\n"
    "      on it; a stale socket: restart qorhost\n"
    "  Exit status 4 also when neither --socket nor QOR_IP_DIR is given, and\n"
    "  when qorhost gives no answer or one that cannot be read.\n"
    "\n"
    "status [NAME...] [--json]\n"
    "  One line per agent, in qorhost's order, or per record of each NAME given\n"
    "  (a multi-instance agent has one per instance), in the order given:\n"
    "    NAME  STATE  pid P, uptime U, restarts C/M[, GAVE UP]\n"
    "  STATE is unknown, not_found, down, starting, running, stopped, stopping\n"
    "  or not_configured. P is \"-\" when the agent has no process. U is the age\n"
    "  of its process, \"3d 04:05:06\" or \"04:05:06\" below a day, \"-\" when\n"
    "  unknown. C/M are today's restarts and the daily limit of the CAP file;\n"
    "  GAVE UP says that the limit is reached and the service restarts the agent\n"
    "  no more today (qorctl reset NAME lets it try again). The state word and\n"
    "  GAVE UP are coloured when standard output is a terminal and NO_COLOR is\n"
    "  not set. A NAME with blanks is quoted as one word.\n"
    "  --json  print qorhost's JSON of the agents shown instead: {\"agents\":[...]}\n"
    "  Exit status, as an init script's status: 0 when every agent shown runs\n"
    "  (running), 3 when one does not, or when qorhost knows no agent of a NAME\n"
    "  (said on standard error; an agent that does not exist does not run),\n"
    "  4 when qorhost cannot be reached, 2 for wrong usage.\n"
    "\n"
    "show NAME\n"
    "  Every field qorhost keeps of the agent NAME, one key=value line each, in\n"
    "  qorhost's order (name, subagent_id, ... state, state_code, scripts,\n"
    "  limits, restarts, process figures, cap_file, uptime_seconds). Text is\n"
    "  printed as it is, a line break in it as \\n; a missing value (null)\n"
    "  leaves nothing after the \"=\". A NAME with blanks may be quoted or typed\n"
    "  as several words.\n"
    "  Exit status: 0, 3 when qorhost knows no agent NAME, 4 when qorhost cannot\n"
    "  be reached, 2 for wrong usage.\n"
    "\n"
    "stop|start|recycle|reset|manage|unmanage NAME\n"
    "  Asks qorhost to run the command for the agent NAME and prints its answer,\n"
    "  the result code and its meaning, as qorhost's own command input does:\n"
    "    recycle 'NAME': 0 (accepted)\n"
    "  A NAME with blanks may be quoted or typed as several words. The commands\n"
    "  and the codes of each:\n"
    "%c"
    "  Exit status: 0 when the code is 0, 1 for any other code, 4 when qorhost\n"
    "  cannot be reached or refuses the request, 2 for wrong usage.\n"
    "\n"
    "events [-f]\n"
    "  The events qorhost heard (it keeps the latest 1000), oldest first:\n"
    "    TIME  [ID]  AGENT  TEXT\n"
    "  TIME in local time, ID the event id, AGENT \"-\" for an event of no agent;\n"
    "  an alert has ALERT before its text.\n"
    "  -f  then asks every second for the events that came since and prints\n"
    "      them as they come, until interrupted (Ctrl-C)\n"
    "  Exit status: 0, 4 when qorhost cannot be reached (also when it goes away\n"
    "  while -f follows), 2 for wrong usage.\n"
    "\n"
    "validate\n"
    "  Reads each FILE as the service would: checks it against the CAP format\n"
    "  (element order, occurrences, attributes and values; see examples/mdhcap.xsd)\n"
    "  and picks the first subagent whose platform matches this host. For each\n"
    "  file it prints one line:\n"
    "    FILE: ok, subagent ID\n"
    "    FILE: error CODE at line L, column C: WHAT IS WRONG\n"
    "    FILE: no subagent for this platform (this host: ...)\n"
    "    FILE: error 46: cannot be opened: REASON\n"
    "  Lines and columns count from 1. Only the first error of a file is shown;\n"
    "  fix it and run again. The codes:\n"
    "    1-44  the XML is not well-formed (expat's message follows)\n"
    "    55    an element occurs more often than allowed\n"
    "    56    a required element is missing (or something stands in its place)\n"
    "    57    an element is out of place or unknown\n"
    "    59    an attribute is not allowed\n"
    "    60    a value is not allowed\n"
    "    61    a required attribute is missing\n"
    "    62    the platform's xsi:type is none of PlatformWindows, PlatformLinux,\n"
    "          PlatformUnix\n"
    "    70    a commandLine with regex=\"true\" is no valid regular expression\n"
    "  A file whose subagents are all for other platforms is valid, but the\n"
    "  service on this host would not load it: it is reported as \"no subagent\n"
    "  for this platform\", with what this host is, and counts as a failure.\n"
    "\n"
    "  -q   print only the files that are not ok\n"
    "\n"
    "  Exit status: 0 when every file is ok, 1 when any is not, 2 for wrong usage.\n"
    "\n"
    "notify STATE [-o INSTANCE] PRODUCT_CODE [--ip-dir DIR]\n"
    "  Sends \"622 STATE [-o INSTANCE] PRODUCT_CODE\" to the service's socket\n"
    "  DIR/.teo_sock (DIR is $QOR_IP_DIR unless --ip-dir is given) and prints\n"
    "  its answer, a code and what it means. STATE is one of:\n"
    "    starting   the agent is being started by somebody else\n"
    "    stopping   the agent is being stopped by somebody else\n"
    "    started    the agent has come up\n"
    "    stopped    the agent has gone down\n"
    "    recycle    the service is to stop and start the agent\n"
    "  PRODUCT_CODE is the agent's productCode in its CAP file; -o names one of\n"
    "  its instances (an agent without instances matches any). A STATE aimed at\n"
    "  the OS agent, whose record the watchdog process keeps, recycles it.\n"
    "  The answers:\n"
    "%s"
    "  Only the owner and the group of the service's process may use the socket:\n"
    "  run qorctl as that user or as a member of that group (see README).\n"
    "  Exit status: 0 when the answer is 0, 1 for any other answer, 2 for wrong\n"
    "  usage.\n"
    "\n"
    "Environment:\n"
    "  PROCESSOR_ARCHITECTURE  compared with the arch attribute of a platform;\n"
    "                          a platform with arch never matches when it is unset\n"
    "  QOR_IP_DIR              the directory of the service's sockets: notify's\n"
    "                          .teo_sock, the other commands' qorhost.sock\n"
    "  NO_COLOR                set: status prints no colours, even on a terminal\n"
    "  QOR_TRACE_LEVEL, QOR_TRACE_FILE\n"
    "                          trace the parse or the exchange (decimal bit mask,\n"
    "                          and a file; 1 shows every element); off unless set\n";

// The file name as the parser will open it: the wide form, turned back into
// the narrow form, must name the same file.
bool wideName(const char* path, std::wstring& wide) {
  wide = qor_mbstowcs(path);
  return !wide.empty() && qor_narrow(wide) == path;
}

// The service's parser never gives up on a file it cannot open, so that is
// checked here first. Empty when the file can be read, else the reason.
std::string unreadableReason(const char* path) {
  struct stat status;
  if (stat(path, &status) != 0) return std::strerror(errno);
  if (S_ISDIR(status.st_mode)) return "is a directory";
  if (!S_ISREG(status.st_mode)) return "is not a regular file";
  FILE* file = std::fopen(path, "rb");
  if (file == nullptr) return std::strerror(errno);
  std::fclose(file);
  return std::string();
}

std::string hostDescription() {
  const OSinfo_struct_t* info = QOR_getOSinfo();
  const char* arch = std::getenv("PROCESSOR_ARCHITECTURE");
  return "xsi:type " + qor_utf8(info->xsiPlatformType) + ", name " + qor_utf8(info->platformName) +
         ", versionString \"" + qor_utf8(info->platformVersion) + "\", kernelRelease \"" +
         qor_utf8(info->platformKernelRelease) + "\", arch " +
         (arch != nullptr ? std::string("\"") + arch + "\" from PROCESSOR_ARCHITECTURE"
                          : std::string("none (PROCESSOR_ARCHITECTURE is unset)"));
}

// Validates one file and prints its line; true when it is ok.
bool validateFile(XMLprocessor& processor, const char* path, bool quiet) {
  std::wstring wide;
  if (!wideName(path, wide)) {
    std::printf("%s: error %d: cannot be opened: the name cannot be read in this locale\n", path,
                XML_OPEN_FAILED);
    return false;
  }
  std::string reason = unreadableReason(path);
  if (!reason.empty()) {
    std::printf("%s: error %d: cannot be opened: %s\n", path, XML_OPEN_FAILED, reason.c_str());
    return false;
  }
  Policy policy;
  int result = processor.parse(wide, policy);
  if (result == XML_OK) {
    if (!quiet) std::printf("%s: ok, subagent %s\n", path, qor_utf8(policy.getSubagentID()).c_str());
    return true;
  }
  if (result == XML_NO_PLATFORM_MATCH) {
    std::printf("%s: no subagent for this platform (this host: %s)\n", path, hostDescription().c_str());
    return false;
  }
  const XMLErrorInfo& error = processor.getLastError();
  if (error.getLineNumber() == 0) {
    // Reading failed before expat stood anywhere in the file.
    std::printf("%s: error %d: %s\n", path, result, error.getErrorText().c_str());
  } else {
    std::printf("%s: error %d at line %d, column %d: %s\n", path, result, error.getLineNumber(),
                error.getColumnNumber() + 1, error.getErrorText().c_str());
  }
  return false;
}

int validate(int argc, char** argv) {
  bool quiet = false;
  std::vector<const char*> files;
  bool options = true;
  for (int i = 2; i < argc; ++i) {
    const char* arg = argv[i];
    if (options && std::strcmp(arg, "--") == 0) {
      options = false;
    } else if (options && std::strcmp(arg, "-q") == 0) {
      quiet = true;
    } else if (options && arg[0] == '-' && arg[1] != '\0') {
      std::fprintf(stderr, "qorctl validate: unknown option '%s' (try qorctl --help)\n", arg);
      return 2;
    } else {
      files.push_back(arg);
    }
  }
  if (files.empty()) {
    std::fprintf(stderr, "qorctl validate: no FILE given (try qorctl --help)\n");
    return 2;
  }
  // The parse traces its errors; here the printed line says it all, so traces
  // stay off unless asked for.
  if (std::getenv("QOR_TRACE_LEVEL") == nullptr) LOG1_SetMask(0);
  XMLprocessor processor;
  bool allOk = true;
  for (const char* file : files) allOk = validateFile(processor, file, quiet) && allOk;
  std::fflush(stdout);
  return allOk ? 0 : 1;
}

// ---- notify -------------------------------------------------------------------------

const char* const kStates[] = {"starting", "stopping", "started", "stopped", "recycle"};

// What each answer of the service, and each failure of the exchange, means.
// A code the service may give and one the client gives never meet: the
// service answers none of 2 to 6.
struct NotifyMeaning {
  int code;
  const char* text;
};
const NotifyMeaning kNotifyMeanings[] = {
    {0,
     "accepted: the event is queued for the agent (for the OS agent: the watchdog process will recycle it)"},
    {1, "the agent is not managed by the service: nothing was done"},
    {-1, "the watchdog process refused the recycle of the OS agent, or did not answer"},
    {100, "the service does not speak this version of the request"},
    {110, "the request lacks a token"},
    {120, "the service does not know this state"},
    {200, "the service has no agents at all"},
    {202, "no agent has this product code (and instance), and it is not the OS agent's"},
    {2, "no socket to talk to: the socket directory is unset or its path is too long"},
    {3, "the service's socket could not be reached"},
    {4, "the request could not be sent: the service closed the connection; try again"},
    {5, "no answer within a minute: the service is busy or hung; try again later"},
    {6, "the service closed the connection without an answer: it may be shutting down; try again"},
};

const char* notifyMeaning(int code) {
  for (const NotifyMeaning& meaning : kNotifyMeanings) {
    if (meaning.code == code) return meaning.text;
  }
  return "an answer the service does not give";
}

// The answers for the help, one per line.
std::string notifyMeaningsHelp() {
  std::string text;
  for (const NotifyMeaning& meaning : kNotifyMeanings) {
    char line[160];
    std::snprintf(line, sizeof line, "    %-4d %s\n", meaning.code, meaning.text);
    text += line;
  }
  return text;
}

// Why connect failed, in words that say what to do (answer 3).
std::string unreachableReason(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    if (errno == EACCES) {
      return "you may not enter the socket directory of " + path +
             ": you need to be in the group of the service's process, or be its owner";
    }
    return "there is no socket file " + path +
           ": is qorhost (or the program that embeds the service) running with this socket directory?";
  }
  if (!S_ISSOCK(status.st_mode)) return path + " is not a socket: is this the service's socket directory?";
  if (access(path.c_str(), W_OK) != 0 && errno == EACCES) {
    struct group* owner = getgrgid(status.st_gid);
    const std::string group = owner != nullptr ? owner->gr_name : std::to_string(status.st_gid);
    return "you may not use " + path + ": you need to be in the group of the service's process (" + group +
           "), or be its owner";
  }
  return "nobody answers on " + path +
         ": is qorhost running? The file may be left over from a service that has stopped.";
}

// The arguments of notify, checked; false with a message for wrong usage.
struct NotifyRequest {
  const char* state = nullptr;
  const char* instance = nullptr;
  const char* productCode = nullptr;
};

bool isToken(const char* text) {
  return *text != '\0' && std::strchr(text, ' ') == nullptr && std::strstr(text, "QUERY") == nullptr;
}

bool usageError(const std::string& text) {
  std::fprintf(stderr, "qorctl notify: %s (try qorctl --help)\n", text.c_str());
  return false;
}

bool readNotifyArguments(int argc, char** argv, NotifyRequest& request) {
  if (argc < 3) return usageError("no STATE given");
  request.state = argv[2];
  bool known = false;
  for (const char* state : kStates) known = known || std::strcmp(state, request.state) == 0;
  if (!known)
    return usageError(std::string("unknown STATE '") + argv[2] +
                      "': starting, stopping, started, stopped or recycle");
  for (int i = 3; i < argc; ++i) {
    const char* arg = argv[i];
    if (std::strcmp(arg, "-o") == 0) {
      if (i + 1 >= argc) return usageError("-o needs an INSTANCE");
      request.instance = argv[++i];
      // The request is blank-separated text, and a "QUERY" anywhere in it
      // would make it a query: neither may be part of a name.
      if (!isToken(request.instance)) {
        return usageError(std::string("INSTANCE '") + request.instance + "' may hold no blank and no QUERY");
      }
    } else if (std::strcmp(arg, "--ip-dir") == 0 || std::strncmp(arg, "--ip-dir=", 9) == 0) {
      const char* dir = arg[8] == '=' ? arg + 9 : (i + 1 < argc ? argv[++i] : nullptr);
      if (dir == nullptr) return usageError("--ip-dir needs a DIR");
      setenv("QOR_IP_DIR", dir, 1);
    } else if (arg[0] == '-' && arg[1] != '\0') {
      return usageError(std::string("unknown option '") + arg + "'");
    } else if (request.productCode != nullptr) {
      return usageError(std::string("one PRODUCT_CODE only, '") + arg + "' is one too many");
    } else {
      if (!isToken(arg))
        return usageError(std::string("PRODUCT_CODE '") + arg + "' may hold no blank and no QUERY");
      request.productCode = arg;
    }
  }
  if (request.productCode == nullptr) return usageError("no PRODUCT_CODE given");
  const char* ipDir = std::getenv("QOR_IP_DIR");
  if (ipDir == nullptr || *ipDir == '\0')
    return usageError("no socket directory: set QOR_IP_DIR or give --ip-dir DIR");
  return true;
}

int notify(int argc, char** argv) {
  NotifyRequest request;
  if (!readNotifyArguments(argc, argv, request)) return 2;
  std::string text = std::string("622 ") + request.state;
  if (request.instance != nullptr) text += std::string(" -o ") + request.instance;
  text += std::string(" ") + request.productCode;
  if (text.size() > 1023) {
    std::fprintf(stderr, "qorctl notify: the request is longer than the 1023 bytes the service reads\n");
    return 2;
  }
  // The client traces its every step on the error level; here the printed
  // line says it all, so traces stay off unless asked for.
  if (std::getenv("QOR_TRACE_LEVEL") == nullptr) LOG1_SetMask(0);
  // The client's wait ends as soon as the answer comes, within the minute
  // that the service's own exchanges have.
  const int code = sendTEOCommand(text);
  const std::string path = std::string(std::getenv("QOR_IP_DIR")) + "/.teo_sock";
  std::string meaning = notifyMeaning(code);
  if (code == SOCKET_CLIENT_NO_CONNECT) meaning += ": " + unreachableReason(path);
  std::printf("qorctl notify: %s %s: %d (%s)\n", request.state, request.productCode, code, meaning.c_str());
  std::fflush(stdout);
  return code == 0 ? 0 : 1;
}

// ---- qorhost's control socket ------------------------------------------------------

using qorfmt::Json;

constexpr int kExitUsage = 2;
constexpr int kExitNotRunning = 3;
constexpr int kExitUnreachable = 4;

const char* const kAgentCommands[] = {"stop", "start", "recycle", "reset", "manage", "unmanage"};

bool isAgentCommand(const std::string& word) {
  for (const char* command : kAgentCommands) {
    if (word == command) return true;
  }
  return false;
}

// The codes of the agent commands for the help, from the table qorhost's own
// command input answers with, so that both always say the same.
std::string agentCodesHelp() {
  std::string text;
  for (const char* word : kAgentCommands) {
    const qorcmd::Command* command = qorcmd::find(word);
    if (command == nullptr) continue;
    text += std::string("    ") + word + "\n";
    for (const qorcmd::Meaning& meaning : command->meanings) {
      char line[200];
      std::snprintf(line, sizeof line, "      %-4d %s\n", meaning.code, meaning.text);
      text += line;
    }
  }
  return text;
}

int usageFailure(const std::string& command, const std::string& text) {
  std::fprintf(stderr, "qorctl %s: %s (try qorctl --help)\n", command.c_str(), text.c_str());
  return kExitUsage;
}

// Asks qorhost for `target` and reads its JSON. On failure the reason is on
// standard error and `exitCode` holds what qorctl is to exit with; a 404 is
// handed back to the caller, which knows what is missing.
bool ask(const std::string& socket, const std::string& command, bool post, const std::string& target,
         int& status, Json& body, int& exitCode) {
  exitCode = kExitUnreachable;
  const std::string path = qorcmd::controlSocketPath(socket);
  if (path.empty()) {
    std::fprintf(stderr, "qorctl %s: no socket to ask: set QOR_IP_DIR or give --socket PATH\n",
                 command.c_str());
    return false;
  }
  qorctlhttp::Client client(path);
  qorctlhttp::Reply reply;
  if (!(post ? client.post(target, reply) : client.get(target, reply))) {
    std::fprintf(stderr, "%s\n", client.error().c_str());
    return false;
  }
  status = reply.status;
  body = Json::parse(reply.body, nullptr, false);
  if (body.is_discarded() || !body.is_object()) {
    std::fprintf(stderr,
                 "qorctl %s: qorhost answered %d with no JSON object: is %s qorhost's control socket?\n",
                 command.c_str(), reply.status, path.c_str());
    return false;
  }
  if (status != 200 && status != 404) {
    const auto error = body.find("error");
    std::fprintf(
        stderr, "qorctl %s: qorhost refused the request (%d): %s\n", command.c_str(), status,
        error != body.end() && error->is_string() ? error->get<std::string>().c_str() : "no reason given");
    return false;
  }
  return true;
}

std::string dumped(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

// The words of a NAME typed without quotes, joined by one blank.
std::string joined(const std::vector<std::string>& words) {
  std::string name;
  for (const std::string& word : words) name += (name.empty() ? "" : " ") + word;
  return name;
}

bool colourWanted() { return isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr; }

int status(const std::string& socket, const std::vector<std::string>& args) {
  bool json = false;
  bool options = true;
  std::vector<std::string> names;
  for (const std::string& arg : args) {
    if (options && arg == "--") {
      options = false;
    } else if (options && arg == "--json") {
      json = true;
    } else if (options && arg.size() > 1 && arg[0] == '-') {
      return usageFailure("status", "unknown option '" + arg + "'");
    } else {
      names.push_back(arg);
    }
  }
  int code = 0;
  Json body;
  int exitCode = 0;
  if (!ask(socket, "status", false, "/v1/agents", code, body, exitCode)) return exitCode;
  const auto agents = body.find("agents");
  if (code != 200 || agents == body.end() || !agents->is_array()) {
    std::fprintf(stderr, "qorctl status: qorhost's answer holds no list of agents\n");
    return kExitUnreachable;
  }
  Json shown = Json::array();
  bool unknown = false;
  if (names.empty()) shown = *agents;
  for (const std::string& name : names) {
    bool found = false;
    for (const Json& agent : *agents) {
      if (!agent.is_object() || agent.value("name", Json()) != Json(name)) continue;
      shown.push_back(agent);
      found = true;
    }
    if (!found) std::fprintf(stderr, "qorctl status: qorhost knows no agent named '%s'\n", name.c_str());
    unknown = unknown || !found;
  }
  if (json) {
    Json out;
    out["agents"] = shown;
    std::printf("%s\n", dumped(out).c_str());
  } else {
    for (const std::string& line : qorfmt::statusLines(shown, colourWanted()))
      std::printf("%s\n", line.c_str());
  }
  std::fflush(stdout);
  return unknown ? kExitNotRunning : qorfmt::statusExitCode(shown);
}

int show(const std::string& socket, const std::vector<std::string>& args) {
  if (args.empty()) return usageFailure("show", "no NAME given");
  const std::string name = joined(args);
  int code = 0;
  Json agent;
  int exitCode = 0;
  if (!ask(socket, "show", false, "/v1/agents/" + qorfmt::pathSegment(name), code, agent, exitCode)) {
    return exitCode;
  }
  if (code == 404) {
    std::fprintf(stderr, "qorctl show: qorhost knows no agent named '%s'\n", name.c_str());
    return kExitNotRunning;
  }
  for (const std::string& line : qorfmt::showLines(agent)) std::printf("%s\n", line.c_str());
  std::fflush(stdout);
  return 0;
}

int agentCommand(const std::string& socket, const std::string& word, const std::vector<std::string>& args) {
  if (args.empty()) return usageFailure(word, "no NAME given");
  const std::string name = joined(args);
  int code = 0;
  Json reply;
  int exitCode = 0;
  const std::string target = "/v1/agents/" + qorfmt::pathSegment(name) + "/" + word;
  if (!ask(socket, word, true, target, code, reply, exitCode)) return exitCode;
  if (code != 200) {
    std::fprintf(stderr, "qorctl %s: qorhost does not take the command (404)\n", word.c_str());
    return kExitUnreachable;
  }
  std::printf("%s\n", qorfmt::commandLine(reply).c_str());
  std::fflush(stdout);
  const auto result = reply.find("code");
  return result != reply.end() && result->is_number_integer() && result->get<long long>() == 0 ? 0 : 1;
}

// Prints the events of one answer; the newest seq it holds, or -1 when the
// answer is not a list of events.
long long printEvents(const Json& body) {
  const auto events = body.find("events");
  const auto last = body.find("last");
  if (events == body.end() || !events->is_array() || last == body.end() || !last->is_number_integer())
    return -1;
  for (const Json& event : *events) std::printf("%s\n", qorfmt::eventLine(event).c_str());
  std::fflush(stdout);
  return last->get<long long>();
}

int events(const std::string& socket, const std::vector<std::string>& args) {
  bool follow = false;
  for (const std::string& arg : args) {
    if (arg != "-f" && arg != "--follow") return usageFailure("events", "unknown argument '" + arg + "'");
    follow = true;
  }
  long long last = 0;
  for (;;) {
    int code = 0;
    Json body;
    int exitCode = 0;
    if (!ask(socket, "events", false, "/v1/events?since=" + std::to_string(last), code, body, exitCode)) {
      return exitCode;
    }
    const long long newest = code == 200 ? printEvents(body) : -1;
    if (newest < 0) {
      std::fprintf(stderr, "qorctl events: qorhost's answer holds no list of events\n");
      return kExitUnreachable;
    }
    // A newest seq below the one followed means qorhost started again and
    // counts from 1: everything it holds is new.
    last = newest < last ? 0 : newest;
    if (!follow) return 0;
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

// Takes --socket PATH and --socket=PATH out of the arguments, wherever they
// stand before a "--"; false with a message when PATH is missing.
bool takeSocketOption(std::vector<std::string>& args, std::string& socket) {
  for (size_t i = 0; i < args.size();) {
    if (args[i] == "--") break;
    if (args[i] == "--socket") {
      if (i + 1 >= args.size()) {
        std::fprintf(stderr, "qorctl: --socket needs a PATH (try qorctl --help)\n");
        return false;
      }
      socket = args[i + 1];
      args.erase(args.begin() + i, args.begin() + i + 2);
    } else if (args[i].compare(0, 9, "--socket=") == 0) {
      socket = args[i].substr(9);
      args.erase(args.begin() + i);
    } else {
      ++i;
    }
  }
  return true;
}

std::string usage() {
  std::string text = kUsage;
  const size_t codes = text.find("%c");
  text.replace(codes, 2, agentCodesHelp());
  const size_t slot = text.find("%s");
  return text.replace(slot, 2, notifyMeaningsHelp());
}

// validate and notify read the arguments as they always have: the program's
// name, the command, then its arguments.
int runClassic(int (*command)(int, char**), const char* program, std::vector<std::string>& args) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program));
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  return command(static_cast<int>(argv.size()) - 1, argv.data());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string socket;
  if (!takeSocketOption(args, socket)) return kExitUsage;
  const std::string command = args.empty() ? std::string() : args[0];
  if (args.empty() || command == "help" || command == "--help" || command == "-h") {
    std::fputs(usage().c_str(), args.empty() ? stderr : stdout);
    return args.empty() ? kExitUsage : 0;
  }
  if (command == "validate") return runClassic(validate, argv[0], args);
  if (command == "notify") return runClassic(notify, argv[0], args);
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (command == "status") return status(socket, rest);
  if (command == "show") return show(socket, rest);
  if (command == "events") return events(socket, rest);
  if (isAgentCommand(command)) return agentCommand(socket, command, rest);
  std::fprintf(stderr, "qorctl: unknown command '%s' (try qorctl --help)\n", command.c_str());
  return kExitUsage;
}
