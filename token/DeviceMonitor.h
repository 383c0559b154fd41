// One background thread per process that forgets the session state of tokens that have
// been unplugged, so a token plugged in again is initialised afresh and asks for its PIN.
#pragma once

#include <string>
#include <vector>

namespace orvane {

// How often the monitor looks; anything else that polls the tokens looks no more often.
const unsigned long kDevicePollMilliseconds = 1000;

// One look, as the monitor takes it each period: the session state of every token no longer
// connected is forgotten (logged as disconnected). Returns the connected serials.
std::vector<std::string> sweepUnpluggedTokens();

// Starts the monitor unless it runs already. A running monitor keeps this module loaded
// (CryptReleaseContext would otherwise unload it under the thread), so sessions and cached
// PINs outlive the last context.
void startDeviceMonitor();

// Asks the thread to stop and joins it. Never call it under the loader lock while the
// thread runs.
void stopDeviceMonitor();

// For DLL_PROCESS_DETACH at process exit: the thread is already gone, nothing is joined.
void abandonDeviceMonitor();

}  // namespace orvane
