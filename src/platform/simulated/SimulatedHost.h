// A machine whose version is what the test says.
#pragma once

#include "platform/Host.h"

namespace korvane {

class SimulatedHost final : public Host {
  public:
    explicit SimulatedHost(SystemVersion version) : version_(version) {}

    [[nodiscard]] SystemVersion systemVersion() override { return version_; }

    void setSystemVersion(SystemVersion version) { version_ = version; }

  private:
    SystemVersion version_;
};

}  // namespace korvane
