#include "cap/qorconv.h"

#include <unicode/ustring.h>

#include <cstdarg>
#include <cstdlib>
#include <cwchar>
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

// Owns a temporary array when a conversion needed one.
template <typename Unit>
class Grown {
 public:
  Grown() = default;
  ~Grown() { delete[] units; }
  Grown(const Grown&) = delete;
  Grown& operator=(const Grown&) = delete;
  Unit* units = nullptr;
};

}  // namespace

char* qor_u_strToUTF8(char* destination, int capacity, int* outLength, const wchar_t* source,
                      int sourceLength, int* error) {
  QOR_TRACE_FUNCTION();
  *error = QOR_CONVERSION_ERROR;
  UChar stackUnits[STACK_UNITS];
  UChar* units = stackUnits;
  Grown<UChar> grownUnits;
  int32_t unitLength = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromWCS(units, STACK_UNITS, &unitLength, source, sourceLength, &status);
  if (needsMoreRoom(status, unitLength)) {
    grownUnits.units = new (std::nothrow) UChar[unitLength + 4];
    if (grownUnits.units == nullptr) {
      QOR_TRACE_ERROR("Error allocating memory for converting from UTF32 to UTF16.");
      return nullptr;
    }
    units = grownUnits.units;
    status = U_ZERO_ERROR;
    u_strFromWCS(units, unitLength + 4, &unitLength, source, sourceLength, &status);
  }
  if (U_FAILURE(status)) {
    QOR_TRACE_ERROR("Error %d converting from Unicode to UTF-8.", static_cast<int>(status));
    return nullptr;
  }

  char* result = destination;
  int32_t length = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(result, capacity, &length, units, unitLength, &status);
  if (needsMoreRoom(status, length)) {
    QOR_TRACE_DETAIL("Buffer too small.  Allocating new buffer.  Caller must free it.");
    result = new (std::nothrow) char[length + 4];
    if (result == nullptr) {
      QOR_TRACE_ERROR("Error allocating memory for converting from UTF-8 to Unicode.");
      return nullptr;
    }
    status = U_ZERO_ERROR;
    u_strToUTF8(result, length + 4, &length, units, unitLength, &status);
  }
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING) {
    if (status == U_STRING_NOT_TERMINATED_WARNING) {
      QOR_TRACE_ERROR("Buffer too small to zero terminate.");
    } else {
      QOR_TRACE_ERROR("Error %d converting from Unicode to UTF-8.", static_cast<int>(status));
    }
    if (result != destination) delete[] result;
    return nullptr;
  }
  if (outLength != nullptr) *outLength = length;
  *error = 0;
  return result;
}

UChar* qor_ucharFromUTF8(UChar* destination, int capacity, int* outLength, const char* source,
                         int sourceLength, int* error) {
  QOR_TRACE_FUNCTION();
  *error = QOR_CONVERSION_ERROR;
  UChar* result = destination;
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(result, capacity, &length, source, sourceLength, &status);
  if (needsMoreRoom(status, length)) {
    result = new (std::nothrow) UChar[length + 4];
    if (result == nullptr) {
      QOR_TRACE_ERROR("Error allocating memory for converting from UTF-8 to UChar.");
      return nullptr;
    }
    status = U_ZERO_ERROR;
    u_strFromUTF8(result, length + 4, &length, source, sourceLength, &status);
  }
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING) {
    if (status == U_STRING_NOT_TERMINATED_WARNING) {
      QOR_TRACE_ERROR("Buffer too small to zero terminate.");
    } else {
      QOR_TRACE_ERROR("Error %d converting from UTF-8 to UChar.", static_cast<int>(status));
    }
    if (result != destination) delete[] result;
    return nullptr;
  }
  if (outLength != nullptr) *outLength = length;
  *error = 0;
  return result;
}

wchar_t* qor_u_strFromUTF8(wchar_t* destination, int capacity, int* outLength, const char* source,
                           int sourceLength, int* error) {
  QOR_TRACE_FUNCTION();
  UChar stackUnits[STACK_UNITS];
  int32_t unitLength = 0;
  UChar* units = qor_ucharFromUTF8(stackUnits, STACK_UNITS, &unitLength, source, sourceLength, error);
  if (units == nullptr) return nullptr;
  Grown<UChar> grownUnits;
  if (units != stackUnits) grownUnits.units = units;
  *error = QOR_CONVERSION_ERROR;

  // A wide text never has more characters than its UTF-16 form has units.
  wchar_t* result = destination;
  int resultCapacity = capacity;
  if (unitLength >= capacity) {
    resultCapacity = unitLength + 4;
    result = new (std::nothrow) wchar_t[resultCapacity];
    if (result == nullptr) {
      QOR_TRACE_ERROR("Error allocating memory for converting from UChar to wchar_t.");
      return nullptr;
    }
  }
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToWCS(result, resultCapacity, &length, units, unitLength, &status);
  if (grownUnits.units != nullptr) QOR_TRACE_DETAIL("Freeing the temporary UChar buffer.");
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING) {
    if (status == U_STRING_NOT_TERMINATED_WARNING) {
      QOR_TRACE_ERROR("Buffer too small to zero terminate.");
    } else {
      QOR_TRACE_ERROR("Error %d converting from UChar to wchar_t.", static_cast<int>(status));
    }
    if (result != destination) delete[] result;
    return nullptr;
  }
  if (outLength != nullptr) *outLength = length;
  *error = 0;
  return result;
}

std::string qor_utf8(const std::wstring& text) {
  char buffer[256];
  int length = 0;
  int error = 0;
  char* utf8 =
      qor_u_strToUTF8(buffer, sizeof buffer, &length, text.c_str(), static_cast<int>(text.size()), &error);
  if (utf8 == nullptr) return std::string();
  std::string result(utf8, static_cast<size_t>(length));
  if (utf8 != buffer) delete[] utf8;
  return result;
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
