// The initialisation vector last set through KP_IV or the key storage provider's IV
// property. One value for the whole process: every key and both faces share it.
#pragma once

#include <vector>

namespace orvane {

std::vector<unsigned char>& currentIv();

}  // namespace orvane
