// The state file teo.dat: where it lies, and the streams that write and read
// it. Written only by PersistTEO, read by Controller::ReadAgent while CAP
// files are processed, on the command handler thread with the list locked.
// The path is fixed at first use.
#ifndef QOR_AGENTS_QORFST_H
#define QOR_AGENTS_QORFST_H

#include <fstream>
#include <string>

class Agent;

// The state file's name: the TEO directory, "/" and "teo.dat". Fixed at the first call.
std::string GetTeoDatPath();

// Writes the state file, UTF-8 whatever the process's locale.
class QorOFStream : public std::wofstream {
 public:
  // Opens the state file, truncating it.
  QorOFStream();
  // Opens `path`, truncating it: PersistTEO writes a temporary beside the
  // state file and renames it over the state file when it is complete.
  explicit QorOFStream(const std::string& path);
};

// Reads the state file, UTF-8 whatever the process's locale.
class QorIFStream : public std::wifstream {
 public:
  // Opens the state file for reading.
  QorIFStream();
  // One line, cut at 255 characters.
  // Kept: a longer line fails the stream, and every later read gives an empty string.
  std::wstring getlineWstring();
  // One line as a decimal number; 0 when it is none. A number past the range
  // of int gives the nearest bound.
  int getlineInt();
};

// One record into `agent`, by the layout its version line names. A record of
// an unknown version is read as its first two lines only.
QorIFStream& operator>>(QorIFStream& in, Agent& agent);
// One record of the current layout, each line flushed.
QorOFStream& operator<<(QorOFStream& out, Agent& agent);

#endif  // QOR_AGENTS_QORFST_H
