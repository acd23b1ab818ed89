// Folders that were made in a trash folder and are still being filled: a program that throws away
// across volumes makes the folder first and copies into it, for minutes perhaps, and what goes on
// in there no watch of the trash folder tells. Costs nothing while there is none.
#pragma once

#include <time.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/RunLoop.h"
#include "platform/Volumes.h"

namespace korvane {

class FillingFolders {
  public:
    // Shorter than it takes to empty a trash again by hand, longer than a copy rests.
    static constexpr std::chrono::milliseconds kPause = std::chrono::seconds(5);

    // Loop and volumes must outlive this object. Calls back on the loop, once for a folder in which
    // one or more have come to rest. Paths and names are bytes.
    using Callback = std::function<void(const std::string& folder)>;
    FillingFolders(RunLoop& loop, Volumes& volumes, std::chrono::milliseconds pause,
                   Callback didFill);

    // A folder of this name was just made in that one. It is looked at after the pause, and when
    // something in it has changed since then again after twice as long, for ten minutes or so. One
    // that holds too much to be looked at is told of at each look.
    void add(const std::string& folder, const std::string& name);

  private:
    using Moment = std::chrono::steady_clock::time_point;
    using Key = std::pair<std::string, std::string>;  // folder and name
    struct Entry {
        Moment added{};
        Moment nextLook{};
        timespec lastLook{};  // by the clock of the file system's stamps
        int looks = 0;
    };

    void makeRoom(const std::string& folder);
    void arm();
    void look();

    RunLoop& loop_;
    Volumes& volumes_;
    std::chrono::milliseconds pause_;
    Callback didFill_;
    std::map<Key, Entry> entries_;
    std::unique_ptr<Timer> timer_;
};

}  // namespace korvane
