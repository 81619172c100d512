// Options shared by the programs that run the service (qorhost, qorwd): each
// sets an environment variable before the service reads it, so options win
// over variables. Header-only; used on the main thread before anything starts.
#ifndef QOR_TOOLS_QORTOOLOPTS_H
#define QOR_TOOLS_QORTOOLOPTS_H

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace qortool {

struct EnvOption {
  const char* flag;
  const char* variable;
};

constexpr EnvOption kEnvOptions[] = {
    {"--cap-dir", "QOR_CAP_DIR"},
    {"--ip-dir", "QOR_IP_DIR"},
    {"--trace-level", "QOR_TRACE_LEVEL"},
    {"--trace-file", "QOR_TRACE_FILE"},
};

// One malloc arena for the whole process, unless MALLOC_ARENA_MAX says
// otherwise. The service's threads allocate little and seldom at once, and an
// arena of its own for each of them (and for each short-lived worker) made up
// a fifth of the daemon's resident memory.
inline void oneMallocArena() {
  if (std::getenv("MALLOC_ARENA_MAX") == nullptr) mallopt(M_ARENA_MAX, 1);
}

enum class ParseResult { Run, Help, Error };

// An option of one program alone, whose value goes to `value` rather than to
// the environment.
struct ValueOption {
  const char* flag;
  std::string* value;
};

// Whether `arg` (at argv[i]) is the option `flag`: its value is then in
// `value`, null when it lacks one; `i` moves past a separate value.
inline bool matchOption(const char* flag, int argc, char** argv, int& i, const char*& value) {
  const char* arg = argv[i];
  size_t length = std::strlen(flag);
  if (std::strncmp(arg, flag, length) != 0) return false;
  value = nullptr;
  if (arg[length] == '=') {
    value = arg + length + 1;
  } else if (arg[length] == '\0' && i + 1 < argc) {
    value = argv[++i];
  } else if (arg[length] != '\0') {
    return false;
  }
  return true;
}

// Accepts "--flag VALUE" and "--flag=VALUE" for each option, and -h/--help.
inline ParseResult parseEnvOptions(int argc, char** argv, const char* program,
                                   const std::vector<ValueOption>& ownOptions = {}) {
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (std::strcmp(arg, "-h") == 0 || std::strcmp(arg, "--help") == 0) return ParseResult::Help;
    bool known = false;
    const char* flag = nullptr;
    const char* value = nullptr;
    for (const EnvOption& option : kEnvOptions) {
      if (!matchOption(option.flag, argc, argv, i, value)) continue;
      flag = option.flag;
      if (value != nullptr) setenv(option.variable, value, 1);
      known = true;
      break;
    }
    for (const ValueOption& option : ownOptions) {
      if (known || !matchOption(option.flag, argc, argv, i, value)) continue;
      flag = option.flag;
      if (value != nullptr) *option.value = value;
      known = true;
    }
    if (known && value == nullptr) {
      std::fprintf(stderr, "%s: option %s needs a value (try --help)\n", program, flag);
      return ParseResult::Error;
    }
    if (!known) {
      std::fprintf(stderr, "%s: unknown argument '%s' (try --help)\n", program, arg);
      return ParseResult::Error;
    }
  }
  return ParseResult::Run;
}

inline const char* envOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : fallback;
}

}  // namespace qortool

#endif  // QOR_TOOLS_QORTOOLOPTS_H
