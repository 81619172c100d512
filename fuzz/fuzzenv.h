// The fixed surroundings of the fuzz targets and of their corpus replay: a known
// environment, a private $MARLOWHOME without the suite's tools, a PATH that
// finds no program, and traces formatted in full but thrown away. An input then
// behaves the same on every run and every machine. Called once, before the
// first input, on the fuzzing thread.
#ifndef QOR_FUZZ_FUZZENV_H
#define QOR_FUZZ_FUZZENV_H

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "cap/qorconv.h"
#include "platform/log1.h"
#include "include/qorapi.h"

namespace qorfuzz {

namespace detail {

inline std::string& homeDir() {
  static std::string path;
  return path;
}

inline std::string emptyBinDir() { return homeDir() + "/bin"; }

inline void removeHome() {
  if (homeDir().empty()) return;
  rmdir(emptyBinDir().c_str());
  rmdir(homeDir().c_str());
}

inline std::string keptVariable(const char* name, const char* fallback) {
  const char* value = getenv(name);
  return value != nullptr ? value : fallback;
}

}  // namespace detail

// Replaces the whole environment with a fixed one. QOR_TRACE_LEVEL and
// QOR_TRACE_FILE are kept when set, so that a crash can be replayed with its
// traces. By default the traces are formatted (their arguments come from the
// input too) and written to /dev/null, all but the entry and exit events:
// those hold nothing of the input, and would halve the speed.
inline void setFixedEnvironment() {
  std::string traceLevel = detail::keptVariable("QOR_TRACE_LEVEL", "447");
  std::string traceFile = detail::keptVariable("QOR_TRACE_FILE", "/dev/null");
  std::string tmp = detail::keptVariable("TMPDIR", "/tmp");

  // $MARLOWHOME holds an empty bin/, so no vexinf: a $NAME@code query runs a
  // command that is not there and prints nothing. PATH names the same empty
  // folder, so that nothing the input spells into a command line finds a program.
  std::string home = tmp + "/qor-fuzz-XXXXXX";
  if (mkdtemp(&home[0]) == nullptr) {
    perror("qor fuzz: mkdtemp");
    abort();
  }
  detail::homeDir() = home;
  if (mkdir(detail::emptyBinDir().c_str(), 0700) != 0) {
    perror("qor fuzz: mkdir");
    abort();
  }
  atexit(detail::removeHome);

  clearenv();
  setenv("MARLOWHOME", home.c_str(), 1);
  setenv("ZEL_BINARCH", "lx8266", 1);
  setenv("USER", "qorfuzz", 1);
  setenv("HOME", home.c_str(), 1);
  setenv("PATH", detail::emptyBinDir().c_str(), 1);
  setenv("PROCESSOR_ARCHITECTURE", "AMD64", 1);
  setenv("QOR_EXAMPLES", "/nonexistent/examples", 1);
  setenv("TMPDIR", tmp.c_str(), 1);
  setenv("QOR_TRACE_LEVEL", traceLevel.c_str(), 1);
  setenv("QOR_TRACE_FILE", traceFile.c_str(), 1);
  LOG1_Reconfigure();
  // A command that an input spells into a CAP text or a path may never end
  // (a shell loop): it costs its time-out, one second here, not thirty. Set
  // before the command manager is made, which takes it then.
  MIN_CMD_TIMEOUT = 1;
}

// Ends the run on a broken promise of the code under test; libFuzzer keeps the
// input that did it.
[[noreturn]] inline void stop(const char* what, int selector) {
  fprintf(stderr, "qor fuzz: %s (selector %d)\n", what, selector);
  __builtin_trap();
}

// Input bytes as wide text: through the UTF-8 conversion that expat's text
// goes through (empty when they are not UTF-8), or one character per byte.
inline std::wstring wideText(const char* bytes, size_t size, bool utf8) {
  std::wstring text;
  if (!utf8) {
    for (size_t i = 0; i < size; ++i)
      text.push_back(static_cast<wchar_t>(static_cast<unsigned char>(bytes[i])));
    return text;
  }
  ConvertedText<wchar_t, 128> wide;
  int length = 0;
  int error = 0;
  if (wide.adopt(qor_u_strFromUTF8(wide.buffer(), wide.capacity(), &length, bytes, static_cast<int>(size),
                                   &error)) == nullptr) {
    return text;
  }
  text.assign(wide.get(), static_cast<size_t>(length));
  return text;
}

}  // namespace qorfuzz

#endif  // QOR_FUZZ_FUZZENV_H
