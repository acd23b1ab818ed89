// System alert dialogs for the user at the console. Showing one never waits: not for the answer,
// and not for a desktop that is absent or hangs.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace korvane {

// The values are those of the system's own alert flags (CFUserNotification.h).
enum class AlertLevel { note = 1, caution = 2 };

struct Alert {
    std::string header;
    std::string message;
    std::optional<std::string> defaultButton;  // none: the desktop's own way of dismissing it
    AlertLevel level = AlertLevel::note;
    std::chrono::milliseconds timeOut{0};  // 0: stays until it is dismissed
};

// A dialog that was ordered. Destroying this lets the dialog be; it may outlive its owner.
class AlertDialog {
  public:
    virtual ~AlertDialog() = default;
    // Takes the dialog off the screen, if it is there; one still on its way never appears.
    virtual void cancel() = 0;
};

class AlertDialogs {
  public:
    virtual ~AlertDialogs() = default;

    // Orders a dialog in the place of another one, or of none. The one that is replaced is
    // cancelled, and the new one appears once it is off the screen: two dialogs of one place never
    // stand at once. While a desktop hangs, the dialog ordered last waits for it and those between
    // never appear. Null when it cannot even be ordered; that nobody sees one that was ordered (no
    // session, no notification service, one that hangs) is logged, once a dialog.
    [[nodiscard]] virtual std::unique_ptr<AlertDialog> show(
        const Alert& alert, std::unique_ptr<AlertDialog> replaced) = 0;
};

}  // namespace korvane
