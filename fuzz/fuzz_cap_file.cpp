// Fuzz target: the input bytes as a CAP file, read by XMLprocessor::parse into a
// Policy the way the service reads a file from a CAP directory. Stops the run
// (trap) on a result code that the processor does not define, on an error
// record that disagrees with the result, and on a file whose second reading
// differs from its first.
#include <expat.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cap/qorpol.h"
#include "cap/qorxmlproc.h"
#include "fuzz/fuzzenv.h"
#include "watchdog/qorcmd.h"

namespace {

// parse never returns for a path that cannot be opened, so the input goes into
// a memory file whose /proc/self/fd path opens for as long as the descriptor
// lives. One memory file serves every input.
class MemoryFile {
 public:
  MemoryFile() : fd(memfd_create("qor-fuzz-cap", 0)) {
    if (fd < 0) {
      perror("qor fuzz: memfd_create");
      abort();
    }
    path = L"/proc/self/fd/" + std::to_wstring(fd);
  }

  void fill(const uint8_t* data, size_t size) {
    if (ftruncate(fd, 0) != 0) fail("ftruncate");
    size_t done = 0;
    while (done < size) {
      ssize_t written = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
      if (written <= 0) fail("pwrite");
      done += static_cast<size_t>(written);
    }
  }

  const std::wstring& getPath() const { return path; }

 private:
  static void fail(const char* call) {
    perror(call);
    abort();
  }

  int fd;
  std::wstring path;
};

// The codes of XMLprocessor::parse: its own, the constraint engine's, and
// expat's, which are those that expat has a text for.
bool isDefinedResult(int result) {
  switch (result) {
    case XML_OK:
    case XML_NO_MATCH:
    case XML_NO_READ_BUFFER:
    case XML_OPEN_FAILED:
    case XML_READ_FAILED:
    case XML_CONVERSION_FAILED:
    case XML_MAX_OCCURS_EXCEEDED:
    case XML_MIN_OCCURS_NOT_MET:
    case XML_UNEXPECTED_TAG:
    case XML_ATTRIBUTE_NOT_ALLOWED:
    case XML_VALUE_NOT_ALLOWED:
    case XML_ATTRIBUTE_MISSING:
    case XML_ABSTRACT_TYPE_UNKNOWN:
    case XML_HANDLER_EXCEPTION:
    case XML_BAD_REGEX:
    case XML_NO_PLATFORM_MATCH:
      return true;
    default:
      return result > 0 && result < XML_NO_READ_BUFFER &&
             XML_ErrorString(static_cast<XML_Error>(result)) != nullptr;
  }
}

// What qorctl shows a person is the recorded error: it must be the result's.
bool errorRecordAgrees(const XMLErrorInfo& error, int result) {
  if (result == XML_OK) return !error.isError();
  return error.isError() && error.getErrorCode() == result;
}

// One processor for the life of the process, as the Controller keeps one: each
// parse resets the parser and the constraint tree.
XMLprocessor& processor() {
  static XMLprocessor* shared = new XMLprocessor();
  return *shared;
}

MemoryFile& memoryFile() {
  static MemoryFile* shared = new MemoryFile();
  return *shared;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  qorfuzz::setFixedEnvironment();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MemoryFile& file = memoryFile();
  file.fill(data, size);

  Policy policy;
  int result = processor().parse(file.getPath(), policy);
  if (!isDefinedResult(result)) {
    fprintf(stderr, "qor fuzz: parse returned the undefined code %d\n", result);
    __builtin_trap();
  }
  if (!errorRecordAgrees(processor().getLastError(), result)) {
    fprintf(stderr, "qor fuzz: result %d, but the error record holds %d\n", result,
            processor().getLastError().getErrorCode());
    __builtin_trap();
  }
  // An accepted policy is copied for every agent that runs it; the copy
  // compiles its own regular expression.
  if (result == XML_OK) {
    Policy copy(policy);
    (void)copy.getMemoryThreshold();
  }

  // Nothing of one file may leak into the next: the same file gives the same result.
  Policy again;
  int second = processor().parse(file.getPath(), again);
  if (second != result) {
    fprintf(stderr, "qor fuzz: the same file gave %d, then %d\n", result, second);
    __builtin_trap();
  }
  // A product code lists its instances through the suite's tool; commands cut
  // short by their time-out are reaped by the service's own loops, which a
  // fuzz target does not run, so they are reaped here.
  GetCmdManager()->cleanUpDefunctProcesses();
  return 0;
}
