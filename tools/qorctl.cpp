// qorctl: the command-line companion of qor for the people who run a host.
// `qorctl validate` reads CAP files exactly as the service does and says, for
// each, which subagent the service would take, or what is wrong and where.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cap/qorconv.h"
#include "cap/qorxmlproc.h"
#include "core/qorutil.h"
#include "platform/log1.h"

namespace {

// The codes listed here are the XML result codes of cap/qorxml.h.
const char kUsage[] =
    "Usage: qorctl COMMAND [ARGS]\n"
    "\n"
    "Commands:\n"
    "  validate [-q] FILE...   check CAP files the way the service reads them\n"
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
    "Environment:\n"
    "  PROCESSOR_ARCHITECTURE  compared with the arch attribute of a platform;\n"
    "                          a platform with arch never matches when it is unset\n"
    "  QOR_TRACE_LEVEL, QOR_TRACE_FILE\n"
    "                          trace the parse (decimal bit mask, and a file;\n"
    "                          1 shows every element); off unless set\n";

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

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0 ||
      std::strcmp(argv[1], "-h") == 0) {
    std::fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  if (std::strcmp(argv[1], "validate") == 0) return validate(argc, argv);
  std::fprintf(stderr, "qorctl: unknown command '%s' (try qorctl --help)\n", argv[1]);
  return 2;
}
