#include "platform/Volumes.h"

#include <algorithm>

namespace korvane {

std::string Volumes::displayName(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
    if (path == "/") return "System";
    return std::string(path.substr(std::min(path.rfind('/') + 1, path.size())));
}

}  // namespace korvane
