// A file that is being written: it has its name only once all of it is there. Where the file system
// cannot keep a file without a name, it has one that says "incomplete", and is removed when it is
// not finished. Writes over nothing that is there.
#pragma once

#include <string>

#include "platform/linux/UniqueFd.h"

namespace korvane::ctl {

class NewFile {
  public:
    // To become `name` in the open folder, which must outlive this; only its maker may read it.
    NewFile(int folder, const std::string& name);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    NewFile(NewFile&&) = delete;
    NewFile& operator=(NewFile&&) = delete;

    // What went wrong in making it; 0 for nothing.
    [[nodiscard]] int error() const { return error_; }
    [[nodiscard]] int get() const { return file_.get(); }
    // Its contents are on the disk and it has its name; an error number, 0 for none.
    [[nodiscard]] int finish();
    // The same for one whose contents are not all there: its name, then, ends in ".incomplete".
    [[nodiscard]] int finishIncomplete();
    // The name that it has, or is to have.
    [[nodiscard]] const std::string& name() const { return name_; }

  private:
    int folder_;
    std::string name_;
    UniqueFd file_;
    int error_ = 0;
    std::string incompleteName_;  // until it is finished; empty when it has none
};

}  // namespace korvane::ctl
