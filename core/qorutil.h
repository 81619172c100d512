// Text conversion and environment lookup for every unit of the service: wide
// and narrow text, the process-wide cache of environment values, and a file
// existence test. Safe from any thread; the cache has a lock of its own.
#ifndef QOR_CORE_QORUTIL_H
#define QOR_CORE_QORUTIL_H

#include <string>

// Narrow text in the current locale to wide text. One invalid byte empties the
// whole result. Sets LC_CTYPE from the environment on each call.
std::wstring qor_mbstowcs(const char* text);

// Wide text to narrow text in the current locale. The caller frees the result
// with delete[].
char* qor_wcstombs(const std::wstring& text);

// The same conversion as a std::string, for code that would only free the array.
std::string qor_narrow(const std::wstring& text);

// The cached value of a name, or empty.
std::wstring GetEnvVarValue(const std::wstring& name);

// Caches a value; an existing entry keeps its old value, an empty name is ignored.
void SetEnvVarValue(const std::wstring& name, const std::wstring& value);

// The value of an environment variable. The first non-empty value read stays
// the value for the life of the process.
std::wstring QOR_GetEnvironment(const std::wstring& name);

// True when the variable exists and holds only digits; `value` is then its
// number, otherwise 0. Not cached.
bool QOR_GetEnvironmentAsInt(const char* name, int& value);

// True when the path can be opened for reading (a directory counts).
bool FileExists(const std::wstring& path);

#endif  // QOR_CORE_QORUTIL_H
