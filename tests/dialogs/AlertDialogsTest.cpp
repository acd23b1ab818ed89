// The daemon's side of its dialogs: who is spoken to, what the notice program is given, and what is
// said of one that was not shown. Needs root: it hides the machine's login sessions behind files of
// its own, in a mount namespace of its own.
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <vector>

#include "conformance/AlertDialogsConformance.h"
#include "platform/linux/ConsoleSession.h"
#include "platform/linux/LinuxAlertDialogs.h"
#include "platform/linux/LinuxBundle.h"
#include "platform/linux/NoticeProtocol.h"

namespace korvane {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uid_t kUser = 65534;

class LinesLog final : public SystemLog {
  public:
    std::vector<std::string> lines;

  private:
    void writeLine(const LogMessageForm&, std::string_view line) override {
        lines.emplace_back(line);
    }
};

// A machine in whose place this test can write down who sits at the console.
class OwnMachine : public testing::Environment {
  public:
    void SetUp() override {
        ASSERT_EQ(::unshare(CLONE_NEWNS), 0) << "needs root";
        ASSERT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        // What a program leaves running is this process's then, and can be waited for.
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        std::filesystem::create_directories("/run/systemd");
        ASSERT_EQ(::mount("tmpfs", "/run/systemd", "tmpfs", 0, nullptr), 0);
    }
};
const testing::Environment* const kOwnMachine =
    testing::AddGlobalTestEnvironment(new OwnMachine);  // the framework deletes it

void logIn(const std::string& sessionClass) {
    std::filesystem::create_directories("/run/systemd/seats");
    std::filesystem::create_directories("/run/systemd/sessions");
    std::ofstream("/run/systemd/seats/seat0")
        << "IS_SEAT0=1\nACTIVE=7\nACTIVE_UID=" << kUser << "\n";
    std::ofstream("/run/systemd/sessions/7")
        << "UID=" << kUser << "\nACTIVE=1\nSTATE=active\nCLASS=" << sessionClass << "\n";
}

// Until none of them writes into the folder any more. Once nobody else waits for them.
void waitForPrograms() {
    while (::wait(nullptr) > 0 || errno == EINTR) {
    }
}

class AlertDialogsTest : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = testing::TempDir() + "dialogs." + std::to_string(::getpid());
        std::filesystem::create_directories(folder_ + "/PlugIns");
        logIn("user");
    }
    void TearDown() override {
        waitForPrograms();
        std::filesystem::remove_all(folder_);
        std::filesystem::remove_all("/run/systemd/seats");
        std::filesystem::remove_all("/run/systemd/sessions");
    }

    // A notice program that notes its argument and its input and then does `rest`.
    void installProgram(const std::string& rest) {
        const std::string path = folder_ + "/PlugIns/KorvaneProNotice";
        std::ofstream(path) << "#!/bin/sh\necho $* >" << folder_ << "/argument\ncat >" << folder_
                            << "/input\n"
                            << rest << "\n";
        ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    }
    [[nodiscard]] std::string contents(const std::string& name) const {
        std::ifstream file(folder_ + "/" + name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // Runs the loop until the condition holds, looked at every few milliseconds.
    void runUntil(std::function<bool()> condition) {
        const auto poll = loop_.startTimer(milliseconds{5}, Repeat::every, [&] {
            if (condition()) loop_.terminate();
        });
        const auto limit = loop_.startTimer(std::chrono::seconds{60}, Repeat::once, [&] {
            ADD_FAILURE() << "what was waited for did not happen";
            loop_.terminate();
        });
        loop_.run();
    }

    std::string folder_;
    LinesLog log_;
    LinuxRunLoop loop_{log_};
    const Alert alert_{"Korvane Pro Warning", "Low", "OK", AlertLevel::caution, milliseconds{0}};
};

// ---- What is promised of dialogs in one place ---------------------------------------------------

// A desktop whose screen is a folder: the program of a notice puts its message there, in a file
// named by the order in which they came, and takes it away at SIGTERM. As the notice program does
// it ends at once where the desktop has not been given the notice.
struct FolderDesktop final : AlertDialogsSubject {
    FolderDesktop() {
        for (const char* const name : {"PlugIns", "screen", "waiting"}) {
            std::filesystem::create_directories(folder + "/" + name);
        }
        logIn("user");
        const std::string path = folder + "/PlugIns/KorvaneProNotice";
        std::ofstream(path) << "#!/bin/bash\ncd " << folder << R"(
touch waiting/$$; ls waiting | wc -l >> most
trap 'rm waiting/$$; exit 0' TERM
while [ -e hanging ]; do sleep 0.01; done
message=$(sed -n 's/.*<string>\(.*\)<\/string>.*/\1/p' | grep -v '^Korvane Pro$' | grep -v '^OK$')
trap 'while [ -e hanging ]; do sleep 0.01; done; rm screen/$$; exit 0' TERM
rm waiting/$$; echo "$message" > screen/$$; echo "$message" >> ever
echo -n s
while :; do sleep 0.01; done
)";
        EXPECT_EQ(::chmod(path.c_str(), 0755), 0);
        alertDialogs.emplace(loop, bundle, log);
    }
    ~FolderDesktop() override {
        setHanging(false);
        alertDialogs.reset();
        waitForPrograms();
        std::filesystem::remove_all(folder);
        std::filesystem::remove_all("/run/systemd/seats");
        std::filesystem::remove_all("/run/systemd/sessions");
    }
    AlertDialogs& dialogs() override { return *alertDialogs; }
    void setHanging(bool isHanging) override {
        if (isHanging) {
            std::ofstream(folder + "/hanging").put('h');
        } else {
            std::filesystem::remove(folder + "/hanging");
        }
    }
    std::vector<std::string> onScreen() override {
        std::vector<std::string> messages;
        for (const auto& file : std::filesystem::directory_iterator(folder + "/screen")) {
            for (const std::string& line : linesOf(file.path())) messages.push_back(line);
        }
        std::ranges::sort(messages);
        return messages;
    }
    std::vector<std::string> everShown() override { return linesOf(folder + "/ever"); }
    std::size_t mostWaiting() override {
        std::size_t most = 0;
        for (const std::string& count : linesOf(folder + "/most")) {
            most = std::max(most, std::size_t{std::stoul(count)});
        }
        return most;
    }
    void runUntil(const std::function<bool()>& isDone) override {
        const auto poll = loop.startTimer(milliseconds{5}, Repeat::every, [] {});
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds{60};
        while (!isDone() && std::chrono::steady_clock::now() < limit) {
            ASSERT_GE(sd_event_run(loop.event(), UINT64_MAX), 0);
        }
        EXPECT_TRUE(isDone());
    }
    static std::vector<std::string> linesOf(const std::filesystem::path& path) {
        std::vector<std::string> lines;
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
    }

    const std::string folder = testing::TempDir() + "desktop." + std::to_string(::getpid());
    LinesLog log;
    LinuxRunLoop loop{log};
    LinuxBundle bundle{folder, {}};
    std::optional<LinuxAlertDialogs> alertDialogs;
};
INSTANTIATE_TEST_SUITE_P(Linux, AlertDialogsConformance,
                         testing::Values(Implementation<AlertDialogsSubject>{
                             "Linux", [] { return std::make_unique<FolderDesktop>(); }}),
                         testing::PrintToStringParamName());

