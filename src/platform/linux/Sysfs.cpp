#include "platform/linux/Sysfs.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <memory>

#include "platform/linux/UniqueFd.h"

namespace korvane {
namespace {

// sysfs(5): an attribute is at most one page.
constexpr std::size_t kAttributeLimitBytes = 4096;

// "../../devices/x/block/sda" as it stands in /sys/dev/block or /sys/class/block.
std::optional<std::string> pathBelowRoot(const std::optional<std::string>& link) {
    if (!link) {
        return std::nullopt;
    }
    std::string_view path = *link;
    while (path.starts_with("../")) {
        path.remove_prefix(3);
    }
    if (path.empty() || path.front() == '/') {
        return std::nullopt;
    }
    return std::string{path};
}

}  // namespace

std::optional<std::string> Sysfs::attribute(const std::string& path) const {
    const UniqueFd file{::open((root_ + "/" + path).c_str(), O_RDONLY | O_CLOEXEC)};
    if (!file) {
        return std::nullopt;
    }
    std::array<char, kAttributeLimitBytes> bytes;
    // One read gets the whole of an attribute (sysfs(5)); a second one would only confirm its end.
    const ssize_t got = ::read(file.get(), bytes.data(), bytes.size());
    if (got < 0) {
        return std::nullopt;
    }
    std::string text(bytes.data(), static_cast<std::size_t>(got));
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

std::optional<std::string> Sysfs::linkText(const std::string& path) const {
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlink((root_ + "/" + path).c_str(), target.data(), target.size());
    if (length < 0) {
        return std::nullopt;
    }
    return std::string(target.data(), static_cast<std::size_t>(length));
}

std::vector<std::string> Sysfs::list(const std::string& path) const {
    std::vector<std::string> names;
    struct Closer {
        void operator()(DIR* folder) const { ::closedir(folder); }
    };
    const std::unique_ptr<DIR, Closer> folder{::opendir((root_ + "/" + path).c_str())};
    if (!folder) {
        return names;
    }
    while (const dirent* entry = ::readdir(folder.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool Sysfs::exists(const std::string& path) const {
    return ::access((root_ + "/" + path).c_str(), F_OK) == 0;
}

std::optional<std::string> Sysfs::blockDevicePath(DeviceNumber number) const {
    return pathBelowRoot(
        linkText("dev/block/" + std::to_string(number.major) + ":" + std::to_string(number.minor)));
}

std::optional<std::string> Sysfs::blockDevicePath(const std::string& kernelName) const {
    return pathBelowRoot(linkText("class/block/" + kernelName));
}

std::string lastComponent(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string parentFolder(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string{} : path.substr(0, slash);
}

std::string nodeNameOfKernelName(std::string kernelName) {
    std::replace(kernelName.begin(), kernelName.end(), '!', '/');
    return kernelName;
}

std::string kernelNameOfNode(std::string nodeName) {
    std::replace(nodeName.begin(), nodeName.end(), '/', '!');
    return nodeName;
}

}  // namespace korvane
