// The tools take file arguments as Unix paths from the host's scripts; Wine sees the host's
// root as drive Z:. Other paths pass unchanged.
#pragma once

#include <string>

namespace tools {

inline std::string windowsPathOf(std::string path) {
    if (path.empty() || path[0] != '/') return path;
    path = "Z:" + path;
    for (char& c : path)
        if (c == '/') c = '\\';
    return path;
}

}  // namespace tools
