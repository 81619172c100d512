#include "core/qorutil.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "core/qorlock.h"
#include "platform/log1.h"
#include "platform/osv1.h"

QOR_TRACE_UNIT();

namespace {

QorMutex envVarsMutex(QorMutex::kNeverDestroyed);

// Values of environment variables, and of other agents under keys of their own.
// Kept: never cleared, and an entry once in is never replaced: a later change goes unseen.
// Requires: envVarsMutex held by the caller.
std::map<std::wstring, std::wstring>& qorEnvVars() QOR_REQUIRES(envVarsMutex) {
  // Never destroyed, like its mutex: a script worker may still expand a
  // command while the process runs its exit handlers.
  static auto* vars = new std::map<std::wstring, std::wstring>();
  return *vars;
}

// Each conversion sets LC_CTYPE from the environment again, on any thread.
// setlocale is not promised to be safe against itself on another thread, so
// the calls take turns; the lock covers setlocale alone, which every thread
// sets from the same environment, so that conversions do not wait for each
// other.
QorMutex localeMutex(QorMutex::kNeverDestroyed);

void setLocaleFromEnvironment() {
  QorMutexLock lock(&localeMutex);
  setlocale(LC_CTYPE, "");
}

}  // namespace

std::wstring qor_mbstowcs(const char* text) {
  QOR_TRACE_FUNCTION();
  setLocaleFromEnvironment();
  if (text == nullptr) return std::wstring();
  size_t length = strlen(text);
  std::vector<wchar_t> buffer(length + 1, L'\0');
  size_t converted = mbstowcs(buffer.data(), text, length + 1);
  if (converted == static_cast<size_t>(-1)) {
    QOR_TRACE_ERROR("mbstowcs returned -1");
    return std::wstring();
  }
  return std::wstring(buffer.data(), converted);
}

char* qor_wcstombs(const std::wstring& text) {
  setLocaleFromEnvironment();
  size_t size = text.size() * 4 + 1;
  // Zeroed: a failed conversion leaves the bytes behind its converted part
  // as they were, and the length of that part is read up to the first zero.
  char* result = new char[size]();
  size_t converted = wcstombs(result, text.c_str(), size);
  // A character the locale cannot express stops the conversion; what came
  // before it is kept.
  if (converted == static_cast<size_t>(-1)) converted = strnlen(result, size - 1);
  result[converted < size ? converted : size - 1] = '\0';
  return result;
}

std::string qor_narrow(const std::wstring& text) {
  char* narrow = qor_wcstombs(text);
  std::string result(narrow);
  delete[] narrow;
  return result;
}

std::wstring GetEnvVarValue(const std::wstring& name) {
  QorMutexLock lock(&envVarsMutex);
  auto found = qorEnvVars().find(name);
  return found == qorEnvVars().end() ? std::wstring() : found->second;
}

void SetEnvVarValue(const std::wstring& name, const std::wstring& value) {
  QOR_TRACE_FUNCTION();
  if (name.empty()) return;
  QOR_TRACE_DETAIL("Adding value %s for env var %s\n", QOR_N(value), QOR_N(name));
  QorMutexLock lock(&envVarsMutex);
  qorEnvVars().insert(std::make_pair(name, value));
}

std::wstring QOR_GetEnvironment(const std::wstring& name) {
  QOR_TRACE_FUNCTION();
  std::wstring value = GetEnvVarValue(name);
  if (!value.empty()) return value;

  std::string narrowName = qor_narrow(name);
  const char* raw = OSV1_GetEnv(narrowName.c_str(), 0);
  if (raw == nullptr) {
    QOR_TRACE_DETAIL("Env variable %s not defined.\n", narrowName.c_str());
    return std::wstring();
  }
  QOR_TRACE_DETAIL("Found env variable %s=%s.\n", narrowName.c_str(), raw);
  value = qor_mbstowcs(raw);

  if (name == L"MARLOWHOME") {
    QOR_TRACE_DETAIL("DEBUG - VarName is MARLOWHOME\n");
    if (!value.empty() && value.back() == L'/') {
      QOR_TRACE_DETAIL("DEBUG - current MARLOWHOME=%s.\n", QOR_N(value));
      value.erase(value.size() - 1);
      QOR_TRACE_DETAIL("DEBUG - modified MARLOWHOME=%s.\n", QOR_N(value));
    }
  }
  SetEnvVarValue(name, value);
  return value;
}

bool QOR_GetEnvironmentAsInt(const char* name, int& value) {
  QOR_TRACE_FUNCTION();
  const char* raw = OSV1_GetEnv(name, 0);
  if (raw == nullptr) {
    value = 0;
    return false;
  }
  QOR_TRACE_DETAIL("%s = %s.\n", name, raw);
  for (const char* p = raw; *p; ++p) {
    if (!isdigit(static_cast<unsigned char>(*p))) {
      value = 0;
      return false;
    }
  }
  // A number too large for an int counts as the largest int, rather than
  // whatever an overflowing conversion would make of it.
  long number = strtol(raw, nullptr, 10);
  value = number > INT_MAX ? INT_MAX : static_cast<int>(number);
  return true;
}

bool FileExists(const std::wstring& path) {
  QOR_TRACE_FUNCTION();
  std::string narrow = qor_narrow(path);
  FILE* file = fopen(narrow.c_str(), "r");
  if (file != nullptr) {
    fclose(file);
    QOR_TRACE_DETAIL("File found %s.\n", narrow.c_str());
    return true;
  }
  const int error = errno;
  // Out of descriptors, the process or the host, the open says nothing of the
  // file. Taken for missing, every agent's executable would be "not found"
  // and its agent dropped from supervision for good by one passing shortage;
  // access needs no descriptor and still asks for a readable file.
  if ((error == EMFILE || error == ENFILE) && access(narrow.c_str(), R_OK) == 0) {
    QOR_TRACE_DETAIL("File found %s.\n", narrow.c_str());
    return true;
  }
  QOR_TRACE_DETAIL("File not found %s. Error code (%d).\n", narrow.c_str(), error);
  return false;
}
