// The CAP directory watcher: a thread that polls the CAP directories and raises
// one CAPFileEvent for each file that appears or goes. Also the listing of one
// directory's CAP files, which the initial scan uses too.
#ifndef QOR_CAP_QORUNX_H
#define QOR_CAP_QORUNX_H

#include <pthread.h>

#include <atomic>
#include <string>
#include <vector>

// 1 tells the watcher thread to end.
extern std::atomic<int> g_bShutdown;

bool RegisterFileChangeHandlers(pthread_t* thread);
void StopFileChangeHandlers();
void* HandleDirectoryChanges(void* unused);

// Exact, case-sensitive comparison: a file ending in ".XML" is no CAP file.
bool Match(const std::wstring& first, const std::wstring& second);

// Seconds between polls: 5, or QOR_CAP_DISCOVERY_INTERVAL when it is made of
// digits alone and larger than 5.
int CapDiscoveryInterval();

// The sorted names of the CAP files ("*.xml", no leading dot) of a directory;
// empty when it cannot be read.
std::vector<std::wstring> GetCAPDirFiles(const std::wstring& directory);

#endif  // QOR_CAP_QORUNX_H
