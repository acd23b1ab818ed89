#include "platform/linux/LinuxAlertDialogs.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
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
// Longer than the program takes to find out that there is no service.
constexpr std::chrono::seconds kAnswerLimit{12};
constexpr char kNoAnswer[] = "the desktop did not answer";

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
    if (info.si_code != CLD_EXITED) return kNoAnswer;
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

// One program at the most: the next dialog waits for the end of the one before it, which takes its
// notice off the screen before it ends.
struct LinuxAlertDialogs::Place {
    // Whether the notice has come to the screen.
    [[nodiscard]] bool isShown() const {
        pollfd readable{.fd = shown.get(), .events = POLLIN, .revents = 0};
        return ::poll(&readable, 1, 0) > 0 && (readable.revents & POLLIN) != 0;
    }
    void cancel() {
        next.reset();
        if (process && !std::exchange(isCancelled, true)) process->signal(SIGTERM);
    }

    std::string header;
    UniqueFd shown;                         // what the program says when the notice is shown
    std::unique_ptr<ChildProcess> process;  // null once it has ended
    std::unique_ptr<Timer> answerTimer;
    bool isCancelled = false;
    bool isLogged = false;
    std::optional<Alert> next;
};

class LinuxAlertDialogs::Dialog final : public AlertDialog {
  public:
    explicit Dialog(std::shared_ptr<Place> ownPlace) : place(std::move(ownPlace)) {}

    void cancel() override { place->cancel(); }

    const std::shared_ptr<Place> place;
};

LinuxAlertDialogs::LinuxAlertDialogs(LinuxRunLoop& runLoop, Bundle& bundle, SystemLog& systemLog)
    : runLoop_(runLoop), bundle_(bundle), systemLog_(systemLog) {}

// A dialog handed out may live longer, and must not reach the loop then.
LinuxAlertDialogs::~LinuxAlertDialogs() {
    for (const auto& place : places_) {
        place->cancel();
        place->answerTimer.reset();
        place->process.reset();
    }
}

std::unique_ptr<AlertDialog> LinuxAlertDialogs::show(const Alert& alert,
                                                     std::unique_ptr<AlertDialog> replaced) {
    // There are no others than those of this class.
    const std::shared_ptr<Place> place =
        replaced ? static_cast<Dialog&>(*replaced).place : std::make_shared<Place>();
    place->cancel();
    if (place->process) {
        place->next = alert;
    } else if (!start(place, alert)) {
        return nullptr;
    }
    return std::make_unique<Dialog>(place);
}

bool LinuxAlertDialogs::start(const std::shared_ptr<Place>& place, const Alert& alert) {
    const auto refuse = [&](const std::string& why) {
        systemLog_.write(LogMessage::dialogNotShown, {alert.header, why});
        return false;
    };
    const std::optional<uid_t> user = audience();
    if (!user) return refuse("nobody is logged in at the console");
    const std::string program = bundle_.plugIn(kNoticeProgram);
    if (program.empty()) return refuse(std::string{kNoticeProgram} + " is missing");
    const UniqueFd input = memoryFile(formatNotice(alert));
    std::array<int, 2> ends{};
    if (!input || ::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        return refuse(std::strerror(errno));
    }
    UniqueFd shown{ends[0]};
    const UniqueFd output{ends[1]};
    // What went wrong its exit status says, and one line in the log.
    Result<std::unique_ptr<ChildProcess>> process =
        ChildProcess::start(runLoop_, program, {std::to_string(*user)},
                            {.standardInput = input.get(),
                             .standardOutput = output.get(),
                             .standardError = StandardError::discarded},
                            [this, place](const siginfo_t& info) { ended(place, info); });
    if (!process) return refuse(process.error().message);
    place->header = alert.header;
    place->shown = std::move(shown);
    place->process = std::move(*process);
    place->isCancelled = false;
    place->isLogged = false;
    place->answerTimer =
        runLoop_.startTimer(kAnswerLimit, Repeat::once, [this, known = place.get()] {
            if (known->isCancelled || known->isShown()) return;
            known->isLogged = true;
            systemLog_.write(LogMessage::dialogNotShown, {known->header, kNoAnswer});
        });
    places_.push_back(place);
    return true;
}

void LinuxAlertDialogs::ended(const std::shared_ptr<Place>& place, const siginfo_t& info) {
    std::erase(places_, place);
    place->process.reset();
    place->answerTimer.reset();
    place->shown = UniqueFd{};
    const bool wasShown =
        info.si_code == CLD_EXITED && info.si_status == static_cast<int>(NoticeExit::closed);
    if (!wasShown && !place->isCancelled && !place->isLogged) {
        systemLog_.write(LogMessage::dialogNotShown, {place->header, describeEnd(info)});
    }
    if (const std::optional<Alert> next = std::exchange(place->next, std::nullopt)) {
        (void)start(place, *next);  // a failure is logged
    }
}

}  // namespace korvane
