#include "platform/linux/SleepWatch.h"

namespace korvane {

SleepWatch::SleepWatch(LinuxRunLoop& loop, LinuxBus& systemBus) : loop_(loop), bus_(systemBus) {
    bus_.join(*this);
}

SleepWatch::~SleepWatch() { bus_.leave(*this); }

void SleepWatch::busCame(sd_bus* bus) {
    sd_bus_slot* slot = nullptr;
    if (sd_bus_match_signal_async(bus, &slot, "org.freedesktop.login1", "/org/freedesktop/login1",
                                  "org.freedesktop.login1.Manager", "PrepareForSleep",
                                  onPrepareForSleep, ignoreBusAnswer, this) >= 0) {
        prepareForSleep_.reset(slot);
    }
}

void SleepWatch::busWent() { prepareForSleep_.reset(); }

int SleepWatch::onPrepareForSleep(sd_bus_message* message, void* self, sd_bus_error*) noexcept {
    auto* const watch = static_cast<SleepWatch*>(self);
    int goesToSleep = 1;
    // The signal comes with true before the machine sleeps and with false after.
    if (sd_bus_message_read(message, "b", &goesToSleep) >= 0 && goesToSleep == 0) {
        watch->loop_.becomeActive();
    }
    return 0;
}

}  // namespace korvane
