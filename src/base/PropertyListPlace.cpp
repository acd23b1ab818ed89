#include "base/PropertyListPlace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/PropertyListFile.h"

namespace korvane {

OpenFile::~OpenFile() {
    if (fd_ >= 0) (void)close(fd_);  // Everything that matters was written or synced before.
}

PropertyListPlace::PropertyListPlace(const std::string& wholePath) : path(wholePath) {
    const std::size_t slash = path.rfind('/');
    folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    name = slash == std::string::npos ? path : path.substr(slash + 1);
    sibling = "." + name + std::string(kSavingEnd);
    kept = "." + name + std::string(kKeptEnd);
    part = sibling + ".part";
}

Result<OpenFile> PropertyListPlace::openFolder() const {
    OpenFile opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened) return fileError("opening the folder", folder, errno);
    return opened;
}

Error fileError(std::string_view doing, std::string_view path, int number) {
    return {std::string(path) + ": " + std::string(doing) + ": " +
                std::generic_category().message(number),
            number};
}

OpenFile openCarefully(int folder, const std::string& name, int flags) {
    return OpenFile(openat(folder, name.c_str(),
                           flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                           S_IRUSR | S_IWUSR));
}

const char* objectionTo(const struct stat& status) {
    if (!S_ISREG(status.st_mode)) return "is not a regular file";
    if (status.st_nlink > 1) return "has a second name";
    if (status.st_size > kLargestPropertyListBytes) return "is too large";
    return nullptr;
}

int writeFully(int fd, std::string_view bytes, off_t offset) {
    while (!bytes.empty()) {
        const ssize_t written = pwrite(fd, bytes.data(), bytes.size(), offset);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(written));
        offset += written;
    }
    return 0;
}

Result<std::string> readFully(int fd, const std::string& path, off_t expectedBytes) {
    // One byte more than expected, so that the end is met in one call.
    std::string text(static_cast<std::size_t>(expectedBytes) + 1, '\0');
    std::size_t length = 0;
    while (true) {
        const ssize_t count =
            pread(fd, text.data() + length, text.size() - length, static_cast<off_t>(length));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return fileError("reading", path, errno);
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
        if (length > static_cast<std::size_t>(kLargestPropertyListBytes)) {
            return Error{path + ": is too large"};
        }
        if (length == text.size()) text.resize(length * 2);  // It grows while it is read.
    }
    text.resize(length);
    return text;
}

bool isSameMoment(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace korvane
