#include "cap/qorcapschema.h"

#include <initializer_list>

#include "platform/log1.h"

QOR_TRACE_UNIT();

const std::wstring CAP_NAMESPACE_URI = L"urn:qor:cap";
const std::wstring CAP_SCHEMA_FILE_NAME = L"mdhcap.xsd";
const std::wstring XML_SCHEMA_INSTANCE_URI = L"http://www.w3.org/2001/XMLSchema-instance";

const std::wstring ELEMENT_NAME_ROOT = L"ROOTNOMATCHJ";
const std::wstring ELEMENT_NAME_SUBAGENTS = L"subagents";
const std::wstring ELEMENT_NAME_SUBAGENT = L"subagent";
const std::wstring ELEMENT_NAME_AGENTNAME = L"agentName";
const std::wstring ELEMENT_NAME_INSTANCE = L"instance";
const std::wstring ELEMENT_NAME_NAME = L"name";
const std::wstring ELEMENT_NAME_PROCESS = L"process";
const std::wstring ELEMENT_NAME_PROCNAME = L"procName";
const std::wstring ELEMENT_NAME_COMMANDLINE = L"commandLine";
const std::wstring ELEMENT_NAME_PRODUCTCODE = L"productCode";
const std::wstring ELEMENT_NAME_AGENTTYPE = L"agentType";
const std::wstring ELEMENT_NAME_AGENTPATH = L"agentPath";
const std::wstring ELEMENT_NAME_VERSIONSCRIPT = L"agentVersionScript";
const std::wstring ELEMENT_NAME_BUILDNUMSCRIPT = L"agentBuildNumberScript";
const std::wstring ELEMENT_NAME_SERVICENAME = L"serviceName";
const std::wstring ELEMENT_NAME_PLATFORM = L"platform";
const std::wstring ELEMENT_NAME_VERSIONSTRING = L"versionString";
const std::wstring ELEMENT_NAME_KERNELRELEASE = L"kernelRelease";
const std::wstring ELEMENT_NAME_CHECKFREQUENCY = L"checkFrequency";
const std::wstring ELEMENT_NAME_CPUTHRESHOLD = L"cpuThreshold";
const std::wstring ELEMENT_NAME_MEMORYTHRESHOLD = L"memoryThreshold";
const std::wstring ELEMENT_NAME_DEPENDENTAGENT = L"dependentAgent";
const std::wstring ELEMENT_NAME_MANAGERTYPE = L"managerType";
const std::wstring ELEMENT_NAME_MAXRESTARTS = L"maxRestarts";
const std::wstring ELEMENT_NAME_STARTSCRIPT = L"startScript";
const std::wstring ELEMENT_NAME_STOPSCRIPT = L"stopScript";
const std::wstring ELEMENT_NAME_AVAILABILITYSTATUSSCRIPT = L"availabilityStatusScript";
const std::wstring ELEMENT_NAME_CONFIGSCRIPT = L"configScript";
const std::wstring ELEMENT_NAME_COMMAND = L"command";
const std::wstring ELEMENT_NAME_RETURNCODELIST = L"returnCodeList";
const std::wstring ELEMENT_NAME_RETURNCODE = L"returnCode";

const std::wstring ATTRIBUTE_NAME_XMLNS = L"xmlns";
const std::wstring ATTRIBUTE_NAME_XMLNS_XSI = L"xmlns:xsi";
const std::wstring ATTRIBUTE_NAME_XSI_SCHEMALOCATION = L"xsi:schemaLocation";
const std::wstring ATTRIBUTE_NAME_XSI_TYPE = L"xsi:type";
const std::wstring ATTRIBUTE_NAME_ID = L"id";
const std::wstring ATTRIBUTE_NAME_REGEX = L"regex";
const std::wstring ATTRIBUTE_NAME_ARCH = L"arch";
const std::wstring ATTRIBUTE_NAME_TYPE = L"type";
const std::wstring ATTRIBUTE_NAME_MSGID = L"msg_id";
const std::wstring ATTRIBUTE_NAME_REGEX_TRUEB = L"1";
const std::wstring ATTRIBUTE_NAME_REGEX_TRUES = L"true";

