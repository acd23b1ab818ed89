// What a command word costs its sender: the round trip to the daemon, on a bus of its own, beside
// that to a program that only echoes, over the same bus. Both take turns of a moment each, and the
// turns that nothing else on the machine came in between count: the quickest tenth of each.
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/KorvaneProDaemon.h"
#include "platform/linux/LinuxBus.h"
#include "platform/linux/LinuxControlConnection.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {
namespace {

constexpr double kBoundTimes = 2;
constexpr int kTurns = 1000;
constexpr int kCallsOfATurn = 5;
constexpr char kDaemonName[] = "com.quorlen.KorvaneProDaemon";
constexpr char kEchoName[] = "com.quorlen.Echo";

// A process that ends with this one at the latest.
template <typename Work>
pid_t startChild(Work work) {
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child != 0) return child;
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() == parent) work();
    ::_exit(1);
}

void runDaemon() {
    // The machine is simulated where a word does not touch it: the loop and the bus are real.
    MachineDescription description;
    description.version = SystemVersion{11, 0, 0};
    SimulatedMachine simulated{description};
    LinuxRunLoop loop{simulated.systemLog};
    LinuxBus bus{loop, LinuxBus::Kind::system};
    bus.connect();
    LinuxControlConnection connection{loop, bus, simulated.systemLog};
    KorvaneProDaemon daemon{{.runLoop = loop,
                             .clock = simulated.clock,
                             .fileSystem = simulated.fileSystem,
                             .volumes = simulated.volumes,
                             .deviceRegistry = simulated.deviceRegistry,
                             .powerSources = simulated.powerSources,
                             .processes = simulated.processes,
                             .systemLog = simulated.systemLog,
                             .controlConnection = connection,
                             .host = simulated.host,
                             .alertDialogs = simulated.alertDialogs,
                             .bundle = simulated.bundle,
                             .socketStreams = simulated.mailServer,
                             .directoryWatch = simulated.directoryWatch}};
    daemon.awakeFromNib();
    loop.run();
}

int echo(sd_bus_message* message, void* /*nothing*/, sd_bus_error* /*error*/) {
    const char* word = nullptr;
    if (const int result = sd_bus_message_read(message, "s", &word); result < 0) return result;
    return sd_bus_reply_method_return(message, "b", *word != '\0');
}

void runEcho() {
    const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("messageXmitRcvr", "s", "b", echo, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0 ||
        sd_bus_add_object_vtable(bus, nullptr, "/echo", kEchoName, vtable, nullptr) < 0 ||
        sd_bus_request_name(bus, kEchoName, 0) < 0) {
        return;
    }
    while (sd_bus_process(bus, nullptr) > 0 || sd_bus_wait(bus, UINT64_MAX) >= 0) {
    }
}

bool call(sd_bus* bus, const char* name, const char* path) {
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call_method(bus, name, path, name, "messageXmitRcvr", nullptr, &reply,
                                          "s", "isSMARTExecuteComplete");
    sd_bus_message_unref(reply);
    return result >= 0;
}

bool awaitService(sd_bus* bus, const char* name, const char* path) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!call(bus, name, path)) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

double microsecondsOfACall(sd_bus* bus, const char* name, const char* path) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kCallsOfATurn; ++i) {
        if (!call(bus, name, path)) std::exit(EXIT_FAILURE);
    }
    const std::chrono::duration<double, std::micro> spent =
        std::chrono::steady_clock::now() - begin;
    return spent.count() / kCallsOfATurn;
}

double undisturbed(std::vector<double> turns) {
    const auto tenth = turns.begin() + static_cast<long>(turns.size() / 10);
    std::nth_element(turns.begin(), tenth, turns.end());
    return *tenth;
}

int compare() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) return EXIT_FAILURE;
    constexpr char kDaemonPath[] = "/com/quorlen/KorvaneProDaemon";
    if (!awaitService(bus, kDaemonName, kDaemonPath) || !awaitService(bus, kEchoName, "/echo")) {
        std::fprintf(stderr, "bench_control: who is to answer does not\n");
        return EXIT_FAILURE;
    }
    std::vector<double> daemon;
    std::vector<double> echoes;
    for (int turn = 0; turn < kTurns; ++turn) {
        echoes.push_back(microsecondsOfACall(bus, kEchoName, "/echo"));
        daemon.push_back(microsecondsOfACall(bus, kDaemonName, kDaemonPath));
    }
    const double bare = undisturbed(echoes);
    const double ours = undisturbed(daemon);
    fmt::print("A command word and its answer\t{:.0f} µs\t{:.0f} × a bare echo's {:.0f} µs\t{}\n",
               ours, kBoundTimes, bare, ours <= kBoundTimes * bare ? "ok" : "over");
    return EXIT_SUCCESS;
}

int run() {
    std::string folder = "/tmp/korvane-bench-XXXXXX";
    if (::mkdtemp(folder.data()) == nullptr) return EXIT_FAILURE;
    const std::string address = "unix:path=" + folder + "/bus";
    const std::string config = folder + "/bus.conf";
    std::ofstream{config} << "<busconfig><listen>" << address
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                             "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/>"
                             "<allow own=\"*\"/></policy></busconfig>\n";
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    const std::string option = "--config-file=" + config;
    const pid_t server = startChild([&option] {
        ::execlp("dbus-daemon", "dbus-daemon", option.c_str(), "--nofork", "--nopidfile", nullptr);
    });
    while (!std::filesystem::exists(folder + "/bus") && ::waitpid(server, nullptr, WNOHANG) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const pid_t echoer = startChild(runEcho);
    const pid_t daemon = startChild(runDaemon);
    const int status = compare();
    for (const pid_t child : {daemon, echoer, server}) {
        (void)::kill(child, SIGKILL);
        (void)::waitpid(child, nullptr, 0);
    }
    std::filesystem::remove_all(folder);
    return status;
}

}  // namespace
}  // namespace korvane

int main() { return korvane::run(); }
