// This machine as CAP files describe platforms, and the test of a CAP file's
// platform element against it. Used by the CAP file processor and qorctl.
// The description is built once, on the first call, and read-only afterwards.
#ifndef QOR_CAP_QORPLATFORM_H
#define QOR_CAP_QORPLATFORM_H

#include <string>

class XMLElement;

struct OSinfo_struct_t {
  char osType[32];       // the OS type reported by the base services
  char osVers[32];       // the OS version reported by the base services
  char zelHome[1024];    // the install directory reported by the base services
  char zelProcess[128];  // the process name reported by the base services
  std::wstring xsiPlatformType;
  std::wstring platformName;
  std::wstring platformKernelRelease;  // osVers, widened
  std::wstring platformVersion;        // the release file's text, or "UNKNOWN"
};

// This machine's platform, built on the first call and kept to the end of the process.
// Kept: a release file that changes later is not noticed.
OSinfo_struct_t* QOR_getOSinfo();

// Whether a platform element describes this machine: its xsi:type, its arch
// (against PROCESSOR_ARCHITECTURE), its name, versionString and kernelRelease
// must all equal this machine's; what it leaves out matches anything.
// Kept: `path` is not used.
bool isPlatformMatch(XMLElement& platform, const std::wstring& path);
// The same for the first platform child of a subagent; false without one.
bool isSubagentPlatformMatch(XMLElement& subagent, const std::wstring& path);

#endif  // QOR_CAP_QORPLATFORM_H
