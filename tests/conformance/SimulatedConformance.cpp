// Holds the simulated machine's loop, clock, processes and other small parts to what their
// interfaces promise.
#include "conformance/AlertDialogsConformance.h"
#include "conformance/ClockConformance.h"
#include "conformance/ControlConnectionConformance.h"
#include "conformance/HostConformance.h"
#include "conformance/PowerSourcesConformance.h"
#include "conformance/ProcessesConformance.h"
#include "conformance/RunLoopConformance.h"
#include "conformance/SocketStreamsConformance.h"
#include "conformance/SystemLogConformance.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {
namespace {

struct SimulatedLoopSubject final : RunLoopSubject {
    RunLoop& loop() override { return machine.runLoop; }
    Clock& clock() override { return machine.clock; }
    void spend(std::chrono::microseconds duration) override { machine.clock.advance(duration); }
    void becomeActive() override { machine.runLoop.becomeActive(); }
    SimulatedMachine machine{MachineDescription{}};
};
INSTANTIATE_TEST_SUITE_P(Simulated, RunLoopConformance,
                         testing::Values(Implementation<RunLoopSubject>{
                             "Simulated", [] { return std::make_unique<SimulatedLoopSubject>(); }}),
                         testing::PrintToStringParamName());

struct SimulatedClockSubject final : ClockSubject {
    Clock& clock() override { return machine.clock; }
    RunLoop& loop() override { return machine.runLoop; }
    void step(std::chrono::microseconds offset) override { machine.clock.step(offset); }
    void spend(std::chrono::microseconds duration) override { machine.clock.advance(duration); }
    SimulatedMachine machine{MachineDescription{}};
};
INSTANTIATE_TEST_SUITE_P(Simulated, ClockConformance,
                         testing::Values(Implementation<ClockSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedClockSubject>(); }}),
                         testing::PrintToStringParamName());

struct SimulatedPowerSubject final : PowerSourcesSubject {
    PowerSources& powerSources() override { return machine.powerSources; }
    void setNone() override { machine.powerSources.setStates(std::nullopt); }
    void setOnBattery() override { machine.setOnBattery(true); }
    void setOnMains() override { machine.setOnBattery(false); }
    SimulatedMachine machine{MachineDescription{}};
};
INSTANTIATE_TEST_SUITE_P(Simulated, PowerSourcesConformance,
                         testing::Values(Implementation<PowerSourcesSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedPowerSubject>(); }}),
                         testing::PrintToStringParamName());

struct SimulatedProcessesSubject final : ProcessesSubject {
    Processes& processes() override { return machine.processes; }
    void start(const std::string& name) override { machine.processes.start({name, ""}); }
    void quit(const std::string& name) override { machine.processes.quit(name); }
    std::string fileMaker() override {
        machine.processes.setProgram("/bin/touch",
                                     {std::chrono::seconds{1}, [this](const auto& arguments) {
                                          machine.fileSystem.put(arguments.at(0), "");
                                      }});
        return "/bin/touch";
    }
    std::string sleeper() override {
        machine.processes.setProgram("/bin/sleep", {});
        return "/bin/sleep";
    }
    std::string newPath() override { return "/tmp/" + std::to_string(++paths); }
    bool exists(const std::string& path) override { return machine.fileSystem.exists(path); }
    bool runApplication(const std::string& bundleIdentifier) override {
        machine.processes.start({"application", bundleIdentifier});
        return machine.processes.quit("application");
    }
    void runUntil(const std::function<bool()>& isDone) override {
        while (!isDone() && machine.runLoop.runOnce()) {
        }
    }
    int paths = 0;
    SimulatedMachine machine{MachineDescription{}};
};
INSTANTIATE_TEST_SUITE_P(Simulated, ProcessesConformance,
                         testing::Values(Implementation<ProcessesSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedProcessesSubject>(); }}),
                         testing::PrintToStringParamName());

struct SimulatedControlSubject final : ControlConnectionSubject {
    using Answer = SimulatedControlConnection::Answer;
    using Caller = SimulatedControlConnection::Caller;

