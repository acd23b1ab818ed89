// A small ext4 file system in a file, on a loop device: a volume of a local block device that a
// test may mount where it likes. Only within a mount namespace of the test's own.
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

}  // namespace korvane
