#include "platform/simulated/SimulatedAlertDialogs.h"

namespace korvane {

class SimulatedAlertDialogs::Dialog final : public AlertDialog {
  public:
    Dialog(SimulatedAlertDialogs& dialogs, std::size_t index) : dialogs_(dialogs), index_(index) {}

    void cancel() override { dialogs_.takeOff(index_, "dialog cancelled"); }

  private:
    SimulatedAlertDialogs& dialogs_;
    std::size_t index_;
};

SimulatedAlertDialogs::SimulatedAlertDialogs(SimulatedRunLoop& runLoop, SimulatedClock& clock,
                                             SimulatedJournal& journal)
    : runLoop_(runLoop), clock_(clock), journal_(journal) {}

std::unique_ptr<AlertDialog> SimulatedAlertDialogs::show(const Alert& alert) {
    if (isUnavailable_) {
        journal_.note("dialog not shown", alert.message);
        return nullptr;
    }
    journal_.note("dialog", alert.message);
    const std::size_t index = shown_.size();
    shown_.push_back({clock_.now(), alert, true});
    if (alert.timeOut.count() > 0) {
        timeOuts_.push_back(runLoop_.startTimer(
            alert.timeOut, Repeat::once, [this, index] { takeOff(index, "dialog timed out"); }));
    }
    return std::make_unique<Dialog>(*this, index);
}

void SimulatedAlertDialogs::setUnavailable(bool isUnavailable) { isUnavailable_ = isUnavailable; }

const std::vector<SimulatedAlertDialogs::Shown>& SimulatedAlertDialogs::shown() const {
    return shown_;
}

void SimulatedAlertDialogs::dismiss(std::size_t index) { takeOff(index, "dialog dismissed"); }

void SimulatedAlertDialogs::takeOff(std::size_t index, const char* event) {
    if (!shown_[index].isOnScreen) return;
    shown_[index].isOnScreen = false;
    journal_.note(event, shown_[index].alert.message);
}

}  // namespace korvane
