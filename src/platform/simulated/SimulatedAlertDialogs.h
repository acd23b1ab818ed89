// A desktop that keeps what it was asked to show, with virtual time.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/AlertDialogs.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedJournal.h"
#include "platform/simulated/SimulatedRunLoop.h"

namespace korvane {

class SimulatedAlertDialogs final : public AlertDialogs {
  public:
    struct Shown {
        Time time{};
        Alert alert;
        bool isOnScreen = false;
    };

    SimulatedAlertDialogs(SimulatedRunLoop& runLoop, SimulatedClock& clock,
                          SimulatedJournal& journal);

    [[nodiscard]] std::unique_ptr<AlertDialog> show(const Alert& alert,
                                                    std::unique_ptr<AlertDialog> replaced) override;

    // Nobody is logged in: nothing can be ordered.
    void setUnavailable(bool isUnavailable);
    // The desktop hangs: what is ordered waits until it goes on, and what is on the screen stays.
    void setHanging(bool isHanging);
    // Everything that was ever shown, oldest first.
    [[nodiscard]] const std::vector<Shown>& shown() const;
    // The user presses the button of the dialog shown as the index-th.
    void dismiss(std::size_t index);

  private:
    class Dialog;
    struct Place;

    void cancelIn(Place& place);
    void putOn(Place& place, const Alert& alert);
    void takeOff(std::size_t index, const char* event);

    SimulatedRunLoop& runLoop_;
    SimulatedClock& clock_;
    SimulatedJournal& journal_;
    std::vector<Shown> shown_;
    std::vector<std::unique_ptr<Timer>> timeOuts_;
    std::vector<std::shared_ptr<Place>> waiting_;
    bool isUnavailable_ = false;
    bool isHanging_ = false;
};

}  // namespace korvane
