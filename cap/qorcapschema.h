// The names and allowed values of the CAP format, shared by the schema tree
// that XMLElementConstraints::createCAP builds and by the file processor that
// maps a parsed file to a Policy. Constants built when the library loads;
// read-only afterwards, so safe from any thread.
#ifndef QOR_CAP_QORCAPSCHEMA_H
#define QOR_CAP_QORCAPSCHEMA_H

#include <string>

#include "cap/qorxml.h"

// The namespace every CAP file declares, and the schema file it names.
extern const std::wstring CAP_NAMESPACE_URI;
extern const std::wstring CAP_SCHEMA_FILE_NAME;
extern const std::wstring XML_SCHEMA_INSTANCE_URI;

extern const std::wstring ELEMENT_NAME_ROOT;
extern const std::wstring ELEMENT_NAME_SUBAGENTS;
extern const std::wstring ELEMENT_NAME_SUBAGENT;
extern const std::wstring ELEMENT_NAME_AGENTNAME;
extern const std::wstring ELEMENT_NAME_INSTANCE;
extern const std::wstring ELEMENT_NAME_NAME;
extern const std::wstring ELEMENT_NAME_PROCESS;
extern const std::wstring ELEMENT_NAME_PROCNAME;
extern const std::wstring ELEMENT_NAME_COMMANDLINE;
extern const std::wstring ELEMENT_NAME_PRODUCTCODE;
extern const std::wstring ELEMENT_NAME_AGENTTYPE;
extern const std::wstring ELEMENT_NAME_AGENTPATH;
extern const std::wstring ELEMENT_NAME_VERSIONSCRIPT;
extern const std::wstring ELEMENT_NAME_BUILDNUMSCRIPT;
extern const std::wstring ELEMENT_NAME_SERVICENAME;
extern const std::wstring ELEMENT_NAME_PLATFORM;
extern const std::wstring ELEMENT_NAME_VERSIONSTRING;
extern const std::wstring ELEMENT_NAME_KERNELRELEASE;
extern const std::wstring ELEMENT_NAME_CHECKFREQUENCY;
extern const std::wstring ELEMENT_NAME_CPUTHRESHOLD;
extern const std::wstring ELEMENT_NAME_MEMORYTHRESHOLD;
extern const std::wstring ELEMENT_NAME_DEPENDENTAGENT;
extern const std::wstring ELEMENT_NAME_MANAGERTYPE;
extern const std::wstring ELEMENT_NAME_MAXRESTARTS;
extern const std::wstring ELEMENT_NAME_STARTSCRIPT;
extern const std::wstring ELEMENT_NAME_STOPSCRIPT;
extern const std::wstring ELEMENT_NAME_AVAILABILITYSTATUSSCRIPT;
extern const std::wstring ELEMENT_NAME_CONFIGSCRIPT;
extern const std::wstring ELEMENT_NAME_COMMAND;
extern const std::wstring ELEMENT_NAME_RETURNCODELIST;
extern const std::wstring ELEMENT_NAME_RETURNCODE;

extern const std::wstring ATTRIBUTE_NAME_XMLNS;
extern const std::wstring ATTRIBUTE_NAME_XMLNS_XSI;
extern const std::wstring ATTRIBUTE_NAME_XSI_SCHEMALOCATION;
extern const std::wstring ATTRIBUTE_NAME_XSI_TYPE;
extern const std::wstring ATTRIBUTE_NAME_ID;
extern const std::wstring ATTRIBUTE_NAME_REGEX;
extern const std::wstring ATTRIBUTE_NAME_ARCH;
extern const std::wstring ATTRIBUTE_NAME_TYPE;
extern const std::wstring ATTRIBUTE_NAME_MSGID;
// The two texts of a regex attribute that mean true.
extern const std::wstring ATTRIBUTE_NAME_REGEX_TRUEB;
extern const std::wstring ATTRIBUTE_NAME_REGEX_TRUES;

extern const std::wstring ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMWINDOWS;
extern const std::wstring ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMLINUX;
extern const std::wstring ATTRIBUTE_VALUE_XSI_TYPE_PLATFORMUNIX;
extern const std::wstring ATTRIBUTE_VALUE_TYPE_OK;
extern const std::wstring ATTRIBUTE_VALUE_TYPE_ERROR;
extern const std::wstring ATTRIBUTE_VALUE_ARCH_32;
extern const std::wstring ATTRIBUTE_VALUE_ARCH_64;

extern const std::wstring ELEMENT_VALUE_OSNAMEWINDOWS2000;
extern const std::wstring ELEMENT_VALUE_OSNAMEWINDOWSXP;
extern const std::wstring ELEMENT_VALUE_OSNAMEWINDOWSVISTA;
extern const std::wstring ELEMENT_VALUE_OSNAMEWINDOWS2003;
extern const std::wstring ELEMENT_VALUE_OSNAMEWINDOWS2008;
extern const std::wstring ELEMENT_VALUE_OSNAMELINUX;
extern const std::wstring ELEMENT_VALUE_OSNAMEAIX;
extern const std::wstring ELEMENT_VALUE_OSNAMEHPUX;
extern const std::wstring ELEMENT_VALUE_OSNAMESOLARIS;

// Null-terminated tables of allowed values. The agent and manager type tables
// hold XMLValueMap_AgentType and XMLValueMap_ManagerType entries.
extern const XMLValueMap* const ELEMENT_VALUES_AGENTTYPE[];
extern const XMLValueMap* const ELEMENT_VALUES_MANAGERTYPE[];
extern const XMLValueMap* const ELEMENT_VALUES_OSNAME[];
extern const XMLValueMap* const ATTRIBUTE_VALUES_XSI_TYPE_PLATFORMS[];
extern const XMLValueMap* const ATTRIBUTE_VALUES_XMLNS[];
extern const XMLValueMap* const ATTRIBUTE_VALUES_XMLNS_XSI[];
extern const XMLValueMap* const ATTRIBUTE_VALUES_XSI_SCHEMALOCATION[];
extern const XMLValueMap* const ATTRIBUTE_VALUES_TYPE[];
extern const XMLValueMap* const ATTRIBUTE_VALUES_ARCH[];

#endif  // QOR_CAP_QORCAPSCHEMA_H
