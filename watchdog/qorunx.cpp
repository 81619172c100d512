#include "watchdog/qorunx.h"

#include <cstdio>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorusr.h"

QOR_TRACE_UNIT();

namespace {

// The variable that asks for another agent's architecture directory rather
// than for one of its settings.
const std::wstring BINARCH_VAR = L"BINARCH";
const std::wstring kInstanceMarker = L"##INSTANCE##";
const std::wstring kUserMarker = L"##USER##";

// A value may name a variable in turn, and so on: the count of replacements
// in one text is bounded, so that a value naming itself cannot run forever.
constexpr int kMaxReplacements = 256;

// Runs a command of the suite's tool with no agent; its output, or empty.
std::wstring runToolCommand(const std::wstring& command) {
  QorScript script;
  script.setOriginalCommand(command);
  script.addSuccessRC(0, L"");
  std::wstring output;
  GetCmdManager()->executeCmd(&script, output, nullptr);
  return output;
}

// The text up to the first line feed, or all of it.
std::wstring firstLine(const std::wstring& text) { return text.substr(0, text.find(L'\n')); }

}  // namespace

std::wstring GetZELAgentCacheKey(const std::wstring& code, const std::wstring& name) {
  return code + L"_" + name;
}

std::wstring QOR_GetZELAgentEnvironment(const std::wstring& code, const std::wstring& name,
                                        ZELAgentEnvGetter getter) {
  QOR_TRACE_FUNCTION();
  const std::wstring key = GetZELAgentCacheKey(code, name);
  std::wstring value = GetEnvVarValue(key);
  if (!value.empty()) return value;
  // An empty answer is not cached: the next expansion asks again.
  value = getter(code, name);
  if (!value.empty()) {
    QOR_TRACE_DETAIL("Found ZEL Agent env variable %s=%s.\n", QOR_N(key), QOR_N(value));
    SetEnvVarValue(key, value);
  } else {
    QOR_TRACE_DETAIL("ZEL Agent env variable %s not defined.\n", QOR_N(key));
  }
  return value;
}

void QOR_SetZELAgentEnvironment(const std::wstring& code, const std::wstring& name,
                                const std::wstring& value) {
  QOR_TRACE_FUNCTION();
  const std::wstring key = GetZELAgentCacheKey(code, name);
  if (!GetEnvVarValue(key).empty()) {
    QOR_TRACE_DETAIL("ZEL Agent env variable %s already defined.\n", QOR_N(key));
    return;
  }
  QOR_TRACE_DETAIL("Adding ZEL Agent env variable %s=%s.\n", QOR_N(key), QOR_N(value));
  SetEnvVarValue(key, value);
}

std::wstring GetZELEnvVarValue(const std::wstring& code, const std::wstring& name) {
  std::wstring output = runToolCommand(L"$MARLOWHOME/bin/vexinf -s " + code + L" 2>/dev/null | grep " + name);
  size_t at = output.find(name + L" = ");
  if (at == std::wstring::npos) return std::wstring();
  return firstLine(output.substr(at + name.size() + 3));
}

std::wstring GetZELAgentBinArch(const std::wstring& code, const std::wstring& /*name*/) {
  return firstLine(runToolCommand(L"$MARLOWHOME/bin/vexinf -p " + code +
                                  L" 2>/dev/null | awk 'NR > 6' | grep -w " + code + L" | awk {'print $1'}"));
}

std::wstring ReplaceEnvVariables(const std::wstring& text) {
  QOR_TRACE_FUNCTION();
  std::wstring result = text;
  size_t pos = 0;
  int replacements = 0;
  for (size_t start = result.find(L'$', pos); start != std::wstring::npos; start = result.find(L'$', pos)) {
    pos = start + 1;
    // Kept: the first character belongs to the name, whatever it is.
    // A blank, a "/" or a "$" after it ends the name, and nothing else does.
    std::wstring name;
    if (pos < result.size()) {
      size_t end = result.find_first_of(L" /$", pos + 1);
      name = result.substr(pos, end == std::wstring::npos ? std::wstring::npos : end - pos);
    }
    if (name.empty()) {
      QOR_TRACE_DETAIL("Invalid var name -- null.\n");
      continue;
    }
    std::wstring value;
    size_t at = name.find(L'@');
    if (at != std::wstring::npos) {
      const std::wstring left = name.substr(0, at);
      const std::wstring right = name.substr(at + 1);
      value = QOR_GetZELAgentEnvironment(right, left,
                                         left == BINARCH_VAR ? GetZELAgentBinArch : GetZELEnvVarValue);
    } else {
      value = QOR_GetEnvironment(name);
    }
    // An undefined variable stays visible in the text.
    if (value.empty()) continue;
    if (replacements == kMaxReplacements) {
      QOR_TRACE_ERROR("Too many variable replacements in %s; $%s left as it is.\n", QOR_N(text), QOR_N(name));
      break;
    }
    ++replacements;
    QOR_TRACE_DETAIL("Replacing env variable $%s with %s.\n", QOR_N(name), QOR_N(value));
    // Kept: the scan goes on inside the inserted value, so a "$" there is expanded in turn.
    result.replace(start, name.size() + 1, value);
  }
  return result;
}

void ReplaceTEOVariables(std::wstring& text, const std::wstring& variable, const std::wstring& value) {
  QOR_TRACE_FUNCTION();
  if (variable.empty()) return;
  // Each search starts at the beginning again; a value that holds the
  // variable itself is stepped over, or the replacing would never end.
  const bool valueHoldsVariable = value.find(variable) != std::wstring::npos;
  size_t from = 0;
  for (size_t index = text.find(variable, from); index != std::wstring::npos;
       index = text.find(variable, from)) {
    QOR_TRACE_DETAIL("Index %d.\n", static_cast<int>(index));
    QOR_TRACE_DETAIL("Replacing instance variable.\n");
    text.replace(index, variable.size(), value);
    if (valueHoldsVariable) from = index + value.size();
  }
}

std::wstring ReplaceTEOVariables(const std::wstring& command, Agent* agent) {
  QOR_TRACE_FUNCTION();
  std::wstring result = command;
  if (agent == nullptr) {
    QOR_TRACE_DETAIL("Agent is null - nothing to do.\n");
    return result;
  }
  ReplaceTEOVariables(result, kInstanceMarker, agent->getInstanceName());
  if (result.find(kUserMarker) != std::wstring::npos) {
    std::wstring user = agent->getUserName();
    if (user.empty()) user = GetCurrentUser();
    ReplaceTEOVariables(result, kUserMarker, user);
  }
  return result;
}

void DeleteFile(const std::wstring& path) {
  QOR_TRACE_FUNCTION();
  std::string narrow = qor_narrow(path);
  QOR_TRACE_DETAIL("Deleting remote deploy control file <%s>", narrow.c_str());
  remove(narrow.c_str());
}
