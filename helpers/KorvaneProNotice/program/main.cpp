// Shows one notice on a user's desktop and stays until it is off the screen.
//   KorvaneProNotice USER-ID < notice
// Started as root it takes on the user's ids before it talks to anyone. It writes one byte to its
// standard output once the notice is on the screen. SIGTERM ends it at once while the desktop has
// not been given the notice; from then on it is taken off the screen first, even if that is
// possible only once a desktop that hangs goes on.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "KorvaneProNotice/NotificationService.h"
#include "KorvaneProNotice/SessionBus.h"
#include "platform/linux/NoticeProtocol.h"

namespace {

using namespace korvane;

// SIGALRM ends a program whose bus or notification service hangs before it was given the notice;
// the daemon knows that end.
constexpr unsigned kPrepareLimitSeconds = 10;

std::optional<uid_t> userId(std::string_view text) {
    uid_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

NoticeExit fail(NoticeExit status, const Error& error) {
    (void)std::fprintf(stderr, "KorvaneProNotice: %s\n", error.message.c_str());
    return status;
}

NoticeExit showNotice(uid_t user) {
    const pid_t daemon = ::getppid();
    const std::string input{std::istreambuf_iterator<char>(std::cin), {}};
    const Result<Alert> notice = parseNotice(input);
    if (!notice) return fail(NoticeExit::badInput, notice.error());

    (void)::alarm(kPrepareLimitSeconds);
    const Result<std::string> address = sessionBusAddress(user);
    if (!address) return fail(NoticeExit::noSession, address.error());
    const Result<std::monostate> became = becomeUser(user);
    if (!became) return fail(NoticeExit::noSession, became.error());
    // With the change of user the kernel has forgotten that this program ends with the daemon.
    (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != daemon) return NoticeExit::closed;
    Result<NotificationService> service = NotificationService::connect(*address);
    if (!service) return fail(NoticeExit::noSession, service.error());
    const Result<std::monostate> prepared = service->prepare();
    if (!prepared) return fail(NoticeExit::noService, prepared.error());
    (void)::alarm(0);

    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    (void)::sigprocmask(SIG_BLOCK, &terminate, nullptr);
    const int terminateFd = ::signalfd(-1, &terminate, SFD_CLOEXEC);
    const Result<std::monostate> shown = service->show(*notice);
    if (!shown) return fail(NoticeExit::noService, shown.error());
    // Whoever started this may not listen.
    [[maybe_unused]] const ssize_t ignoredCount = ::write(STDOUT_FILENO, "s", 1);

    service->waitUntilClosed(*notice, terminateFd);
    return NoticeExit::closed;
}

}  // namespace

int main(int count, char** arguments) {
    const std::optional<uid_t> user = count == 2 ? userId(arguments[1]) : std::nullopt;
    const NoticeExit exit =
        user ? showNotice(*user) : fail(NoticeExit::badInput, Error{"takes one user id"});
    return static_cast<int>(exit);
}
