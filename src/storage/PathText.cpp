#include "storage/PathText.h"

namespace korvane {

std::string_view lastPathComponent(std::string_view path) {
    const std::size_t last = path.find_last_not_of('/');
    if (last == std::string_view::npos) return path.substr(0, 1);
    path = path.substr(0, last + 1);
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::optional<std::string_view> fromLastSlash(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return std::nullopt;
    return path.substr(slash);
}

}  // namespace korvane