    ControlConnection& connection() override { return machine.controlConnection; }
    ControlAnswer send(const std::string& word) override {
        return answerOf(machine.controlConnection.send(word, Caller::daemonUser));
    }
    ControlAnswer sendAsOther(const std::string& word) override {
        return answerOf(machine.controlConnection.send(word, Caller::other));
    }
    bool createItems(const std::string& first, const std::string& second) override {
        return machine.controlConnection.createItems({first, second}) == Answer::yes;
    }
    bool deleteItems(const std::string& first, const std::string& second) override {
        return machine.controlConnection.deleteItems({first, second}) == Answer::yes;
    }
    std::vector<ItemFailure> heardFailures() override {
        return machine.controlConnection.itemFailures();
    }
    bool takeName() override {
        machine.controlConnection.setUnavailable(true);
        return true;
    }
    static ControlAnswer answerOf(Answer answer) {
        switch (answer) {
            case Answer::yes:
                return ControlAnswer::yes;
            case Answer::no:
                return ControlAnswer::no;
            case Answer::refused:
                return ControlAnswer::refused;
            case Answer::nobody:
                break;
        }
        return ControlAnswer::nobody;
    }
    SimulatedMachine machine{MachineDescription{}};
};
INSTANTIATE_TEST_SUITE_P(Simulated, ControlConnectionConformance,
                         testing::Values(Implementation<ControlConnectionSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedControlSubject>(); }}),
                         testing::PrintToStringParamName());

INSTANTIATE_TEST_SUITE_P(Simulated, HostConformance,
                         testing::Values(Implementation<Host>{
                             "Simulated",
                             [] {
                                 return std::make_unique<SimulatedHost>(SystemVersion{10, 6, 8});
                             }}),
                         testing::PrintToStringParamName());

struct SimulatedLogSubject final : SystemLogSubject {
    SystemLog& log() override { return machine.systemLog; }
    std::vector<std::string> lines() override {
        std::vector<std::string> texts;
        for (const SimulatedSystemLog::Line& line : machine.systemLog.lines()) {
            texts.push_back(line.text);
        }
        return texts;
    }
    SimulatedMachine machine{MachineDescription{}};
};
INSTANTIATE_TEST_SUITE_P(Simulated, SystemLogConformance,
                         testing::Values(Implementation<SystemLogSubject>{
                             "Simulated", [] { return std::make_unique<SimulatedLogSubject>(); }}),
                         testing::PrintToStringParamName());

struct SimulatedDialogsSubject final : AlertDialogsSubject {
    AlertDialogs& dialogs() override { return machine.alertDialogs; }
    void setHanging(bool isHanging) override { machine.alertDialogs.setHanging(isHanging); }
    std::vector<std::string> onScreen() override {
        std::vector<std::string> messages;
        for (const auto& shown : machine.alertDialogs.shown()) {
            if (shown.isOnScreen) messages.push_back(shown.alert.message);
        }
        return messages;
    }
    std::vector<std::string> everShown() override {
        std::vector<std::string> messages;
        for (const auto& shown : machine.alertDialogs.shown()) {
            messages.push_back(shown.alert.message);
        }
        return messages;
    }
    std::size_t mostWaiting() override { return 0; }  // no programs here
    void runUntil(const std::function<bool()>& isDone) override {
        while (!isDone() && machine.runLoop.runOnce()) {
        }
        EXPECT_TRUE(isDone());
    }
    SimulatedMachine machine{MachineDescription{}};
};
INSTANTIATE_TEST_SUITE_P(Simulated, AlertDialogsConformance,
                         testing::Values(Implementation<AlertDialogsSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedDialogsSubject>(); }}),
                         testing::PrintToStringParamName());

struct SimulatedSocketStreamsSubject final : SocketStreamsSubject {
    SocketStreams& streams() override { return machine.mailServer; }
    int serve(const std::string& greeting, const std::string& reply) override {
        const MailReply hangUp{.chunks = {}, .thenCloses = true};
        machine.mailServer.setGreeting(greeting.empty() ? hangUp : MailReply{.chunks = {greeting}});
        const MailReply answer = reply.empty() ? hangUp : MailReply{.chunks = {reply}};
        machine.mailServer.setReplies("EHLO", {isSilent ? MailReply{} : answer});
        return 25;
    }
    void fallSilent() override { isSilent = true; }
    int refusingPort() override {
        machine.mailServer.setReachability(SimulatedMailServer::Reachability::inputError);
        return 25;
    }
    void runUntil(const std::function<bool()>& isDone) override {
        while (!isDone() && machine.runLoop.runOnce()) {
        }
    }
    void runOut() override { machine.runLoop.runFor(std::chrono::seconds{1}); }
    SimulatedMachine machine{MachineDescription{}};
    bool isSilent = false;
};
INSTANTIATE_TEST_SUITE_P(Simulated, SocketStreamsConformance,
                         testing::Values(Implementation<SocketStreamsSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedSocketStreamsSubject>(); }}),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace korvane
