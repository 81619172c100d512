// Text conversions of the CAP file handling: wide text to UTF-8, UTF-8 to
// ICU's UTF-16 and to wide text, and wide formatting for traces. Used by the
// XML engine and the CAP file processor. Stateless; safe from any thread.
#ifndef QOR_CAP_QORCONV_H
#define QOR_CAP_QORCONV_H

#include <unicode/utypes.h>

#include <cstddef>
#include <string>

// The error value of a failed conversion; the XML result code
// XML_CONVERSION_FAILED is this value.
constexpr int QOR_CONVERSION_ERROR = 48;

// Each conversion writes into `destination` (room for `capacity` units) when the
// text fits with its terminator, and otherwise into a new[] array of length + 4
// units that the caller frees with delete[]: compare the result with your own
// buffer. The terminator is always written. `outLength` receives the length
// without it. A `sourceLength` of -1 means a zero-terminated source. On failure
// the result is null and `*error` is 48, else `*error` is 0.
char* qor_u_strToUTF8(char* destination, int capacity, int* outLength, const wchar_t* source,
                      int sourceLength, int* error);
UChar* qor_ucharFromUTF8(UChar* destination, int capacity, int* outLength, const char* source,
                         int sourceLength, int* error);
wchar_t* qor_u_strFromUTF8(wchar_t* destination, int capacity, int* outLength, const char* source,
                           int sourceLength, int* error);

// Wide text as UTF-8 through qor_u_strToUTF8; empty when it cannot be converted.
std::string qor_utf8(const std::wstring& text);

// Formats wide text and converts it to narrow text in `destination`, always
// terminated. Returns the byte count, or -1 when formatting or conversion failed.
int QOR_swprintf(char* destination, size_t size, const wchar_t* format, ...);

#endif  // QOR_CAP_QORCONV_H
