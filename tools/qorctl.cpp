// qorctl: the command-line companion of qor for the people who run a host.
// `qorctl validate` reads CAP files exactly as the service does and says, for
// each, which subagent the service would take, or what is wrong and where.
// `qorctl notify` tells the running service over its socket that an agent is
// being started or stopped by somebody else, has come up or gone down, or is
// to be recycled, and says what the service answered.
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cap/qorconv.h"
#include "cap/qorxmlproc.h"
#include "core/qorutil.h"
#include "interfaces/qorsockclient.h"
#include "platform/log1.h"

namespace {

// The codes listed here are the XML result codes of cap/qorxml.h.
const char kUsage[] =
    "Usage: qorctl COMMAND [ARGS]\n"
    "\n"
    "Commands:\n"
    "  validate [-q] FILE...   check CAP files the way the service reads them\n"
    "  notify STATE [-o INSTANCE] PRODUCT_CODE [--ip-dir DIR]\n"
    "                          tell the running service about an agent\n"
    "  help                    this text\n"
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
    "  QOR_IP_DIR              the directory of the service's sockets (notify)\n"
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

std::string usage() {
  std::string text = kUsage;
  const size_t slot = text.find("%s");
  return text.replace(slot, 2, notifyMeaningsHelp());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0 ||
      std::strcmp(argv[1], "-h") == 0) {
    std::fputs(usage().c_str(), argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  if (std::strcmp(argv[1], "validate") == 0) return validate(argc, argv);
  if (std::strcmp(argv[1], "notify") == 0) return notify(argc, argv);
  std::fprintf(stderr, "qorctl: unknown command '%s' (try qorctl --help)\n", argv[1]);
  return 2;
}
