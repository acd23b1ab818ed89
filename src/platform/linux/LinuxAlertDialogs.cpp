#include "platform/linux/LinuxAlertDialogs.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/ChildProcess.h"
#include "platform/linux/ConsoleSession.h"
#include "platform/linux/NoticeProtocol.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

constexpr char kNoticeProgram[] = "KorvaneProNotice";

// The text in a file of memory, to be read from its beginning: unlike a pipe it takes any length
// at once.
UniqueFd memoryFile(const std::string& text) {
    UniqueFd file{::memfd_create("notice", MFD_CLOEXEC)};
    if (!file) return {};
    const ssize_t written = ::write(file.get(), text.data(), text.size());
    if (written != static_cast<ssize_t>(text.size()) || ::lseek(file.get(), 0, SEEK_SET) != 0) {
        return {};
    }
    return file;
}

// Who is to see a notice of a daemon of this user: root speaks to whoever sits at the console,
// anyone else to themselves.
std::optional<uid_t> audience() { return ::geteuid() == 0 ? consoleUser() : ::geteuid(); }

std::string describeEnd(const siginfo_t& info) {
    if (info.si_code != CLD_EXITED) return "the desktop did not answer";
    switch (static_cast<NoticeExit>(info.si_status)) {
        case NoticeExit::noSession:
            return "the console user's session could not be reached";
        case NoticeExit::noService:
            return "the session has no notification service that takes it";
        case NoticeExit::closed:
        case NoticeExit::badInput:
            break;
    }
    return "the notice program failed with status " + std::to_string(info.si_status);
}

}  // namespace

struct LinuxAlertDialogs::Notice {
    std::string header;
    std::unique_ptr<ChildProcess> process;  // null once it has ended
    bool cancelled = false;
};

class LinuxAlertDialogs::Dialog final : public AlertDialog {
  public:
    explicit Dialog(std::shared_ptr<Notice> notice) : notice_(std::move(notice)) {}

    void cancel() override {
        if (!notice_->process || std::exchange(notice_->cancelled, true)) return;
        // It takes the notice off the screen before it ends.
        notice_->process->signal(SIGTERM);
    }

  private:
    std::shared_ptr<Notice> notice_;
};

LinuxAlertDialogs::LinuxAlertDialogs(LinuxRunLoop& runLoop, Bundle& bundle, SystemLog& systemLog)
    : runLoop_(runLoop), bundle_(bundle), systemLog_(systemLog) {}

// A dialog handed out may live longer, and must not reach the loop then.
LinuxAlertDialogs::~LinuxAlertDialogs() {
    for (const auto& notice : onScreen_) {
        notice->process->signal(SIGTERM);
        notice->process.reset();
    }
}

std::unique_ptr<AlertDialog> LinuxAlertDialogs::show(const Alert& alert) {
    const auto refuse = [&](const std::string& why) {
        systemLog_.write(LogMessage::dialogNotShown, {alert.header, why});
        return nullptr;
    };
    const std::optional<uid_t> user = audience();
    if (!user) return refuse("nobody is logged in at the console");
    const std::string program = bundle_.plugIn(kNoticeProgram);
    if (program.empty()) return refuse(std::string{kNoticeProgram} + " is missing");
    const UniqueFd input = memoryFile(formatNotice(alert));
    if (!input) return refuse(std::strerror(errno));

    auto notice = std::make_shared<Notice>();
    notice->header = alert.header;
    // What went wrong its exit status says, and one line in the log.
    Result<std::unique_ptr<ChildProcess>> process = ChildProcess::start(
        runLoop_, program, {std::to_string(*user)},
        {.standardInput = input.get(), .standardError = StandardError::discarded},
        [this, known = notice.get()](const siginfo_t& info) { ended(known, info); });
    if (!process) return refuse(process.error().message);
    notice->process = std::move(*process);
    onScreen_.push_back(notice);
    return std::make_unique<Dialog>(std::move(notice));
}

void LinuxAlertDialogs::ended(const Notice* notice, const siginfo_t& info) {
    const auto known = std::find_if(onScreen_.begin(), onScreen_.end(),
                                    [&](const auto& each) { return each.get() == notice; });
    const std::shared_ptr<Notice> kept = std::move(*known);
    onScreen_.erase(known);
    kept->process.reset();
    const bool wasShown =
        info.si_code == CLD_EXITED && info.si_status == static_cast<int>(NoticeExit::closed);
    if (wasShown || kept->cancelled) return;
    systemLog_.write(LogMessage::dialogNotShown, {kept->header, describeEnd(info)});
}

}  // namespace korvane
