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

#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"
#include "platform/linux/UniqueFd.h"

namespace korvane::ctl {

namespace {

using namespace std::chrono_literals;

// A rewrite of the largest file takes a few milliseconds; what does not parse after this long was
// not caught in the middle of one.
constexpr int kSettleTries = 40;
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

}  // namespace

Outcome<std::optional<Document>> readDocument(const std::string& path) {
    std::string complaint;
    for (int attempt = 0; attempt <= kSettleTries; ++attempt) {
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
        complaint = parsed ? "it holds no dictionary" : parsed.error().message;
        if (attempt + 1 == kSettleTries) {
            // The last look comes after a reading that restores a torn file. Its own outcome says
            // nothing that the look does not.
            (void)PropertyListFiles{}.read(path);
        } else {
            std::this_thread::sleep_for(kSettlePause);
        }
    }
    return Failure{ExitStatus::fileProblem,
                   fmt::format("{} is damaged and was left as it is ({}); put a good copy in its "
                               "place, or move it away and restart the daemon",
                               path, complaint)};
}

bool holdsExactly(const std::string& path, const std::string& text) {
    const auto contents = contentsOf(path);
    return contents.index() == 0 && std::get<0>(contents) == text;
}

Failure fileFailure(const std::string& path, int error) {
    const bool denied = error == EACCES || error == EPERM;
    return {denied ? ExitStatus::notAllowed : ExitStatus::fileProblem,
            fmt::format("cannot use {}: {}{}", path, std::strerror(error),
                        denied ? "; run korvanectl as root, for instance with sudo" : "")};
}

}  // namespace korvane::ctl
