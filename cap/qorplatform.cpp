#include "cap/qorplatform.h"

#include <unicode/ustring.h>

#include <cstdlib>
#include <cstring>

#include "cap/qorcapschema.h"
#include "cap/qorconv.h"
#include "cap/qorxml.h"
#include "core/qorutil.h"
#include "platform/hlx.h"
#include "platform/log1.h"
#include "platform/osv1.h"

QOR_TRACE_UNIT();

namespace {

constexpr int INFO_SIZE = 1024;
constexpr int VERSION_UNITS = 128;
constexpr int KERNEL_RELEASE_CHARS = 32;

// Copies a base-service fact into a field, cut to the field and terminated.
void copyInfo(int kind, char* field, size_t size, bool& ok) {
  char buffer[INFO_SIZE] = {0};
  ok = OSV1_Info(kind, buffer, INFO_SIZE) != 0;
  if (!ok) return;
  size_t length = strnlen(buffer, size - 1);
  memcpy(field, buffer, length);
  field[length] = '\0';
}

enum class ReleaseFile { Found, Empty, ConversionFailed, NotRun };

// Reads a distribution's release file through the shell into platformVersion.
ReleaseFile readReleaseFile(const char* command, OSinfo_struct_t& info) {
  QOR_TRACE_FUNCTION();
  int exitCode = -1;
  HLX::String output;
  HLX::String errors;
  if (!HLX::Util::runCommand(HLX::String("/bin/sh"), exitCode, output, errors, HLX::String(command), false)) {
    return ReleaseFile::NotRun;
  }
  if (exitCode != 0 || output.trim().length() == 0) return ReleaseFile::Empty;
  wchar_t version[VERSION_UNITS];
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToWCS(version, VERSION_UNITS, &length, reinterpret_cast<const UChar*>(output.getData()),
             output.length(), &status);
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING) {
    QOR_TRACE_ERROR("Error %d converting from UChar to wchar_t.", static_cast<int>(status));
    return ReleaseFile::ConversionFailed;
  }
  info.platformVersion.assign(version, static_cast<size_t>(length));
  return ReleaseFile::Found;
}

OSinfo_struct_t* buildOSinfo() {
  QOR_TRACE_FUNCTION();
  OSinfo_struct_t* info = new OSinfo_struct_t();
  info->osType[0] = info->osVers[0] = info->zelHome[0] = info->zelProcess[0] = '\0';

  bool ok = false;
  copyInfo(OSV1_INFO_OSTYPE, info->osType, sizeof info->osType, ok);
  if (!ok) QOR_TRACE_DETAIL("Error: OSV1_INFO_OSTYPE failed with %d.", 0);
  copyInfo(OSV1_INFO_OSVERS, info->osVers, sizeof info->osVers, ok);
  if (!ok) QOR_TRACE_DETAIL("Error: OSV1_INFO_OSVERS failed with %d.", 0);
  copyInfo(OSV1_INFO_ZELHOME, info->zelHome, sizeof info->zelHome, ok);
  if (!ok) QOR_TRACE_DETAIL("Error: OSV1_INFO_ZELHOME failed with %d.", 0);
  copyInfo(OSV1_INFO_ZELPROCESS, info->zelProcess, sizeof info->zelProcess, ok);
  if (!ok) QOR_TRACE_DETAIL("Error: OSV1_INFO_ZELPROCESS failed with %d.", 0);

  info->platformVersion = L"UNKNOWN";
  ReleaseFile suse = readReleaseFile("cat /etc/SuSE-release", *info);
  if (suse == ReleaseFile::Found) QOR_TRACE_DETAIL("Found /etc/SuSE-release file");
  if (suse != ReleaseFile::Found && suse != ReleaseFile::ConversionFailed) {
    ReleaseFile redhat = readReleaseFile("cat /etc/redhat-release", *info);
    if (redhat == ReleaseFile::Found) {
      QOR_TRACE_DETAIL("Found /etc/redhat-release file");
    } else if (redhat == ReleaseFile::Empty) {
      QOR_TRACE_ERROR(
          "A Linux release file was not found.  The detection of platform version is now disabled.");
    } else if (redhat == ReleaseFile::NotRun) {
      QOR_TRACE_DETAIL(
          "Error running the cat command. Previous log entries contain detailed error information.");
    }
  }

  wchar_t release[KERNEL_RELEASE_CHARS + 1] = {0};
  size_t converted = mbstowcs(release, info->osVers, KERNEL_RELEASE_CHARS);
  if (converted == 0 || converted == static_cast<size_t>(-1)) {
    QOR_TRACE_DETAIL("Error %d converting OSver from char to wchar_t.", static_cast<int>(converted));
  } else {
    info->platformKernelRelease.assign(release, converted);
  }

  info->xsiPlatformType = ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMLINUX;
  info->platformName = ELEMENT_VALUE_OSNAMELINUX;
  QOR_TRACE_DETAIL("QOR_getOSinfo:OSinfoData->xsiPlatformType:%s:", qor_utf8(info->xsiPlatformType).c_str());
  QOR_TRACE_DETAIL("QOR_getOSinfo:OSinfoData->platformName:%s:", qor_utf8(info->platformName).c_str());
  QOR_TRACE_DETAIL("QOR_getOSinfo:OSinfoData->platformKernelRelease:%s:",
                   qor_utf8(info->platformKernelRelease).c_str());
  QOR_TRACE_DETAIL("QOR_getOSinfo:OSinfoData->platformVersion:%s:", qor_utf8(info->platformVersion).c_str());
  return info;
}

}  // namespace

OSinfo_struct_t* QOR_getOSinfo() {
  // Built once; the first caller may be any thread, so the initialisation of
  // a local static does the locking.
  static OSinfo_struct_t* const info = buildOSinfo();
  return info;
}

bool isPlatformMatch(XMLElement& platform, const std::wstring& /*path*/) {
  if (platform.getName() != ELEMENT_NAME_PLATFORM) return false;
  const OSinfo_struct_t* info = QOR_getOSinfo();
  bool match = true;
  for (auto attribute = platform.getAtts().begin(); match && attribute != platform.getAtts().end();
       ++attribute) {
    if (attribute->first == ATTRIBUTE_NAME_XSI_TYPE) {
      match = attribute->second == info->xsiPlatformType;
    } else if (attribute->first == ATTRIBUTE_NAME_ARCH) {
      match = attribute->second == QOR_GetEnvironment(L"PROCESSOR_ARCHITECTURE");
    }
  }
  for (auto child = platform.getChildren().begin(); match && child != platform.getChildren().end(); ++child) {
    if (child->getName() == ELEMENT_NAME_NAME) {
      match = child->getValue() == info->platformName;
    } else if (child->getName() == ELEMENT_NAME_VERSIONSTRING) {
      match = child->getValue() == info->platformVersion;
    } else if (child->getName() == ELEMENT_NAME_KERNELRELEASE) {
      match = child->getValue() == info->platformKernelRelease;
    }
  }
  return match;
}

bool isSubagentPlatformMatch(XMLElement& subagent, const std::wstring& path) {
  for (XMLElement& child : subagent.getChildren()) {
    if (child.getName() == ELEMENT_NAME_PLATFORM) return isPlatformMatch(child, path);
  }
  return false;
}
