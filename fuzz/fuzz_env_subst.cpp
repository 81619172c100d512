// Fuzz target: the variable substitution of CAP texts and commands,
// ReplaceEnvVariables and the two forms of ReplaceTEOVariables, on arbitrary
// text in a fixed environment whose $MARLOWHOME has no vexinf, so that a
// $NAME@code query runs a command that is not there and prints nothing.
// The first byte chooses the function and how bytes become text; NUL bytes
// split the rest into the arguments.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "fuzz/fuzzenv.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorunx.h"

namespace {

const std::wstring INSTANCE_MARKER = L"##INSTANCE##";
const std::wstring USER_MARKER = L"##USER##";

// The rest of the input split at NUL bytes, always at least three parts.
std::vector<std::wstring> partsOf(const uint8_t* data, size_t size, bool utf8) {
  std::vector<std::wstring> parts;
  std::string part;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      parts.push_back(qorfuzz::wideText(part.data(), part.size(), utf8));
      part.clear();
    } else {
      part.push_back(static_cast<char>(data[i]));
    }
  }
  parts.push_back(qorfuzz::wideText(part.data(), part.size(), utf8));
  while (parts.size() < 3) parts.emplace_back();
  return parts;
}

void tryEnvVariables(const std::wstring& text, int selector) {
  std::wstring result = ReplaceEnvVariables(text);
  if (text.find(L'$') == std::wstring::npos && result != text)
    qorfuzz::stop("a text without $ was changed", selector);
}

// The callers replace the two markers by an agent's instance or user name,
// which may hold the marker itself.
void tryMarker(const std::vector<std::wstring>& parts, int selector) {
  const std::wstring& marker = (selector & 0x10) != 0 ? USER_MARKER : INSTANCE_MARKER;
  std::wstring text = parts[0];
  ReplaceTEOVariables(text, marker, parts[1]);
  if (parts[0].find(marker) == std::wstring::npos && text != parts[0])
    qorfuzz::stop("a text without the marker was changed", selector);
}

void tryAgentCommand(const std::vector<std::wstring>& parts, int selector) {
  const std::wstring& command = parts[0];
  if ((selector & 0x10) != 0) {
    if (ReplaceTEOVariables(command, nullptr) != command)
      qorfuzz::stop("a null agent changed the command", selector);
    return;
  }
  Agent agent;
  agent.setInstanceName(parts[1]);
  agent.setUserName(parts[2]);
  std::wstring result = ReplaceTEOVariables(command, &agent);
  bool marked =
      command.find(INSTANCE_MARKER) != std::wstring::npos || command.find(USER_MARKER) != std::wstring::npos;
  if (!marked && result != command) qorfuzz::stop("a command without markers was changed", selector);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  qorfuzz::setFixedEnvironment();
  return 0;
}

// Selector: bit 7 picks the UTF-8 conversion, bit 4 the user marker or the
// null agent, the low bits the function.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  int selector = data[0];
  bool utf8 = (selector & 0x80) != 0;
  switch (selector % 3) {
    case 0:
      tryEnvVariables(qorfuzz::wideText(reinterpret_cast<const char*>(data + 1), size - 1, utf8), selector);
      break;
    case 1:
      tryMarker(partsOf(data + 1, size - 1, utf8), selector);
      break;
    default:
      tryAgentCommand(partsOf(data + 1, size - 1, utf8), selector);
      break;
  }
  // Commands cut short by their time-out are left running and reaped later by
  // the service's own loops, which a fuzz target does not run: reap them here,
  // or their exits and pipes pile up over millions of inputs.
  GetCmdManager()->cleanUpDefunctProcesses();
  return 0;
}
