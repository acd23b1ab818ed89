// A mail session with a server that says anything: each line of the input is a chunk, "\x01" in
// front of one closes and "\x02" resets the connection after it. Whatever comes, a session ends or
// its peer is known to have gone, and the next one is not kept waiting.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "mail/QLSMTPController.h"
#include "platform/simulated/SimulatedMachine.h"

namespace {

using korvane::MailReply;

// The first byte is for the settings: login, TLS, its port.
std::vector<MailReply> repliesOf(std::string_view text) {
    std::vector<MailReply> replies;
    while (!text.empty() && replies.size() < 64) {
        const std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        MailReply reply;
        reply.thenCloses = line.starts_with('\x01');
        reply.thenResets = line.starts_with('\x02');
        if (reply.thenCloses || reply.thenResets) line.remove_prefix(1);
        if (!line.empty()) reply.chunks.push_back(std::string(line) + "\r\n");
        replies.push_back(std::move(reply));
    }
    return replies;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const unsigned flags = data[0];
    const std::vector<MailReply> replies =
        repliesOf({reinterpret_cast<const char*>(data) + 1, size - 1});
    if (replies.empty()) return 0;

    korvane::SimulatedMachine machine{korvane::MachineDescription{}};
    korvane::NotificationCenter center;
    korvane::QLSMTPController controller(machine.machine(), center, nullptr);
    machine.mailServer.setGreeting(replies.front());
    std::size_t next = 1;
    for (const char* const command :
         {"EHLO", "STARTTLS", "NOOP", "AUTH", "login", "MAIL", "RCPT", "DATA", "message", "QUIT"}) {
        machine.mailServer.setReplies(command, {replies[next++ % replies.size()]});
    }
    const korvane::Dictionary settings{{"emailServer", "mail.example.org"},
                                       {"emailPort", (flags & 4U) != 0 ? "465" : "587"},
                                       {"emailAddress", "a@x.org,b@x.org"},
                                       {"emailUserName", "Z3JhY2U="},
                                       {"emailPassword", "c2VjcmV0"},
                                       {"emailUseAuthentication", (flags & 1U) != 0},
                                       {"emailUseSSLAuthentication", (flags & 2U) != 0}};
    controller.sendSMTPAlertMessage("alert", "", &settings);
    machine.runLoop.runFor(std::chrono::minutes{30});
    if (controller.emailSendIsBusy() && !controller.peerHasGone()) std::abort();
    return 0;
}
