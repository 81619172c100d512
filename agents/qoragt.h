// The service's records of supervised agents and of processes seen on the
// system. Records have no lock: a live Agent is touched only with its list
// locked; a QorProcess belongs to whoever made it.
#ifndef QOR_AGENTS_QORAGT_H
#define QOR_AGENTS_QORAGT_H

#include <string>

// A process found on the system, compared against agents.
class QorProcess {
 public:
  int getProcID() const { return procID; }
  void setProcID(int id) { procID = id; }
  std::wstring getPath() const { return path; }
  void setPath(const std::wstring& text) { path = text; }
  std::wstring getInstanceProcName() const { return instanceProcName; }
  void setInstanceProcName(const std::wstring& name) { instanceProcName = name; }
  std::wstring getServiceInstanceName() const { return serviceInstanceName; }
  void setServiceInstanceName(const std::wstring& name) { serviceInstanceName = name; }
  std::wstring getInstanceName() const { return instanceName; }
  void setInstanceName(const std::wstring& name) { instanceName = name; }
  std::wstring getCmdName() const { return cmdName; }
  std::wstring getCmdLine() const { return cmdLine; }
  void setCmdLine(const std::wstring& line) { cmdLine = line; }

 private:
  int procID = 0;
  std::wstring path;
  std::wstring unusedText1;  // kept so that the record keeps its shape
  std::wstring instanceProcName;
  std::wstring unusedText2;
  std::wstring serviceInstanceName;
  std::wstring instanceName;
  std::wstring cmdName;  // stays empty: nothing sets it
  std::wstring cmdLine;
};

#endif  // QOR_AGENTS_QORAGT_H
