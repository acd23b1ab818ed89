// Dialogs by the notice program, which takes on the console user's ids and talks to that user's
// desktop: a desktop that hangs can keep only that program waiting.
#pragma once

#include <signal.h>

#include <memory>
#include <vector>

#include "platform/AlertDialogs.h"
#include "platform/Bundle.h"
#include "platform/SystemLog.h"
#include "platform/linux/LinuxRunLoop.h"

namespace korvane {

class LinuxAlertDialogs final : public AlertDialogs {
  public:
    // The referred ones outlive this. Notices that are on the screen go with it: the next daemon,
    // which knows nothing of them, shows its own.
    LinuxAlertDialogs(LinuxRunLoop& runLoop, Bundle& bundle, SystemLog& systemLog);
    ~LinuxAlertDialogs() override;
    LinuxAlertDialogs(const LinuxAlertDialogs&) = delete;
    LinuxAlertDialogs& operator=(const LinuxAlertDialogs&) = delete;

    [[nodiscard]] std::unique_ptr<AlertDialog> show(const Alert& alert,
                                                    std::unique_ptr<AlertDialog> replaced) override;

  private:
    class Dialog;
    struct Place;

    // False when the program could not be started, which is logged.
    bool start(const std::shared_ptr<Place>& place, const Alert& alert);
    void ended(const std::shared_ptr<Place>& place, const siginfo_t& info);

    LinuxRunLoop& runLoop_;
    Bundle& bundle_;
    SystemLog& systemLog_;
    std::vector<std::shared_ptr<Place>> places_;  // those that have a program
};

}  // namespace korvane
