// The machine as a whole.
#pragma once

namespace korvane {

// The numbers of the running system's version.
struct SystemVersion {
    int major = 0;
    int minor = 0;
    int bugFix = 0;
};

class Host {
  public:
    virtual ~Host() = default;

    [[nodiscard]] virtual SystemVersion systemVersion() = 0;
};

}  // namespace korvane
