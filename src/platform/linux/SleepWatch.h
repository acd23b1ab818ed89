// Tells the application that it becomes active when the machine returns from sleep, as the login
// service says on the system bus.
#pragma once

#include "platform/linux/LinuxBus.h"

namespace korvane {

class SleepWatch final : private BusUser {
  public:
    SleepWatch(LinuxRunLoop& loop, LinuxBus& systemBus);
    ~SleepWatch() override;
    SleepWatch(const SleepWatch&) = delete;
    SleepWatch& operator=(const SleepWatch&) = delete;

  private:
    static int onPrepareForSleep(sd_bus_message* message, void* self, sd_bus_error* error) noexcept;
    void busCame(sd_bus* bus) override;
    void busWent() override;

    LinuxRunLoop& loop_;
    LinuxBus& bus_;
    BusSlot prepareForSleep_;
};

}  // namespace korvane
