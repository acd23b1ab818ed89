// Where a property list lies, with the files that keep it whole beside it, and the careful way to
// open, read and fill them. Shared by the writer and the reader of PropertyListFile.h; nobody else
// needs it.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <string_view>
#include <utility>

#include "base/PropertyList.h"
#include "base/Result.h"

namespace korvane {

class OpenFile {
  public:
    explicit OpenFile(int fd = -1) : fd_(fd) {}
    OpenFile(OpenFile&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    OpenFile& operator=(OpenFile&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile();
    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

// What the names of the hidden files beside a document end with.
inline constexpr std::string_view kSavingEnd = ".saving";
inline constexpr std::string_view kKeptEnd = ".kept";

// The path cut into its folder and the names used in it. All names are looked up in one folder that
// is opened once, so that nobody can exchange the folder between two steps.
struct PropertyListPlace {
    explicit PropertyListPlace(const std::string& wholePath);
    [[nodiscard]] Result<OpenFile> openFolder() const;

    std::string path;
    std::string folder;
    std::string name;
    std::string sibling;  // the new contents while they are written
    std::string kept;     // the copy that stays
    std::string part;     // either of them before it is whole
};

// "PATH: doing: why", with the number of the error.
[[nodiscard]] Error fileError(std::string_view doing, std::string_view path, int number);

// Never through a link, and not held up by a FIFO or a device in the file's place.
[[nodiscard]] OpenFile openCarefully(int folder, const std::string& name, int flags);

// Why the open file is not one to read or write, or null. A second name could be that of any other
// file on the volume, planted here to have it overwritten.
[[nodiscard]] const char* objectionTo(const struct stat& status);

[[nodiscard]] int writeFully(int fd, std::string_view bytes, off_t offset);
[[nodiscard]] Result<std::string> readFully(int fd, const std::string& path, off_t expectedBytes);

[[nodiscard]] bool isSameMoment(const timespec& a, const timespec& b);

}  // namespace korvane
