#include "watchdog/qorunx.h"

// Substitution joins with the process layer; until then texts are stored and
// run as they are written.
std::wstring ReplaceEnvVariables(const std::wstring& text) { return text; }

std::wstring ReplaceTEOVariables(const std::wstring& command, Agent* /*agent*/) { return command; }

void ReplaceTEOVariables(std::wstring& text, const std::wstring& variable, const std::wstring& value) {
  if (variable.empty()) return;
  for (size_t at = text.find(variable); at != std::wstring::npos;
       at = text.find(variable, at + value.size())) {
    text.replace(at, variable.size(), value);
  }
}