const std::wstring ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMWINDOWS = L"PlatformWindows";
const std::wstring ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMLINUX = L"PlatformLinux";
const std::wstring ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMUNIX = L"PlatformUnix";
const std::wstring ATTRIBUTE_VALUE_TYPE_OK = L"OK";
const std::wstring ATTRIBUTE_VALUE_TYPE_ERROR = L"Error";
const std::wstring ATTRIBUTE_VALUE_ARCH_32 = L"x86";
const std::wstring ATTRIBUTE_VALUE_ARCH_64 = L"AMD64";

const std::wstring ELEMENT_VALUE_OSNAMEWINDOWS2000 = L"Windows 2000";
const std::wstring ELEMENT_VALUE_OSNAMEWINDOWSXP = L"Windows XP";
const std::wstring ELEMENT_VALUE_OSNAMEWINDOWSVISTA = L"Windows Vista";
const std::wstring ELEMENT_VALUE_OSNAMEWINDOWS2003 = L"Windows Server 2003";
const std::wstring ELEMENT_VALUE_OSNAMEWINDOWS2008 = L"Windows Server 2008";
const std::wstring ELEMENT_VALUE_OSNAMELINUX = L"Linux";
const std::wstring ELEMENT_VALUE_OSNAMEAIX = L"AIX";
const std::wstring ELEMENT_VALUE_OSNAMEHPUX = L"HP-UX";
const std::wstring ELEMENT_VALUE_OSNAMESOLARIS = L"SunOS";

namespace {

// The entries of the tables. They are built from literals, not from the
// constants above, so that no table depends on the order of initialisation.
const XMLValueMap_AgentType AGENT_TYPE_WINSERVICE(L"WinService", WinService);
const XMLValueMap_AgentType AGENT_TYPE_LNXSERVICE(L"LnxService", LnxService);
const XMLValueMap_AgentType AGENT_TYPE_UNIXDAEMON(L"UnixDaemon", UnixDaemon);
const XMLValueMap_AgentType AGENT_TYPE_CONSOLE(L"Console", Console);
const XMLValueMap_AgentType AGENT_TYPE_ZEL_UNIX(L"ZEL_UNIX", ZEL_UNIX);
const XMLValueMap_AgentType AGENT_TYPE_DISCOVERZEL(L"DiscoverZEL", DiscoverZEL);
const XMLValueMap_AgentType AGENT_TYPE_DISCOVERBIN(L"DiscoverBIN", DiscoverBIN);
const XMLValueMap_AgentType AGENT_TYPE_ZEL_WINDOWS(L"ZEL_Windows", ZEL_Windows);

const XMLValueMap_ManagerType MANAGER_TYPE_TEOSERVICES(L"TeoServices", TeoServices);
const XMLValueMap_ManagerType MANAGER_TYPE_WATCHDOG(L"WatchDog", WatchDog);
const XMLValueMap_ManagerType MANAGER_TYPE_EXTERNAL(L"External", External);
const XMLValueMap_ManagerType MANAGER_TYPE_NOTMANAGED(L"NotManaged", NotManaged);

const XMLValueMap OS_NAME_WINDOWS2000(L"Windows 2000");
const XMLValueMap OS_NAME_WINDOWSXP(L"Windows XP");
const XMLValueMap OS_NAME_WINDOWSVISTA(L"Windows Vista");
const XMLValueMap OS_NAME_WINDOWS2003(L"Windows Server 2003");
const XMLValueMap OS_NAME_WINDOWS2008(L"Windows Server 2008");
const XMLValueMap OS_NAME_LINUX(L"Linux");
const XMLValueMap OS_NAME_AIX(L"AIX");
const XMLValueMap OS_NAME_HPUX(L"HP-UX");
const XMLValueMap OS_NAME_SOLARIS(L"SunOS");

const XMLValueMap PLATFORM_WINDOWS(L"PlatformWindows");
const XMLValueMap PLATFORM_LINUX(L"PlatformLinux");
const XMLValueMap PLATFORM_UNIX(L"PlatformUnix");

const XMLValueMap XMLNS_CAP(L"urn:qor:cap");
const XMLValueMap XMLNS_XSI(L"http://www.w3.org/2001/XMLSchema-instance");
const XMLValueMap SCHEMA_LOCATION(L"urn:qor:cap mdhcap.xsd");

const XMLValueMap TYPE_OK(L"OK");
const XMLValueMap TYPE_ERROR(L"Error");

const XMLValueMap ARCH_32(L"x86");
const XMLValueMap ARCH_64(L"AMD64");

}  // namespace

