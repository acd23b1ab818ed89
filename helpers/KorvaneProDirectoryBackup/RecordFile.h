// A file that appears whole under its name or not at all: until commit() it has no name, or where
// the file system knows no nameless files a hidden one that does not count as a backup. A signal
// takes that away, and after a kill the next one that is created in the folder does. One at a time
// in a process.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <variant>

#include "base/Result.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

class RecordFile {
  public:
    // Nothing is at `path` yet, or creating fails.
    [[nodiscard]] static Result<RecordFile> create(const std::string& path);
    ~RecordFile();
    RecordFile(RecordFile&& other) noexcept;
    RecordFile& operator=(RecordFile&&) = delete;

    // What is appended next; flush() writes it out when there is much of it.
    [[nodiscard]] std::string& text() { return text_; }
    // False once a write has failed; commit() says why.
    bool flush();
    // Gives the file the date and the permissions of another one, as far as the file system knows
    // them.
    void resemble(const struct stat& other);
    // Gives the file its name, with everything on the disk. Refuses a name that is taken.
    [[nodiscard]] Result<std::monostate> commit();

  private:
    RecordFile(std::string path, std::string hiddenPath, UniqueFd file);
    void write();

    std::string path_;
    std::string hiddenPath_;  // empty while the file has no name at all
    UniqueFd file_;
    std::string text_;
    int failure_ = 0;
};

}  // namespace korvane
