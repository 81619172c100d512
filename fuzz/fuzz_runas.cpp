// Fuzz target: the reader of the run-as files. The input, after its first
// byte, is written as $MARLOWHOME/config/hmvrunas.cfg of the fixed fuzz
// environment, where no host file exists, and the user of a suite agent is
// looked up in it. The first byte chooses the agent's product code and
// instance. The reader must neither crash nor invent a user: a file without
// an entry leaves the name alone, and no name is longer than the buffer.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "fuzz/fuzzenv.h"
#include "watchdog/qorusr.h"

namespace {

const std::wstring kUntouched = L"untouched";

std::string& configDir() {
  static std::string path;
  return path;
}

std::string runAsFile() { return configDir() + "/hmvrunas.cfg"; }

// Before fuzzenv's own clean-up, which removes only empty folders.
void removeConfig() {
  unlink(runAsFile().c_str());
  rmdir(configDir().c_str());
}

bool writeRunAsFile(const uint8_t* data, size_t size) {
  FILE* file = fopen(runAsFile().c_str(), "wb");
  if (file == nullptr) return false;
  bool written = size == 0 || fwrite(data, 1, size, file) == size;
  return fclose(file) == 0 && written;
}

// The user the reader gives an agent of `code` and `instance`.
std::wstring lookUp(const wchar_t* code, const wchar_t* instance) {
  Agent agent;
  Policy* policy = new Policy();
  policy->setAgentTypeElement(ZEL_UNIX);
  policy->setGeneric(false);
  policy->setProductCode(code);
  agent.setPolicy(policy);
  agent.setInstanceName(instance);
  agent.setUserName(kUntouched);
  agent.setZELUserName();
  return agent.getUserName();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  qorfuzz::setFixedEnvironment();
  configDir() = std::string(getenv("MARLOWHOME")) + "/config";
  if (mkdir(configDir().c_str(), 0700) != 0) {
    perror("qor fuzz: mkdir config");
    abort();
  }
  atexit(removeConfig);
  return 0;
}

// Selector: bit 0 picks the product code, bits 1-2 the instance.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const int selector = data[0];
  if (!writeRunAsFile(data + 1, size - 1)) qorfuzz::stop("the run-as file could not be written", selector);
  static const wchar_t* const codes[] = {L"ab", L"xy"};
  static const wchar_t* const instances[] = {L"None", L"inst1", L"", L"inst2"};
  const wchar_t* code = codes[selector & 1];
  const wchar_t* instance = instances[(selector >> 1) & 3];
  const std::wstring user = lookUp(code, instance);
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  if (user != kUntouched) {
    if (text.find("<productCode>") == std::string::npos || text.find("<user") == std::string::npos)
      qorfuzz::stop("a user came from a file without entries", selector);
    if (user.size() > static_cast<size_t>(ZELUserProcessor::kTextCapacity))
      qorfuzz::stop("a user is longer than the conversion buffer", selector);
    if (user == L"zeluser") qorfuzz::stop("the placeholder user was set", selector);
  }
  // The file is read whole at each lookup: the same file gives the same user.
  if (lookUp(code, instance) != user) qorfuzz::stop("two reads of one file differ", selector);
  return 0;
}