const XMLValueMap* const ELEMENT_VALUES_AGENTTYPE[] = {
    &AGENT_TYPE_WINSERVICE,  &AGENT_TYPE_LNXSERVICE,  &AGENT_TYPE_UNIXDAEMON,
    &AGENT_TYPE_CONSOLE,     &AGENT_TYPE_ZEL_UNIX,    &AGENT_TYPE_DISCOVERZEL,
    &AGENT_TYPE_DISCOVERBIN, &AGENT_TYPE_ZEL_WINDOWS, nullptr,
};
const XMLValueMap* const ELEMENT_VALUES_MANAGERTYPE[] = {
    &MANAGER_TYPE_TEOSERVICES,
    &MANAGER_TYPE_WATCHDOG,
    &MANAGER_TYPE_EXTERNAL,
    &MANAGER_TYPE_NOTMANAGED,
    nullptr,
};
const XMLValueMap* const ELEMENT_VALUES_OSNAME[] = {
    &OS_NAME_WINDOWS2000,  &OS_NAME_WINDOWSXP,
    &OS_NAME_WINDOWSVISTA, &OS_NAME_WINDOWS2003,
    &OS_NAME_WINDOWS2008,  &OS_NAME_LINUX,
    &OS_NAME_AIX,          &OS_NAME_HPUX,
    &OS_NAME_SOLARIS,      nullptr,
};
const XMLValueMap* const ATTRIBUTE_VALUES_XSI_TYPE_PLATFORMS[] = {&PLATFORM_WINDOWS, &PLATFORM_LINUX,
                                                                  &PLATFORM_UNIX, nullptr};
const XMLValueMap* const ATTRIBUTE_VALUES_XMLNS[] = {&XMLNS_CAP, nullptr};
const XMLValueMap* const ATTRIBUTE_VALUES_XMLNS_XSI[] = {&XMLNS_XSI, nullptr};
const XMLValueMap* const ATTRIBUTE_VALUES_XSI_SCHEMALOCATION[] = {&SCHEMA_LOCATION, nullptr};
const XMLValueMap* const ATTRIBUTE_VALUES_TYPE[] = {&TYPE_OK, &TYPE_ERROR, nullptr};
const XMLValueMap* const ATTRIBUTE_VALUES_ARCH[] = {&ARCH_32, &ARCH_64, nullptr};

