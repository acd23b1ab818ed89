// What reaches the journal, in a mount namespace whose journal is the test itself.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "platform/linux/LinuxSystemLog.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {
namespace {

constexpr char kJournal[] = "/run/systemd/journal/socket";

bool takeTheJournalsPlace() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/run", "tmpfs", 0, nullptr) == 0 &&
           ::mkdir("/run/systemd", 0755) == 0 && ::mkdir("/run/systemd/journal", 0755) == 0;
}

UniqueFd journalSocket() {
    UniqueFd socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kJournal, sizeof(kJournal));
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        socket = UniqueFd{};
    }
    return socket;
}

std::string nextEntry(int journal) {
    std::array<char, 4096> entry{};
    const ssize_t size = ::recv(journal, entry.data(), entry.size(), MSG_DONTWAIT);
    return size > 0 ? std::string(entry.data(), static_cast<std::size_t>(size)) : "nothing";
}

// In a process of its own: 0 when all is well, else the number of what was not.
int confidentialLineProblem(int standardError) {
    if (!takeTheJournalsPlace()) return 77;
    const UniqueFd journal = journalSocket();
    if (!journal || ::dup2(standardError, STDERR_FILENO) < 0) return 77;
    LinuxSystemLog log(kJournal, "");
    log.write(LogMessage::mailCancelled, {"ordinary"});
    const std::string ordinary = nextEntry(journal.get());
    log.write(LogMessage::mailCredentialWriteFailed, {"secret"});
    const std::string confidential = nextEntry(journal.get());
    // syslog(3): daemon is 3, authpriv is 10.
    if (ordinary.find("SYSLOG_FACILITY=3\n") == std::string::npos) return 1;
    if (confidential.find("sending: \"secret\"\n") == std::string::npos) return 2;
    if (confidential.find("SYSLOG_FACILITY=10\n") == std::string::npos) return 3;
    // Neither where nobody keeps a journal.
    LinuxSystemLog("", "").write(LogMessage::mailCredentialWriteFailed, {"secret"});
    return 0;
}

TEST(LinuxSystemLog, AConfidentialLineIsForTheReadersOfAuthorizationMessagesAlone) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    const UniqueFd reading{ends[0]};
    UniqueFd writing{ends[1]};
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) ::_exit(confidentialLineProblem(writing.get()));
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no right to a mount namespace";
    EXPECT_EQ(WEXITSTATUS(status), 0);
    std::array<char, 256> shown{};
    const ssize_t size = ::read(reading.get(), shown.data(), shown.size());
    const std::string text(shown.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("secret")));
}

}  // namespace
}  // namespace korvane