// ---- The Linux machine's alone ------------------------------------------------------------------

TEST_F(AlertDialogsTest, SpeaksToTheUserAtTheConsole) {
    installProgram("");
    LinuxBundle bundle{folder_, {}};
    LinuxAlertDialogs dialogs{loop_, bundle, log_};
    ASSERT_NE(dialogs.show(alert_, nullptr), nullptr);
    runUntil([&] { return !contents("input").empty() && contents("argument") == "65534\n"; });
    const Result<Alert> received = parseNotice(contents("input"));
    ASSERT_TRUE(received);
    EXPECT_EQ(received->message, "Low");
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(AlertDialogsTest, ALoginScreenIsNotAUser) {
    installProgram("");
    logIn("greeter");
    EXPECT_EQ(consoleUser(), std::nullopt);
    LinuxBundle bundle{folder_, {}};
    LinuxAlertDialogs dialogs{loop_, bundle, log_};
    EXPECT_EQ(dialogs.show(alert_, nullptr), nullptr);
    EXPECT_THAT(log_.lines,
                ElementsAre("The dialog \"Korvane Pro Warning\" is not shown: nobody is "
                            "logged in at the console."));
}

TEST_F(AlertDialogsTest, AMachineWithoutSessionsIsToldOnceADialog) {
    std::filesystem::remove_all("/run/systemd/seats");
    LinuxBundle bundle{folder_, {}};
    LinuxAlertDialogs dialogs{loop_, bundle, log_};
    EXPECT_EQ(dialogs.show(alert_, nullptr), nullptr);
    EXPECT_EQ(log_.lines.size(), 1U);
}

TEST_F(AlertDialogsTest, AMissingProgramIsTold) {
    LinuxBundle bundle{folder_, {}};
    LinuxAlertDialogs dialogs{loop_, bundle, log_};
    EXPECT_EQ(dialogs.show(alert_, nullptr), nullptr);
    EXPECT_THAT(log_.lines, ElementsAre("The dialog \"Korvane Pro Warning\" is not shown: "
                                        "KorvaneProNotice is missing."));
}

TEST_F(AlertDialogsTest, ADesktopThatDoesNotShowItIsOneLine) {
    const std::vector<std::pair<std::string, std::string>> ends{
        {"exit 3", "the console user's session could not be reached"},
        {"exit 4", "the session has no notification service that takes it"},
        {"exit 2", "the notice program failed with status 2"},
        {"kill -ALRM $$", "the desktop did not answer"}};
    LinuxBundle bundle{folder_, {}};
    LinuxAlertDialogs dialogs{loop_, bundle, log_};
    std::size_t index = 0;
    std::unique_ptr<AlertDialog> dialog;
    const auto next = [&] {
        installProgram(ends[index].first);
        dialog = dialogs.show(alert_, nullptr);
        ASSERT_NE(dialog, nullptr);
    };
    next();
    runUntil([&] {
        if (log_.lines.size() == index) return false;
        if (++index == ends.size()) return true;
        next();
        return false;
    });
    ASSERT_EQ(log_.lines.size(), ends.size());
    for (std::size_t end = 0; end < ends.size(); ++end) {
        EXPECT_EQ(log_.lines[end],
                  "The dialog \"Korvane Pro Warning\" is not shown: " + ends[end].second + ".");
    }
}

// Its limit is the time that the program takes to find out that there is no service, and more.
TEST_F(AlertDialogsTest, ADesktopThatHangsWithTheNoticeIsOneLine) {
    installProgram("while :; do sleep 0.02; done");
    LinuxBundle bundle{folder_, {}};
    LinuxAlertDialogs dialogs{loop_, bundle, log_};
    const std::unique_ptr<AlertDialog> dialog = dialogs.show(alert_, nullptr);
    ASSERT_NE(dialog, nullptr);
    runUntil([&] { return !log_.lines.empty(); });
    dialog->cancel();
    EXPECT_THAT(log_.lines, ElementsAre("The dialog \"Korvane Pro Warning\" is not shown: the "
                                        "desktop did not answer."));
}

TEST_F(AlertDialogsTest, CancellingEndsTheProgramSilently) {
    installProgram("trap 'touch " + folder_ + "/cancelled; exit 0' TERM\ntouch " + folder_ +
                   "/ready\nwhile :; do sleep 0.02; done");
    LinuxBundle bundle{folder_, {}};
    LinuxAlertDialogs dialogs{loop_, bundle, log_};
    const std::unique_ptr<AlertDialog> dialog = dialogs.show(alert_, nullptr);
    ASSERT_NE(dialog, nullptr);
    runUntil([&] {
        if (!std::filesystem::exists(folder_ + "/ready")) return false;
        dialog->cancel();
        return std::filesystem::exists(folder_ + "/cancelled");
    });
    dialog->cancel();
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(AlertDialogsTest, TheNoticesGoOffTheScreenAtTheEnd) {
    installProgram("trap 'touch " + folder_ + "/closed; exit 0' TERM\ntouch " + folder_ +
                   "/ready\nwhile :; do sleep 0.02; done");
    LinuxBundle bundle{folder_, {}};
    std::unique_ptr<AlertDialog> dialog;
    {
        LinuxAlertDialogs dialogs{loop_, bundle, log_};
        dialog = dialogs.show(alert_, nullptr);
        ASSERT_NE(dialog, nullptr);
        runUntil([&] { return std::filesystem::exists(folder_ + "/ready"); });
    }
    waitForPrograms();
    EXPECT_TRUE(std::filesystem::exists(folder_ + "/closed"));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(AlertDialogsTest, WhatTheProgramComplainsOfIsNotSaidTwice) {
    installProgram("echo noise >&2; exit 4");
    LinuxBundle bundle{folder_, {}};
    LinuxAlertDialogs dialogs{loop_, bundle, log_};
    testing::internal::CaptureStderr();
    const std::unique_ptr<AlertDialog> dialog = dialogs.show(alert_, nullptr);
    runUntil([&] { return !log_.lines.empty(); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log_.lines.size(), 1U);
}

TEST_F(AlertDialogsTest, ADialogMayOutliveTheOneThatShowedIt) {
    installProgram("");
    LinuxBundle bundle{folder_, {}};
    std::unique_ptr<AlertDialog> dialog;
    {
        LinuxAlertDialogs dialogs{loop_, bundle, log_};
        dialog = dialogs.show(alert_, nullptr);
    }
    ASSERT_NE(dialog, nullptr);
    dialog->cancel();
    EXPECT_THAT(log_.lines, IsEmpty());
}

}  // namespace
}  // namespace korvane
