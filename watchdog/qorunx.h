// Variable substitution in CAP texts and commands: $NAME and $NAME@code once,
// when a text is stored; "##INSTANCE##" and "##USER##" each time a command
// runs. The values of other agents come from the suite's status tool and are
// cached with the environment. Also file removal for the control files. Safe
// from any thread: the cache has a lock of its own.
#ifndef QOR_WATCHDOG_QORUNX_H
#define QOR_WATCHDOG_QORUNX_H

#include <string>

class Agent;

// Asks for the value of variable `name` of the agent with product code `code`.
typedef std::wstring (*ZELAgentEnvGetter)(const std::wstring& code, const std::wstring& name);

// The cache key of another agent's variable: code, "_", name.
std::wstring GetZELAgentCacheKey(const std::wstring& code, const std::wstring& name);

// The cached value of another agent's variable, else what `getter` finds,
// which is cached when it is not empty.
std::wstring QOR_GetZELAgentEnvironment(const std::wstring& code, const std::wstring& name,
                                        ZELAgentEnvGetter getter);

// The value of a variable in the configuration of agent `code`, from the tool.
std::wstring GetZELEnvVarValue(const std::wstring& code, const std::wstring& name);

// The architecture directory of agent `code`, from the tool; `name` is not used.
std::wstring GetZELAgentBinArch(const std::wstring& code, const std::wstring& name);

// Expands $NAME and $NAME@code in `text`. An undefined variable stays as it
// is written.
std::wstring ReplaceEnvVariables(const std::wstring& text);

// Expands "##INSTANCE##" and "##USER##" for `agent`, which may be null.
std::wstring ReplaceTEOVariables(const std::wstring& command, Agent* agent);

// Replaces every `variable` in `text` with `value`.
void ReplaceTEOVariables(std::wstring& text, const std::wstring& variable, const std::wstring& value);

// Removes the file; the result is not looked at.
void DeleteFile(const std::wstring& path);

#endif  // QOR_WATCHDOG_QORUNX_H
