// Other programs on the machine.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace korvane {

class Processes {
  public:
    virtual ~Processes() = default;

    // Calls `visit` with the name of each running process until it answers false. A process whose
    // name cannot be read is passed over.
    virtual void forEachName(const std::function<bool(std::string_view name)>& visit) = 0;

    // Told on the loop's thread when an application ended, by its bundle identifier.
    virtual void setDidTerminateApplication(
        std::function<void(const std::string& bundleIdentifier)> callback) = 0;
    // Has the application of this identifier told of as ended, too, when no process whose name
    // begins so runs any more: for applications that nothing else tells of. Without effect when
    // none runs now. The last one asked for counts; it ends with the telling.
    virtual void watchApplication(std::string_view nameBeginning,
                                  const std::string& bundleIdentifier) = 0;
};

}  // namespace korvane
