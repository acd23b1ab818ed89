// Plain files in folders that others may write: opened without following a link and checked to be
// what they should be before a byte is read or written.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "base/SecondNames.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

// O_NONBLOCK: a FIFO in the file's place must not hold us up before it is refused.
constexpr int kCarefully = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
// Some 80,000 result records; what is larger is not what was asked for.
constexpr off_t kLargestFileBytes = 64 * 1024 * 1024;

Error errorAt(const std::string& path, int number) {
    return Error{path + ": " + std::generic_category().message(number)};
}

bool isOwnFile(const struct stat& status, Writers writers) {
    return S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == ::geteuid() &&
           (writers == Writers::anybody || (status.st_mode & (S_IWGRP | S_IWOTH)) == 0);
}

// The errno of what failed, or 0.
int writeWhole(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

}  // namespace

Result<std::monostate> LinuxFileSystem::changePropertyList(
    const std::string& path, const std::function<bool(PropertyList&)>& edit, mode_t permissions,
    Durability durability) {
    const std::string place = located(path);
    if (place.empty()) return errorAt(path, ENOENT);
    return propertyLists_.change(place, edit, permissions, durability);
}

Result<std::string> LinuxFileSystem::readFile(const std::string& path, Writers writers) {
    const UniqueFd file{::open(located(path).c_str(), O_RDONLY | kCarefully)};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return errorAt(path, errno);
    if (!isOwnFile(status, writers)) return Error{path + ": not a file of its own"};
    if (status.st_size > kLargestFileBytes) return Error{path + ": is too large"};
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t got = ::read(file.get(), bytes.data() + length, bytes.size() - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errorAt(path, errno);
        if (got == 0) break;
        length += static_cast<std::size_t>(got);
    }
    bytes.resize(length);
    return bytes;
}

Result<std::monostate> LinuxFileSystem::writeFile(const std::string& path, std::string_view bytes,
                                                  mode_t permissions) {
    const UniqueFd file{
        ::open(located(path).c_str(), O_WRONLY | O_CREAT | kCarefully, permissions)};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return errorAt(path, errno);
    if (!isOwnFile(status, Writers::owner)) return Error{path + ": not a file of its own"};
    if (status.st_size != 0 && ::ftruncate(file.get(), 0) != 0) return errorAt(path, errno);
    const int failure = writeWhole(file.get(), bytes);
    if (failure != 0) return errorAt(path, failure);
    return std::monostate{};
}

Result<std::monostate> LinuxFileSystem::appendRecords(const std::string& path,
                                                      std::string_view records,
                                                      std::size_t recordBytes, mode_t permissions) {
    const std::string place = located(path);
    const std::size_t name = place.rfind('/') + 1;
    const UniqueFd folder{
        ::open(place.substr(0, name).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (folder) (void)leaveSecondNames(folder.get(), place.substr(name));  // or it is refused below
    const UniqueFd file{
        ::open(place.c_str(), O_WRONLY | O_CREAT | O_APPEND | kCarefully, permissions)};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return errorAt(path, errno);
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) {
        return Error{path + ": not a regular file"};
    }
    // Half a record would shift all that follow.
    const off_t whole = status.st_size - status.st_size % static_cast<off_t>(recordBytes);
    if (whole != status.st_size && ::ftruncate(file.get(), whole) != 0) return errorAt(path, errno);
    const int failure = writeWhole(file.get(), records);
    if (failure != 0) {
        (void)!::ftruncate(file.get(), whole);
        return errorAt(path, failure);
    }
    return std::monostate{};
}

bool LinuxFileSystem::rename(const std::string& path, const std::string& newPath) {
    const std::string from = located(path);
    const std::string to = located(newPath);
    return !from.empty() && !to.empty() &&
           ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
}

}  // namespace korvane