namespace {

// A child sequence of deep copies, in the given order.
XMLElementConstraintsList sequence(std::initializer_list<const XMLElementConstraints*> items) {
  XMLElementConstraintsList list;
  for (const XMLElementConstraints* item : items) list.push_back(pimpl<XMLElementConstraints>(*item));
  return list;
}

// An element with text content, no attributes and no children.
XMLElementConstraints text(const std::wstring& name, int minOccurs, int maxOccurs,
                           XMLValueParser parser = nullptr, const XMLValueMap* const* table = nullptr) {
  return XMLElementConstraints(name, minOccurs, maxOccurs, parser, table);
}

XMLElementConstraints parent(const std::wstring& name, int minOccurs, int maxOccurs,
                             const XMLAttributeConstraintsList& attributes,
                             const XMLElementConstraintsList& children) {
  return XMLElementConstraints(name, minOccurs, maxOccurs, nullptr, nullptr, attributes, children);
}

XMLAttributeConstraints optional(const std::wstring& name, const XMLValueMap* const* table = nullptr) {
  return XMLAttributeConstraints(name, false, nullptr, table);
}

XMLAttributeConstraints required(const std::wstring& name, const XMLValueMap* const* table = nullptr) {
  return XMLAttributeConstraints(name, true, nullptr, table);
}

// The platform element: a base common to all platforms, and per xsi:type the
// elements only that platform knows.
XMLAbstractElementConstraints platform() {
  XMLElementConstraints kernelRelease = text(ELEMENT_NAME_KERNELRELEASE, 0, 1);
  XMLElementConstraints windowsForm = parent(ELEMENT_NAME_PLATFORM, 0, 1, {}, {});
  XMLElementConstraints linuxForm = parent(ELEMENT_NAME_PLATFORM, 0, 1, {}, sequence({&kernelRelease}));
  XMLElementConstraints unixForm = parent(ELEMENT_NAME_PLATFORM, 0, 1, {}, {});

  XMLElementConstraints osName = text(ELEMENT_NAME_NAME, 0, 1, nullptr, ELEMENT_VALUES_OSNAME);
  XMLElementConstraints versionString = text(ELEMENT_NAME_VERSIONSTRING, 0, 1);
  XMLElementConstraints base = parent(ELEMENT_NAME_PLATFORM, 1, 1,
                                      {required(ATTRIBUTE_NAME_XSI_TYPE, ATTRIBUTE_VALUES_XSI_TYPE_PLATFORMS),
                                       optional(ATTRIBUTE_NAME_ARCH, ATTRIBUTE_VALUES_ARCH)},
                                      sequence({&osName, &versionString}));

  XMLAbstractElementConstraints::DerivedForms derived;
  derived.emplace_back(ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMWINDOWS, windowsForm);
  derived.emplace_back(ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMLINUX, linuxForm);
  derived.emplace_back(ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMUNIX, unixForm);
  return XMLAbstractElementConstraints(ELEMENT_NAME_PLATFORM, 1, 1, base, derived);
}

}  // namespace

