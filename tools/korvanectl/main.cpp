// korvanectl: the command line of the protection daemon. Puts the real machine and the commands
// together; everything else is in the parts that its tests reach.
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "korvanectl/BusLink.h"
#include "korvanectl/Program.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/LinuxVolumes.h"
#include "storage/SupportFolder.h"

namespace {

using namespace korvane;

// What the machine's parts have to say matters to a daemon, not to a person who asked something.
class NoLog : public SystemLog {
  public:
    void writeLine(const LogMessageForm& /*form*/, std::string_view /*line*/) override {}
};

// The mounted volumes, read once. Numbers and links are the daemon's to keep.
class MountedNow {
  public:
    MountedNow() {
        sigset_t mask;
        (void)pthread_sigmask(SIG_SETMASK, nullptr, &mask);  // only asks
        loop_.emplace(log_);
        volumes_.emplace(*loop_, LinuxVolumesPlaces{});
        // The loop takes the signals for itself, but it never runs here: Ctrl-C must still work
        // while a dying disk is asked for its free space.
        (void)pthread_sigmask(SIG_SETMASK, &mask, nullptr);  // fails for no mask it gave out
    }
    Volumes& volumes() { return *volumes_; }

  private:
    NoLog log_;
    std::optional<LinuxRunLoop> loop_;
    std::optional<LinuxVolumes> volumes_;
};

// The signals that end a program: held back once there is something to be put right before.
class EndRequests {
  public:
    void hold() {
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) (void)sigaddset(&held_, number);
        (void)pthread_sigmask(SIG_BLOCK, &held_, nullptr);  // fails for no such mask
        isHolding_ = true;
    }
    // False when one came meanwhile.
    bool pause(std::chrono::milliseconds length) const {
        // What was printed is to be seen now, not when the program ends.
        std::fflush(stdout);
        if (!isHolding_) {
            std::this_thread::sleep_for(length);
            return true;
        }
        const timespec limit{.tv_sec = length.count() / 1000,
                             .tv_nsec = length.count() % 1000 * 1'000'000};
        return sigtimedwait(&held_, nullptr, &limit) < 0;
    }

  private:
    sigset_t held_{};
    bool isHolding_ = false;
};

// The terminal as it is to be again, for the signal handler too.
termios shownTyping{};

// The handler is gone by then, so that the signal does what it does to a program.
void showTypingAndEnd(int number) {
    (void)::tcsetattr(STDIN_FILENO, TCSANOW, &shownTyping);
    (void)::raise(number);
}

// The terminal without its echo for as long as this lives; what is no terminal is left alone. One
// at a time: a signal that ends the program meanwhile brings the echo back first, and none stops
// it.
class HiddenTyping {
  public:
    HiddenTyping() : isTerminal_(::tcgetattr(STDIN_FILENO, &shownTyping) == 0) {
        if (!isTerminal_) return;
        struct sigaction action {};
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        for (std::size_t i = 0; i < kSignals.size(); ++i) {
            action.sa_handler = kSignals[i] == SIGTSTP ? SIG_IGN : showTypingAndEnd;
            (void)::sigaction(kSignals[i], &action, &before_[i]);  // fails for no such signal
        }
        termios hidden = shownTyping;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        (void)::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);  // shown, then: no worse than before
    }
    ~HiddenTyping() {
        if (!isTerminal_) return;
        (void)::tcsetattr(STDIN_FILENO, TCSAFLUSH, &shownTyping);
        fmt::print(stderr, "\n");  // the one that was not shown
        for (std::size_t i = 0; i < kSignals.size(); ++i) {
            (void)::sigaction(kSignals[i], &before_[i], nullptr);
        }
    }
    HiddenTyping(const HiddenTyping&) = delete;
    HiddenTyping& operator=(const HiddenTyping&) = delete;

  private:
    static constexpr std::array kSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    std::array<struct sigaction, kSignals.size()> before_{};
    bool isTerminal_;
};

std::optional<std::string> askOnTerminal(const std::string& question, ctl::Echo echo) {
    fmt::print(stderr, "{}", question);
    std::optional<HiddenTyping> hidden;
    if (echo == ctl::Echo::off) hidden.emplace();
    std::string line;
    if (!std::getline(std::cin, line)) return std::nullopt;
    return line;
}

// Where the daemon has its helper programs: beside itself. In a build it lies beside this program,
// installed in the library folder of the same place.
std::string plugInsFolder() {
    std::error_code error;
    const auto here = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    const bool isBuild = std::filesystem::exists(here / "KorvaneProDaemon", error);
    return ((isBuild ? here : here.parent_path() / "lib/korvane-pro") / "PlugIns").string();
}

int run(int argumentCount, const char* const* arguments) {
    std::optional<MountedNow> mounted;
    ctl::BusLink daemon;
    EndRequests endRequests;
    ctl::Program program{
        .preferences = ctl::Preferences{kPreferencesFile},
        .supportFolder = kSupportFolder,
        .plugInsFolder = plugInsFolder(),
        .daemon = daemon,
        .volumes = [&]() -> Volumes& {
            if (!mounted) {
                mounted.emplace();
            }
            return mounted->volumes();
        },
        .now =
            [] {
                return std::chrono::floor<std::chrono::microseconds>(
                    std::chrono::system_clock::now());
            },
        .paint = ctl::Paint::forDescriptor(STDOUT_FILENO),
        .print = [](std::string_view text) { fmt::print("{}", text); },
        .note = [](std::string_view line) { fmt::print(stderr, "korvanectl: {}\n", line); },
        .progress =
            [](std::string_view line) {
                // ECMA-48: to the beginning of the line, erase it.
                if (isatty(STDERR_FILENO) == 1) fmt::print(stderr, "\r\x1b[K{}", line);
            },
        .pause = [&](std::chrono::milliseconds length) { return endRequests.pause(length); },
        .beMainApplication =
            [&] {
                // Of 15 bytes, the most that the kernel keeps of a name.
                (void)prctl(PR_SET_NAME, "Korvane Pro ctl");  // fails for no name
                endRequests.hold();
            },
        .isTerminal = isatty(STDOUT_FILENO) == 1,
        .ask = askOnTerminal,
        .json = false,
        .command = {}};
    const int status = ctl::runProgram(program, argumentCount, arguments);
    if (std::fflush(stdout) != 0) {
        return static_cast<int>(ctl::ExitStatus::fileProblem);
    }
    return status;
}

}  // namespace

int main(int argumentCount, char** arguments) {
    try {
        return run(argumentCount, arguments);
    } catch (const std::exception& failure) {
        // Out of memory, or a machine that refuses a descriptor: nothing that a command expects.
        std::fprintf(stderr, "korvanectl: %s\n", failure.what());
        return static_cast<int>(ctl::ExitStatus::fileProblem);
    }
}
