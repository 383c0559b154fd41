// Who may own the log's folders and its file.
#pragma once

#include <windows.h>

namespace orvane {

// True for the user the log is written as, SYSTEM and the Administrators group; anyone else
// could read the lines or redirect them. A missing owner is not trusted.
bool isTrustedLogOwner(PSID owner, PSID currentUser);

}  // namespace orvane
