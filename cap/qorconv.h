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
// units that the caller frees with delete[]; a ConvertedText below tells the two
// apart for the caller. The terminator is always written. `outLength` receives
// the length without it. A `sourceLength` of -1 means a zero-terminated source.
// On failure the result is null and `*error` is 48, else `*error` is 0.
char* qor_u_strToUTF8(char* destination, int capacity, int* outLength, const wchar_t* source,
                      int sourceLength, int* error);
UChar* qor_ucharFromUTF8(UChar* destination, int capacity, int* outLength, const char* source,
                         int sourceLength, int* error);
wchar_t* qor_u_strFromUTF8(wchar_t* destination, int capacity, int* outLength, const char* source,
                           int sourceLength, int* error);

// Owns the text of a conversion into a stack buffer: the buffer itself, and the
// new[] array that the conversion answers with when the text does not fit, so
// that no caller has to compare the result with its buffer. Not copyable.
//
//   ConvertedText<char, 256> utf8;
//   utf8.adopt(qor_u_strToUTF8(utf8.buffer(), utf8.capacity(), &length, text, -1, &error));
//   if (utf8.get() != nullptr) use(utf8.get());
template <typename Unit, int Capacity>
class ConvertedText {
 public:
  ConvertedText() = default;
  ~ConvertedText() { freeGrown(); }
  ConvertedText(const ConvertedText&) = delete;
  ConvertedText& operator=(const ConvertedText&) = delete;

  // Where a conversion writes when the text fits, and its room in units.
  Unit* buffer() { return stack; }
  static constexpr int capacity() { return Capacity; }

  // Keeps what a conversion returned: buffer(), a new[] array, which is then
  // freed with the holder, or null. An array kept before is freed. Returns it.
  Unit* adopt(Unit* result) {
    freeGrown();
    text = result;
    return text;
  }

  // The kept text: buffer() before any adopt, null after a failed conversion.
  Unit* get() const { return text; }
  // The text lives in a new[] array rather than in the stack buffer.
  bool grown() const { return text != nullptr && text != stack; }

 private:
  void freeGrown() {
    if (grown()) delete[] text;
    text = nullptr;
  }

  Unit stack[Capacity];
  Unit* text = stack;
};

// Wide text as UTF-8 through qor_u_strToUTF8; empty when it cannot be converted.
std::string qor_utf8(const std::wstring& text);

// Formats wide text and converts it to narrow text in `destination`, always
// terminated. Returns the byte count, or -1 when formatting or conversion failed.
int QOR_swprintf(char* destination, size_t size, const wchar_t* format, ...);

#endif  // QOR_CAP_QORCONV_H
