// Dialogs by the notice program, which takes on the console user's ids and talks to that user's
// desktop: a desktop that hangs can keep only that program waiting.
#pragma once

#include <map>
#include <memory>

#include "platform/AlertDialogs.h"
#include "platform/Bundle.h"
#include "platform/SystemLog.h"
#include "platform/linux/LinuxRunLoop.h"

namespace korvane {

class LinuxAlertDialogs final : public AlertDialogs {
  public:
    // The referred ones outlive this. Notices that are on the screen when this goes stay there.
    LinuxAlertDialogs(LinuxRunLoop& runLoop, Bundle& bundle, SystemLog& systemLog);
    ~LinuxAlertDialogs() override;
    LinuxAlertDialogs(const LinuxAlertDialogs&) = delete;
    LinuxAlertDialogs& operator=(const LinuxAlertDialogs&) = delete;

    [[nodiscard]] std::unique_ptr<AlertDialog> show(const Alert& alert) override;

  private:
    class Dialog;
    struct NoticeProcess;

    static int onExit(sd_event_source* source, const siginfo_t* info, void* process) noexcept;
    [[nodiscard]] std::shared_ptr<NoticeProcess> start(const Alert& alert);
    void ended(const NoticeProcess& process, const siginfo_t& info);

    LinuxRunLoop& runLoop_;
    Bundle& bundle_;
    SystemLog& systemLog_;
    std::map<pid_t, std::shared_ptr<NoticeProcess>> running_;
};

}  // namespace korvane
