#include "cap/qorconv.h"

#include <unicode/ustring.h>

#include <cstdarg>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <new>

#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

constexpr int STACK_UNITS = 128;
constexpr int FORMAT_UNITS = 16384;

// A text that does not fit, or fits exactly without room for its terminator,
// is converted again into a larger array.
bool needsMoreRoom(UErrorCode status, int32_t length) {
  return (status == U_BUFFER_OVERFLOW_ERROR || status == U_STRING_NOT_TERMINATED_WARNING) && length >= 0;
}

}  // namespace

char* qor_u_strToUTF8(char* destination, int capacity, int* outLength, const wchar_t* source,
                      int sourceLength, int* error) {
  QOR_TRACE_FUNCTION();
  *error = QOR_CONVERSION_ERROR;
  ConvertedText<UChar, STACK_UNITS> units;
  int32_t unitLength = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromWCS(units.buffer(), units.capacity(), &unitLength, source, sourceLength, &status);
  if (needsMoreRoom(status, unitLength)) {
    if (units.adopt(new (std::nothrow) UChar[unitLength + 4]) == nullptr) {
      QOR_TRACE_ERROR("Error allocating memory for converting from UTF32 to UTF16.");
      return nullptr;
    }
    status = U_ZERO_ERROR;
    u_strFromWCS(units.get(), unitLength + 4, &unitLength, source, sourceLength, &status);
  }
  if (U_FAILURE(status)) {
    QOR_TRACE_ERROR("Error %d converting from Unicode to UTF-8.", static_cast<int>(status));
    return nullptr;
  }

  // A larger array is the caller's only once it is returned.
  char* result = destination;
  std::unique_ptr<char[]> grown;
  int32_t length = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(result, capacity, &length, units.get(), unitLength, &status);
  if (needsMoreRoom(status, length)) {
    QOR_TRACE_DETAIL("Buffer too small.  Allocating new buffer.  Caller must free it.");
    grown.reset(new (std::nothrow) char[length + 4]);
    if (grown == nullptr) {
      QOR_TRACE_ERROR("Error allocating memory for converting from UTF-8 to Unicode.");
      return nullptr;
    }
    result = grown.get();
    status = U_ZERO_ERROR;
    u_strToUTF8(result, length + 4, &length, units.get(), unitLength, &status);
  }
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING) {
    if (status == U_STRING_NOT_TERMINATED_WARNING) {
      QOR_TRACE_ERROR("Buffer too small to zero terminate.");
    } else {
      QOR_TRACE_ERROR("Error %d converting from Unicode to UTF-8.", static_cast<int>(status));
    }
    return nullptr;
  }
  if (outLength != nullptr) *outLength = length;
  *error = 0;
  return grown != nullptr ? grown.release() : result;
}

UChar* qor_ucharFromUTF8(UChar* destination, int capacity, int* outLength, const char* source,
                         int sourceLength, int* error) {
  QOR_TRACE_FUNCTION();
  *error = QOR_CONVERSION_ERROR;
  // A larger array is the caller's only once it is returned.
  UChar* result = destination;
  std::unique_ptr<UChar[]> grown;
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(result, capacity, &length, source, sourceLength, &status);
  if (needsMoreRoom(status, length)) {
    grown.reset(new (std::nothrow) UChar[length + 4]);
    if (grown == nullptr) {
      QOR_TRACE_ERROR("Error allocating memory for converting from UTF-8 to UChar.");
      return nullptr;
    }
    result = grown.get();
    status = U_ZERO_ERROR;
    u_strFromUTF8(result, length + 4, &length, source, sourceLength, &status);
  }
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING) {
    if (status == U_STRING_NOT_TERMINATED_WARNING) {
      QOR_TRACE_ERROR("Buffer too small to zero terminate.");
    } else {
      QOR_TRACE_ERROR("Error %d converting from UTF-8 to UChar.", static_cast<int>(status));
    }
    return nullptr;
  }
  if (outLength != nullptr) *outLength = length;
  *error = 0;
  return grown != nullptr ? grown.release() : result;
}

wchar_t* qor_u_strFromUTF8(wchar_t* destination, int capacity, int* outLength, const char* source,
                           int sourceLength, int* error) {
  QOR_TRACE_FUNCTION();
  ConvertedText<UChar, STACK_UNITS> units;
  int32_t unitLength = 0;
  if (units.adopt(qor_ucharFromUTF8(units.buffer(), units.capacity(), &unitLength, source, sourceLength,
                                    error)) == nullptr) {
    return nullptr;
  }
  *error = QOR_CONVERSION_ERROR;

  // A wide text never has more characters than its UTF-16 form has units. A
  // larger array is the caller's only once it is returned.
  wchar_t* result = destination;
  std::unique_ptr<wchar_t[]> grown;
  int resultCapacity = capacity;
  if (unitLength >= capacity) {
    resultCapacity = unitLength + 4;
    grown.reset(new (std::nothrow) wchar_t[resultCapacity]);
    if (grown == nullptr) {
      QOR_TRACE_ERROR("Error allocating memory for converting from UChar to wchar_t.");
      return nullptr;
    }
    result = grown.get();
  }
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToWCS(result, resultCapacity, &length, units.get(), unitLength, &status);
  if (units.grown()) QOR_TRACE_DETAIL("Freeing the temporary UChar buffer.");
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING) {
    if (status == U_STRING_NOT_TERMINATED_WARNING) {
      QOR_TRACE_ERROR("Buffer too small to zero terminate.");
    } else {
      QOR_TRACE_ERROR("Error %d converting from UChar to wchar_t.", static_cast<int>(status));
    }
    return nullptr;
  }
  if (outLength != nullptr) *outLength = length;
  *error = 0;
  return grown != nullptr ? grown.release() : result;
}

std::string qor_utf8(const std::wstring& text) {
  ConvertedText<char, 256> utf8;
  int length = 0;
  int error = 0;
  if (utf8.adopt(qor_u_strToUTF8(utf8.buffer(), utf8.capacity(), &length, text.c_str(),
                                 static_cast<int>(text.size()), &error)) == nullptr) {
    return std::string();
  }
  return std::string(utf8.get(), static_cast<size_t>(length));
}

int QOR_swprintf(char* destination, size_t size, const wchar_t* format, ...) {
  QOR_TRACE_FUNCTION();
  if (destination == nullptr || size == 0) return -1;
  destination[0] = '\0';
  wchar_t wide[FORMAT_UNITS];
  va_list args;
  va_start(args, format);
  int formatted = vswprintf(wide, FORMAT_UNITS, format, args);
  va_end(args);
  if (formatted < 0) {
    QOR_TRACE_ERROR("Error %i formatting wide data for trace.", formatted);
    return -1;
  }
  // One byte stays for the terminator, which wcstombs leaves out when full.
  size_t converted = wcstombs(destination, wide, size - 1);
  if (converted == static_cast<size_t>(-1)) {
    QOR_TRACE_ERROR("Error %i converting wide data for trace.", -1);
    destination[0] = '\0';
    return -1;
  }
  destination[converted] = '\0';
  return static_cast<int>(converted);
}
