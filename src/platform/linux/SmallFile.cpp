#include "platform/linux/SmallFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>

#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

// An attribute of sysfs is at most a page; the rest leaves room for a long os-release.
constexpr std::size_t kLargestSize = 64 * 1024;

}  // namespace

std::optional<std::string> readSmallFile(const std::string& path) {
    const UniqueFd file{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)};
    if (!file) return std::nullopt;
    std::string text;
    std::array<char, 4096> chunk;
    while (text.size() < kLargestSize) {
        const ssize_t count = ::read(file.get(), chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) break;
        text.append(chunk.data(), static_cast<std::size_t>(count));
    }
    return text;
}

std::optional<std::string> readAttributeFile(const std::string& path) {
    std::optional<std::string> text = readSmallFile(path);
    if (text && !text->empty() && text->back() == '\n') text->pop_back();
    return text;
}

}  // namespace korvane
