// A small ext4 file system in a file, on a loop device: a volume of a local block device that a
// test may mount where it likes. Only within a mount namespace of the test's own. And a bare loop
// device that comes and goes.
#pragma once

#include <string>

namespace korvane {

// Gives this process a mount namespace that nobody else sees, once. False without the right to.
[[nodiscard]] bool enterPrivateMounts();

class LoopVolume {
  public:
    // Makes the image in the folder; device() is empty where that is not possible.
    LoopVolume(const std::string& folder, const std::string& name);
    ~LoopVolume();
    LoopVolume(const LoopVolume&) = delete;
    LoopVolume& operator=(const LoopVolume&) = delete;

    [[nodiscard]] const std::string& device() const { return device_; }
    // Makes the folder, and mounts the volume on it.
    bool mountAt(const std::string& path, unsigned long flags = 0) const;

  private:
    std::string image_;
    std::string device_;
};

// A loop device without a file system, of a number that nothing had: one that can be pulled.
class PulledLoop {
  public:
    PulledLoop();
    ~PulledLoop() { pull(); }
    PulledLoop(const PulledLoop&) = delete;
    PulledLoop& operator=(const PulledLoop&) = delete;

    // The kernel's; empty where it cannot be made.
    [[nodiscard]] const std::string& name() const { return name_; }
    // The kernel forgets it. False while somebody still looks at it.
    bool pull();

  private:
    int number_ = -1;
    std::string name_;
};

}  // namespace korvane
