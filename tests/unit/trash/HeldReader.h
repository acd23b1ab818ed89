// Disks that hang, for threads that read folders: the C library's readdir is replaced for the whole
// program that this is linked into.
#pragma once

namespace korvane {

// The first thread but the program's first that reads a folder is kept there for as long as this
// lives. One at a time.
class HeldReader {
  public:
    HeldReader();
    ~HeldReader();
    HeldReader(const HeldReader&) = delete;
    HeldReader& operator=(const HeldReader&) = delete;

    // Whether a thread is kept.
    [[nodiscard]] bool hasOne() const;
};

}  // namespace korvane