XMLElementConstraints* XMLElementConstraints::createCAP() {
  QOR_TRACE_FUNCTION();
  // What the six script elements share.
  XMLElementConstraints returnCode =
      parent(ELEMENT_NAME_RETURNCODE, 1, 20,
             {optional(ATTRIBUTE_NAME_MSGID), required(ATTRIBUTE_NAME_TYPE, ATTRIBUTE_VALUES_TYPE)}, {});
  XMLElementConstraints command = text(ELEMENT_NAME_COMMAND, 1, 1);
  XMLElementConstraints returnCodeList =
      parent(ELEMENT_NAME_RETURNCODELIST, 0, 1, {}, sequence({&returnCode}));
  XMLElementConstraintsList scriptContent = sequence({&command, &returnCodeList});
  auto script = [&scriptContent](const std::wstring& name) { return parent(name, 0, 1, {}, scriptContent); };

  XMLElementConstraints processName = text(ELEMENT_NAME_PROCNAME, 0, 1);
  XMLElementConstraints commandLine =
      parent(ELEMENT_NAME_COMMANDLINE, 0, 1, {optional(ATTRIBUTE_NAME_REGEX)}, {});
  // Kept: an instance name accepts regex as commandLine does, though only commandLine gives it a meaning.
  XMLElementConstraints instanceName =
      parent(ELEMENT_NAME_NAME, 0, 500, {optional(ATTRIBUTE_NAME_REGEX)}, {});

  XMLElementConstraints agentName = text(ELEMENT_NAME_AGENTNAME, 1, 1);
  XMLElementConstraints instance = parent(ELEMENT_NAME_INSTANCE, 0, 1, {}, sequence({&instanceName}));
  XMLElementConstraints process =
      parent(ELEMENT_NAME_PROCESS, 0, 1, {}, sequence({&processName, &commandLine}));
  XMLElementConstraints productCode = text(ELEMENT_NAME_PRODUCTCODE, 0, 1);
  XMLElementConstraints agentType = text(ELEMENT_NAME_AGENTTYPE, 1, 1, nullptr, ELEMENT_VALUES_AGENTTYPE);
  XMLElementConstraints agentPath = text(ELEMENT_NAME_AGENTPATH, 1, 1);
  XMLElementConstraints versionScript = script(ELEMENT_NAME_VERSIONSCRIPT);
  XMLElementConstraints buildNumberScript = script(ELEMENT_NAME_BUILDNUMSCRIPT);
  XMLElementConstraints serviceName = text(ELEMENT_NAME_SERVICENAME, 0, 1);
  XMLAbstractElementConstraints platformForms = platform();
  XMLElementConstraints checkFrequency = text(ELEMENT_NAME_CHECKFREQUENCY, 0, 1, parsePosIntMod5);
  XMLElementConstraints cpuThreshold = text(ELEMENT_NAME_CPUTHRESHOLD, 0, 1, parsePosInt);
  XMLElementConstraints memoryThreshold = text(ELEMENT_NAME_MEMORYTHRESHOLD, 0, 1, parseMemorySize);
  XMLElementConstraints dependentAgent = text(ELEMENT_NAME_DEPENDENTAGENT, 0, 500);
  XMLElementConstraints managerType =
      text(ELEMENT_NAME_MANAGERTYPE, 1, 1, nullptr, ELEMENT_VALUES_MANAGERTYPE);
  XMLElementConstraints maxRestarts = text(ELEMENT_NAME_MAXRESTARTS, 1, 1, parseNonNegInt);
  XMLElementConstraints startScript = script(ELEMENT_NAME_STARTSCRIPT);
  XMLElementConstraints stopScript = script(ELEMENT_NAME_STOPSCRIPT);
  XMLElementConstraints availabilityStatusScript = script(ELEMENT_NAME_AVAILABILITYSTATUSSCRIPT);
  XMLElementConstraints configScript = script(ELEMENT_NAME_CONFIGSCRIPT);

  XMLElementConstraints subagent =
      parent(ELEMENT_NAME_SUBAGENT, 1, 20, {required(ATTRIBUTE_NAME_ID)},
             sequence({&agentName,         &instance,        &process,        &processName,
                       &productCode,       &agentType,       &agentPath,      &versionScript,
                       &buildNumberScript, &serviceName,     &platformForms,  &checkFrequency,
                       &cpuThreshold,      &memoryThreshold, &dependentAgent, &managerType,
                       &maxRestarts,       &startScript,     &stopScript,     &availabilityStatusScript,
                       &configScript}));
  XMLElementConstraints subagents =
      parent(ELEMENT_NAME_SUBAGENTS, 1, 1,
             {required(ATTRIBUTE_NAME_XMLNS, ATTRIBUTE_VALUES_XMLNS),
              required(ATTRIBUTE_NAME_XMLNS_XSI, ATTRIBUTE_VALUES_XMLNS_XSI),
              required(ATTRIBUTE_NAME_XSI_SCHEMALOCATION, ATTRIBUTE_VALUES_XSI_SCHEMALOCATION)},
             sequence({&subagent}));
  // The document itself: no element matches it, so the root element of a file
  // is checked as a child like any other.
  return new XMLElementConstraints(ELEMENT_NAME_ROOT, 1, 1, nullptr, nullptr, {}, sequence({&subagents}));
}
