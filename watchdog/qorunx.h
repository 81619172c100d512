// Variable substitution in CAP texts and commands: $NAME and $NAME@code once,
// when a text is stored; "##INSTANCE##" and "##USER##" each time a command
// runs. Also file removal for the control files. Safe from any thread.
#ifndef QOR_WATCHDOG_QORUNX_H
#define QOR_WATCHDOG_QORUNX_H

#include <string>

class Agent;

// Expands $NAME and $NAME@code in `text`.
std::wstring ReplaceEnvVariables(const std::wstring& text);

// Expands "##INSTANCE##" and "##USER##" for `agent`, which may be null.
std::wstring ReplaceTEOVariables(const std::wstring& command, Agent* agent);

// Replaces every `variable` in `text` with `value`.
void ReplaceTEOVariables(std::wstring& text, const std::wstring& variable, const std::wstring& value);

#endif  // QOR_WATCHDOG_QORUNX_H
