// Names of users: the cache of user id to name that the process inspection
// fills, the passwd lookup behind it, and the user this process runs as.
// Used by QorCmdUNIX::idToUserName and by "##USER##" substitution. Safe from
// any thread: the cache, the current user and getpwuid are each guarded.
#ifndef QOR_WATCHDOG_QORUSR_H
#define QOR_WATCHDOG_QORUSR_H

#include <string>

// The cached name of a user id, or empty.
std::wstring GetIDUserName(int id);
// Caches a name; an empty name is ignored and an existing entry stays.
void SetIDUserName(int id, const std::wstring& name);
// The passwd name of a user id, or empty when it has none.
std::wstring GetUserNameFromID(int id);
// The cached name, else the passwd name, else "NOT_AVAILABLE"; the answer is
// cached either way, so each id costs at most one passwd lookup.
std::wstring ResolveUserName(int id);
// The user of this process: $USER, else the name of the real user id. Kept
// once found.
std::wstring GetCurrentUser();

#endif  // QOR_WATCHDOG_QORUSR_H
