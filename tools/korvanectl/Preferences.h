// The preferences file as korvanectl reads and edits it, beside a daemon that holds its own image
// of it and may write that over the file at any moment.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <variant>

#include "base/PropertyList.h"
#include "korvanectl/DaemonLink.h"
#include "korvanectl/Document.h"
#include "korvanectl/Outcome.h"

namespace korvane::ctl {

// One change to the preferences. Both are called once for each try.
struct Edit {
    // Makes the change, or says why it must not be made.
    std::function<Outcome<std::monostate>(Dictionary&)> apply;
    // Whether the change is there.
    std::function<bool(const Dictionary&)> holds;
    // What the daemon is told when the change is in the file; it must have it reload.
    std::string word = kReloadWord;
};

enum class Told { daemon, nobody };

class Preferences {
  public:
    // `pause` is the time between two tries of an edit.
    explicit Preferences(std::string path,
                         std::chrono::milliseconds pause = std::chrono::milliseconds{100})
        : path_(std::move(path)), pause_(pause) {}

    [[nodiscard]] const std::string& path() const { return path_; }

    // What stands in the file, read as readDocument() does.
    [[nodiscard]] Outcome<Dictionary> read() const;

    // Writes the change into the file, has the daemon read it, and looks whether it is still there
    // then: the daemon may have written its own image in between, and the edit is made again.
    // Without a daemon the change is made and nobody is told. A failure after the change has come
    // into the file says so.
    [[nodiscard]] Outcome<Told> edit(DaemonLink& daemon, const Edit& edit) const;

  private:
    [[nodiscard]] Outcome<Document> document() const;
    [[nodiscard]] Outcome<std::monostate> write(const Dictionary& preferences) const;

    std::string path_;
    std::chrono::milliseconds pause_;
};

}  // namespace korvane::ctl
