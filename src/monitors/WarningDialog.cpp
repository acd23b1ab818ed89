// The dialog that the monitors share.

#include "base/Format.h"
#include "core/KorvaneProDaemon.h"

namespace korvane {

void KorvaneProDaemon::showWarningDialog(const std::string& message) {
    const std::string product = localized("KorvaneProDaemon");
    const std::string warning = localized("warning");
    userNotificationRef = machine_.alertDialogs.show(
        Alert{.header = formatText("%@ %@", {std::string_view(product), std::string_view(warning)}),
              .message = message,
              .defaultButton = localized("okay"),
              .level = AlertLevel::caution,
              .timeOut = {}},
        std::move(userNotificationRef));
}

}  // namespace korvane
