// Sends so many alert mails with the daemon's own client to a server on this machine, for
// bench/mail/delivery to measure.   send_mail PORT COUNT
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "base/NotificationCenter.h"
#include "mail/QLSMTPController.h"
#include "platform/linux/LinuxMachine.h"
#include "platform/linux/LinuxSystemLog.h"

int main(int argumentCount, char** arguments) {
    if (argumentCount < 3) return 2;
    int left = std::atoi(arguments[2]);
    const korvane::Dictionary settings{{"emailServer", "127.0.0.1"},
                                       {"emailPort", arguments[1]},
                                       {"emailSubject", "Korvane Pro"},
                                       {"emailAddress", "ada@example.org"}};
    korvane::LinuxSystemLog systemLog;
    korvane::LinuxMachine linuxMachine(systemLog, korvane::LinuxVolumesPlaces{},
                                       korvane::LinuxTrashPlaces{});
    const korvane::Machine machine = linuxMachine.machine();
    korvane::NotificationCenter center;
    int failures = 0;
    std::function<void()> sendNext;
    korvane::QLSMTPController controller(machine, center, [&](const korvane::MailSessionEnd& end) {
        if (end.outcome != korvane::MailOutcome::sent) ++failures;
        machine.runLoop.post(sendNext);
    });
    sendNext = [&] {
        if (left-- > 0) {
            controller.sendSMTPAlertMessage("The drive fails.", "", &settings);
        } else {
            machine.runLoop.terminate();
        }
    };
    machine.runLoop.post(sendNext);
    const auto start = std::chrono::steady_clock::now();
    machine.runLoop.run();
    const std::chrono::duration<double, std::micro> spent =
        std::chrono::steady_clock::now() - start;
    std::printf("%.0f\n", spent.count());
    return failures == 0 ? 0 : 1;
}
