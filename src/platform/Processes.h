// Other programs on the machine: those that run anyway, and those that this one launches.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Folder.h"

namespace korvane {

// A program that was launched. Destroying it stops nothing: the program runs on, and its end is no
// longer told.
class Task {
  public:
    virtual ~Task() = default;

    // Whether it still runs, now: its end may not have been told yet.
    [[nodiscard]] virtual bool isRunning() = 0;
    // Ask it to end, the second one with more weight. Without effect once it has ended.
    virtual void interrupt() = 0;
    virtual void terminate() = 0;
    // The signal that ended it; 0 while it runs and when it ended by itself.
    [[nodiscard]] virtual int endingSignal() = 0;
};

// What a program that copies works on without a path: the file is its standard input, the folder in
// the place of its standard output.
struct CopyPlaces {
    std::string file;
    const Folder& folder;
};

class Processes {
  public:
    virtual ~Processes() = default;

    // Calls `visit` with the name of each running process until it answers false. A process whose
    // name cannot be read is passed over.
    virtual void forEachName(const std::function<bool(std::string_view name)>& visit) = 0;
    // Whether a process of the daemon's own user runs under this name with this argument.
    [[nodiscard]] virtual bool isRunning(const std::string& name, const std::string& argument) = 0;

    // Told on the loop's thread when an application ended, by its bundle identifier.
    virtual void setDidTerminateApplication(
        std::function<void(const std::string& bundleIdentifier)> callback) = 0;
    // Has the application of this identifier told of as ended, too, when no process whose name
    // begins so runs any more: for applications that nothing else tells of. Without effect when
    // none runs now. The last one asked for counts; it ends with the telling.
    virtual void watchApplication(std::string_view nameBeginning,
                                  const std::string& bundleIdentifier) = 0;

    // Launches the executable at the path with these arguments, its own name not among them. It
    // reads nothing, and what it writes goes where this program's own output goes. It is told to
    // end when this program ends, however that ends. Null when it cannot be launched.
    [[nodiscard]] virtual std::unique_ptr<Task> launch(
        const std::string& path, const std::vector<std::string>& arguments) = 0;

    // The same for a program that copies: it goes on when this one ends.
    [[nodiscard]] virtual std::unique_ptr<Task> launchCopy(
        const std::string& path, const std::vector<std::string>& arguments,
        const std::optional<CopyPlaces>& places) = 0;

    // Told on the loop's thread when a launched program has ended, however it did; never from
    // within launch(). The callback may destroy the task.
    virtual void setTaskDidTerminate(std::function<void(const Task& task)> callback) = 0;
};

}  // namespace korvane
