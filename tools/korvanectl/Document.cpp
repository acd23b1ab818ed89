#include "korvanectl/Document.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>
#include <variant>

#include "base/BriefLock.h"
#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"
#include "platform/linux/UniqueFd.h"

namespace korvane::ctl {

namespace {

using namespace std::chrono_literals;

// The daemon holds the file's lock while it writes. Programs that do not are given a few looks
// more.
constexpr int kTries = 4;
constexpr auto kSettlePause = 5ms;

// The bytes of a regular file, or an error number.
std::variant<std::string, int> contentsOf(const std::string& path) {
    // Not to be held up by a pipe that somebody put there.
    const UniqueFd file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat status {};
    if (!file || fstat(file.get(), &status) < 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EINVAL;
    }
    if (status.st_size > kLargestPropertyListBytes) {
        return EFBIG;  // nor does the daemon use it
    }
    lockBriefly(file.get(), Sharing::readers);
    std::string text;
    text.reserve(static_cast<std::size_t>(status.st_size));
    std::array<char, 65536> block;
    for (;;) {
        const ssize_t length = ::read(file.get(), block.data(), block.size());
        if (length == 0) {
            return text;
        }
        if (length > 0) {
            text.append(block.data(), static_cast<std::size_t>(length));
        } else if (errno != EINTR) {
            return errno;
        }
    }
}

// One reading.
Outcome<std::optional<Document>> look(const std::string& path) {
    auto bytes = contentsOf(path);
    if (const int* const error = std::get_if<int>(&bytes)) {
        if (*error == ENOENT) {
            return std::optional<Document>{};
        }
        return fileFailure(path, *error);
    }
    std::string& text = std::get<0>(bytes);
    Result<PropertyList> parsed = parsePropertyList(text);
    if (parsed && parsed->dictionary() != nullptr) {
        return std::optional{Document{std::move(text), std::move(*parsed->dictionary())}};
    }
    return Failure{ExitStatus::fileProblem,
                   fmt::format("{} is damaged and was left as it is ({}); put a good copy in its "
                               "place, or move it away and restart the daemon",
                               path, parsed ? "it holds no dictionary" : parsed.error().message)};
}

}  // namespace

Outcome<std::optional<Document>> readDocument(const std::string& path) {
    for (int attempt = 1; attempt < kTries; ++attempt) {
        Outcome<std::optional<Document>> found = look(path);
        if (found) {
            return found;
        }
        std::this_thread::sleep_for(kSettlePause);
    }
    // The writer died: this reading restores the file from its copy. Its own outcome says nothing
    // that another look does not.
    (void)PropertyListFiles{}.read(path);
    return look(path);
}

bool holdsExactly(const std::string& path, const std::string& text) {
    const auto contents = contentsOf(path);
    return contents.index() == 0 && std::get<0>(contents) == text;
}

Failure fileFailure(const std::string& path, int error) {
    const bool denied = error == EACCES || error == EPERM;
    return {
        denied ? ExitStatus::notAllowed : ExitStatus::fileProblem,
        fmt::format(
            "cannot use {}: {}{}", path, std::strerror(error),
            denied && ::geteuid() != 0 ? "; run korvanectl as root, for instance with sudo" : "")};
}

}  // namespace korvane::ctl
