// The state file teo.dat: where it lies, and the streams that write and read
// it. Written only by PersistTEO, read while CAP files are processed. The path
// is fixed at first use.
#ifndef QOR_AGENTS_QORFST_H
#define QOR_AGENTS_QORFST_H

#include <fstream>
#include <string>

// The state file's name: the TEO directory, "/" and "teo.dat". Fixed at the first call.
std::string GetTeoDatPath();

// Opens the state file for writing, truncating it.
class QorOFStream : public std::wofstream {
 public:
  QorOFStream();
};

// Opens the state file for reading.
class QorIFStream : public std::wifstream {
 public:
  QorIFStream();
  // One line, cut at 255 characters.
  // Kept: a longer line fails the stream, and every later read gives an empty string.
  std::wstring getlineWstring();
  // One line as a decimal number; 0 when it is none.
  int getlineInt();
};

#endif  // QOR_AGENTS_QORFST_H
