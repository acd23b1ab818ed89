// The control connection on D-Bus: the daemon's name, its one object and its methods, served to
// root and to the daemon's own user alone. When the bus has been away the name is taken again.
#pragma once

#include <memory>

#include "platform/ControlConnection.h"
#include "platform/SystemLog.h"
#include "platform/linux/LinuxBus.h"

namespace korvane {

class LinuxControlConnection final : public ControlConnection {
  public:
    LinuxControlConnection(LinuxRunLoop& loop, LinuxBus& bus, SystemLog& systemLog);

    // Waits for the bus's answer for two seconds at the most. While there is no bus it is not null
    // either: the name is taken as soon as there is one.
    [[nodiscard]] std::unique_ptr<RegisteredConnection> registerName(
        ControlTarget& target) override;

  private:
    LinuxRunLoop& loop_;
    LinuxBus& bus_;
    SystemLog& systemLog_;
};

}  // namespace korvane
