// The modal "Verify User Pin" dialog. The typed PIN travels through one process-wide
// string: an empty one after the dialog closes means the user cancelled.
#pragma once

#include <string>

namespace orvane {

void showPinDialog();
void getDialogPin(std::string& out);

}  // namespace orvane
