// How the token library is reached: OrvaneDSCLibrary.dll is delay-loaded and taken only from
// the folder of the module holding this code (OrvaneCSP.dll), never from the host
// application's folder, the current folder or PATH.
#pragma once

namespace orvane {

// Loads the library beside this module once (it then stays loaded). False when it cannot be
// loaded: callers must make no library call then, as a failed delay load would raise.
bool tokenLibraryAvailable();

}  // namespace orvane
