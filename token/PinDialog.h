// The modal "Verify User Pin" dialog. The typed PIN goes straight into the caller's holder:
// an empty one after the dialog closes means the user cancelled.
#pragma once

#include "token/SecretBytes.h"

namespace orvane {

SecretBytes showPinDialog();

}  // namespace orvane
