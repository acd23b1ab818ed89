// Holds the parts of the Linux machine that speak on a bus to what their interfaces promise, on a
// real dbus-daemon.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "conformance/ControlConnectionConformance.h"
#include "conformance/ProcessesConformance.h"
#include "integration/PrivateBus.h"
#include "platform/linux/LinuxBus.h"
#include "platform/linux/LinuxControlConnection.h"
#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/LinuxRunLoop.h"
#include "unit/platform/RecordingLog.h"

namespace korvane {
namespace {

struct OnBus {
    OnBus() {
        privateBus.start();
        bus.connect();
    }
    PrivateBus privateBus;
    RecordingLog log;
    LinuxRunLoop runLoop{log};
    LinuxBus bus{runLoop, LinuxBus::Kind::system};
};

struct LinuxControlSubject final : ControlConnectionSubject {
    ControlConnection& connection() override { return control; }
    ControlAnswer send(const std::string& word) override { return sendAs("", word); }
    ControlAnswer sendAsOther(const std::string& word) override {
        if (::geteuid() != 0) return ControlAnswer::yes;
        return sendAs("setpriv --reuid=65534 --clear-groups ", word);
    }
    bool takeName() override {
        other.connect();
        return sd_bus_request_name(other.connection(), "com.quorlen.KorvaneProDaemon", 0) >= 0;
    }

    bool createItems(const std::string& first, const std::string& second) override {
        return sendPaths("messageDoCreateItems", first, second);
    }
    bool deleteItems(const std::string& first, const std::string& second) override {
        return sendPaths("messageDoDeleteItems", first, second);
    }

    std::vector<ItemFailure> heardFailures() override {
        if (!isListening) {
            const auto hear = [](sd_bus_message* message, void* heard, sd_bus_error*) {
                const char* path = nullptr;
                const char* reason = nullptr;
                if (sd_bus_message_read(message, "ss", &path, &reason) >= 0) {
                    static_cast<std::vector<ItemFailure>*>(heard)->push_back({path, reason});
                }
                return 0;
            };
            other.connect();
            isListening = sd_bus_match_signal(
                              other.connection(), nullptr, nullptr, "/com/quorlen/KorvaneProDaemon",
                              "com.quorlen.KorvaneProDaemon", "itemFailed", hear, &failures) >= 0;
        }
        return failures;
    }

    CommandResult call(const std::string& user, const std::string& methodAndArguments) {
        CommandResult result;
        bool done = false;
        std::thread caller([&] {
            result = runCommand(user +
                                "busctl --system --timeout=10 call com.quorlen.KorvaneProDaemon "
                                "/com/quorlen/KorvaneProDaemon com.quorlen.KorvaneProDaemon " +
                                methodAndArguments);
            machine.runLoop.post([&done] { done = true; });
        });
        while (!done) (void)sd_event_run(machine.runLoop.event(), UINT64_MAX);
        caller.join();
        return result;
    }
    bool sendPaths(const std::string& method, const std::string& first, const std::string& second) {
        return call("", method + " as 2 '" + first + "' '" + second + "'").status == 0;
    }
    ControlAnswer sendAs(const std::string& user, const std::string& word) {
        const CommandResult result = call(user, "messageXmitRcvr s '" + word + "'");
        if (result.output == "b true\n") return ControlAnswer::yes;
        if (result.output == "b false\n") return ControlAnswer::no;
        return result.output.find("Access denied") != std::string::npos ? ControlAnswer::refused
                                                                        : ControlAnswer::nobody;
    }

    OnBus machine;
    LinuxBus other{machine.runLoop, LinuxBus::Kind::system};
    bool isListening = false;
    std::vector<ItemFailure> failures;
    LinuxControlConnection control{machine.runLoop, machine.bus, machine.log};
};
INSTANTIATE_TEST_SUITE_P(Linux, ControlConnectionConformance,
                         testing::Values(Implementation<ControlConnectionSubject>{
                             "Linux", [] { return std::make_unique<LinuxControlSubject>(); }}),
                         testing::PrintToStringParamName());

struct LinuxProcessesSubject final : ProcessesSubject {
    LinuxProcessesSubject() { application.connect(); }
    Processes& processes() override { return list; }
    void start(const std::string& name) override {
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::prctl(PR_SET_NAME, name.c_str());
            while (true) ::pause();
        }
        running[name] = child;
        // It has its name only once it has run.
        const std::string comm = "/proc/" + std::to_string(child) + "/comm";
        while (runCommand("cat " + comm).output != name + "\n") ::usleep(1000);
    }
    // Dead but not yet reaped, as a process of somebody else may stay for long.
    void quit(const std::string& name) override {
        ::kill(running[name], SIGKILL);
        siginfo_t ignored{};
        ::waitid(P_PID, static_cast<id_t>(running[name]), &ignored, WEXITED | WNOWAIT);
    }
    bool runApplication(const std::string& bundleIdentifier) override {
        return sd_bus_request_name(application.connection(), bundleIdentifier.c_str(), 0) >= 0 &&
               sd_bus_release_name(application.connection(), bundleIdentifier.c_str()) >= 0;
    }
    void runUntil(const std::function<bool()>& isDone) override {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{10};
        while (!isDone() && std::chrono::steady_clock::now() < end) {
            (void)sd_event_run(machine.runLoop.event(), 10'000);
        }
    }
    std::string fileMaker() override { return "/usr/bin/touch"; }
    std::string sleeper() override { return "/bin/sleep"; }
    std::string newPath() override { return folder / std::to_string(++paths); }
    bool exists(const std::string& path) override { return ::access(path.c_str(), F_OK) == 0; }
    ~LinuxProcessesSubject() override {
        for (const auto& [name, child] : running) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
    }
    LinuxProcessesSubject(const LinuxProcessesSubject&) = delete;
    LinuxProcessesSubject& operator=(const LinuxProcessesSubject&) = delete;

    OnBus machine;
    LinuxBus application{machine.runLoop, LinuxBus::Kind::system};
    LinuxProcesses list{machine.runLoop, machine.bus};
    std::map<std::string, pid_t> running;
    TemporaryFolder folder;
    int paths = 0;
};
INSTANTIATE_TEST_SUITE_P(Linux, ProcessesConformance,
                         testing::Values(Implementation<ProcessesSubject>{
                             "Linux", [] { return std::make_unique<LinuxProcessesSubject>(); }}),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace korvane
