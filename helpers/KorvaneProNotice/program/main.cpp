// Shows one notice on a user's desktop and stays until it is off the screen.
//   KorvaneProNotice USER-ID < notice
// Started as root it takes on the user's ids before it talks to anyone. SIGTERM closes the notice.
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

// SIGALRM ends a program whose bus or notification service hangs; the daemon knows that end.
constexpr unsigned kShowLimitSeconds = 10;

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

    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    (void)::sigprocmask(SIG_BLOCK, &terminate, nullptr);
    const int terminateFd = ::signalfd(-1, &terminate, SFD_CLOEXEC);

    (void)::alarm(kShowLimitSeconds);
    const Result<std::string> address = sessionBusAddress(user);
    if (!address) return fail(NoticeExit::noSession, address.error());
    const Result<std::monostate> became = becomeUser(user);
    if (!became) return fail(NoticeExit::noSession, became.error());
    // With the change of user the kernel has forgotten that this program ends with the daemon.
    (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != daemon) return NoticeExit::closed;
    Result<NotificationService> service = NotificationService::connect(*address);
    if (!service) return fail(NoticeExit::noSession, service.error());
    const Result<std::monostate> shown = service->show(*notice);
    if (!shown) return fail(NoticeExit::noService, shown.error());
    (void)::alarm(0);

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
