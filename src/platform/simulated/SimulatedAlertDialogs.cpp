#include "platform/simulated/SimulatedAlertDialogs.h"

#include <optional>
#include <utility>

namespace korvane {

struct SimulatedAlertDialogs::Place {
    std::optional<std::size_t> shown;  // the index of the dialog that is on the screen, or was
    bool isCancelled = false;          // takes effect once the desktop goes on
    std::optional<Alert> next;
};

class SimulatedAlertDialogs::Dialog final : public AlertDialog {
  public:
    Dialog(SimulatedAlertDialogs& dialogs, std::shared_ptr<Place> ownPlace)
        : place(std::move(ownPlace)), dialogs_(dialogs) {}

    void cancel() override { dialogs_.cancelIn(*place); }

    const std::shared_ptr<Place> place;

  private:
    SimulatedAlertDialogs& dialogs_;
};

SimulatedAlertDialogs::SimulatedAlertDialogs(SimulatedRunLoop& runLoop, SimulatedClock& clock,
                                             SimulatedJournal& journal)
    : runLoop_(runLoop), clock_(clock), journal_(journal) {}

std::unique_ptr<AlertDialog> SimulatedAlertDialogs::show(const Alert& alert,
                                                         std::unique_ptr<AlertDialog> replaced) {
    // There are no others than those of this class.
    const std::shared_ptr<Place> place =
        replaced ? static_cast<Dialog&>(*replaced).place : std::make_shared<Place>();
    if (replaced) replaced->cancel();
    if (isUnavailable_) {
        journal_.note("dialog not shown", alert.message);
        return nullptr;
    }
    if (isHanging_) {
        place->next = alert;
        waiting_.push_back(place);
    } else {
        putOn(*place, alert);
    }
    return std::make_unique<Dialog>(*this, place);
}

void SimulatedAlertDialogs::putOn(Place& place, const Alert& alert) {
    journal_.note("dialog", alert.message);
    const std::size_t index = shown_.size();
    shown_.push_back({clock_.now(), alert, true});
    place.shown = index;
    place.isCancelled = false;
    if (alert.timeOut.count() > 0) {
        timeOuts_.push_back(runLoop_.startTimer(
            alert.timeOut, Repeat::once, [this, index] { takeOff(index, "dialog timed out"); }));
    }
}

void SimulatedAlertDialogs::cancelIn(Place& place) {
    place.next.reset();
    place.isCancelled = true;
    if (!isHanging_ && place.shown) takeOff(*place.shown, "dialog cancelled");
}

void SimulatedAlertDialogs::setHanging(bool isHanging) {
    isHanging_ = isHanging;
    if (isHanging_) return;
    for (const std::shared_ptr<Place>& place : std::exchange(waiting_, {})) {
        if (place->shown && place->isCancelled) takeOff(*place->shown, "dialog cancelled");
        const std::optional<Alert> next = std::exchange(place->next, std::nullopt);
        if (next) putOn(*place, *next);
    }
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
