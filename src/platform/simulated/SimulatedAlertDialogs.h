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

    [[nodiscard]] std::unique_ptr<AlertDialog> show(const Alert& alert) override;

    // Nobody is logged in: nothing can be ordered.
    void setUnavailable(bool isUnavailable);
    // Everything that was ever shown, oldest first.
    [[nodiscard]] const std::vector<Shown>& shown() const;
    // The user presses the button of the dialog shown as the index-th.
    void dismiss(std::size_t index);

  private:
    class Dialog;

    void takeOff(std::size_t index, const char* event);

    SimulatedRunLoop& runLoop_;
    SimulatedClock& clock_;
    SimulatedJournal& journal_;
    std::vector<Shown> shown_;
    std::vector<std::unique_ptr<Timer>> timeOuts_;
    bool isUnavailable_ = false;
};

}  // namespace korvane
