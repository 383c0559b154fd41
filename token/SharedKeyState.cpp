#include "token/SharedKeyState.h"

namespace orvane {

std::vector<unsigned char>& currentIv() {
    static std::vector<unsigned char> iv;
    return iv;
}

}  // namespace orvane
