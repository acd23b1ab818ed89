// The control connection and the other users of the bus, on a real dbus-daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "integration/PrivateBus.h"
#include "platform/linux/ControlArguments.h"
#include "platform/linux/LinuxBus.h"
#include "platform/linux/LinuxControlConnection.h"
#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/SleepWatch.h"
#include "unit/platform/RecordingLog.h"

namespace korvane {
namespace {

using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;
using testing::SizeIs;

struct RecordingTarget final : ControlTarget {
    bool messageXmitRcvr(const std::string& word) override {
        words.push_back(word);
        if (word == "throw") throw std::runtime_error("no such thing");
        return word != "no";
    }
    void messageDoCreateItems(const std::vector<std::string>& paths) override { created = paths; }
    void messageDoDeleteItems(const std::vector<std::string>& paths) override { deleted = paths; }
    std::vector<std::string> words;
    std::optional<std::vector<std::string>> created;
    std::optional<std::vector<std::string>> deleted;
};

// The value of an attribute in one line of introspection.
std::string attribute(const std::string& line, const std::string& name) {
    const std::size_t at = line.find(" " + name + "=\"");
    if (at == std::string::npos) return "";
    const std::size_t begin = at + name.size() + 3;
    return line.substr(begin, line.find('"', begin) - begin);
}

// The methods of the daemon's own interface in introspection data, one tag a line, each as
// "name(direction type name, ...)".
std::vector<std::string> membersIn(const std::string& xml) {
    std::vector<std::string> methods;
    std::istringstream lines(xml);
    bool isOurs = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("<interface ") != std::string::npos) {
            isOurs = attribute(line, "name") == "com.quorlen.KorvaneProDaemon";
        }
        if (!isOurs) continue;
        if (line.find("<method ") != std::string::npos ||
            line.find("<signal ") != std::string::npos) {
            methods.push_back(attribute(line, "name") + "()");
        } else if (line.find("<arg ") != std::string::npos) {
            std::string& method = methods.back();
            method.pop_back();
            // The arguments of a signal have no direction.
            std::string direction = attribute(line, "direction");
            if (!direction.empty()) direction += " ";
            method += (method.back() == '(' ? "" : ", ") + direction + attribute(line, "type") +
                      " " + attribute(line, "name") + ")";
        }
    }
    return methods;
}

struct OnPrivateBus : testing::Test {
    OnPrivateBus() { privateBus.start(); }

    // Runs a command while the loop serves.
    CommandResult serveDuring(const std::string& command) {
        CommandResult result;
        serveUntilDone([&] { result = runCommand(command); });
        return result;
    }
    // A loop runs once, so each wait has its own nested turns of it.
    void serveUntilDone(const std::function<void()>& work) {
        bool done = false;
        std::thread worker([&] {
            work();
            loop.post([&done] { done = true; });
        });
        while (!done) ASSERT_GE(sd_event_run(loop.event(), UINT64_MAX), 0);
        worker.join();
    }
    // Bounded: false when it did not come about within 10 seconds.
    [[nodiscard]] bool serveUntil(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{10};
        while (!condition() && std::chrono::steady_clock::now() < end) {
            if (sd_event_run(loop.event(), 10'000) < 0) return false;
        }
        return condition();
    }
    [[nodiscard]] CommandResult callMethod(const std::string& methodAndArguments,
                                           const std::string& as = "") {
        return serveDuring(as +
                           "busctl --system --timeout=10 call com.quorlen.KorvaneProDaemon "
                           "/com/quorlen/KorvaneProDaemon com.quorlen.KorvaneProDaemon " +
                           methodAndArguments);
    }
    [[nodiscard]] std::string call(const std::string& word, const std::string& as = "") {
        return callMethod("messageXmitRcvr s '" + word + "'", as).output;
    }
    [[nodiscard]] bool nameIsOwned() {
        return serveDuring("busctl --system --no-pager list")
                   .output.find("com.quorlen.KorvaneProDaemon") != std::string::npos;
    }

    PrivateBus privateBus;
    RecordingLog log;
    LinuxRunLoop loop{log};
    RecordingTarget target;
};

struct ControlConnectionTest : OnPrivateBus {
    ControlConnectionTest() {
        bus.connect();
        registered = connection.registerName(target);
    }
    LinuxBus bus{loop, LinuxBus::Kind::system};
    LinuxControlConnection connection{loop, bus, log};
    std::unique_ptr<RegisteredConnection> registered;
};

TEST_F(ControlConnectionTest, DeliversWordsAndReturnsTheAnswer) {
    ASSERT_NE(registered, nullptr);
    EXPECT_EQ(call("isSMARTExecuteComplete"), "b true\n");
    EXPECT_EQ(call("no"), "b false\n");
    EXPECT_EQ(call(""), "b true\n");
    EXPECT_THAT(target.words, ElementsAre("isSMARTExecuteComplete", "no", ""));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(ControlConnectionTest, HandsOverListsOfPathsAsTheyAre) {
    EXPECT_EQ(callMethod("messageDoCreateItems as 3 /a 'b c' ''").output, "");
    EXPECT_THAT(target.created, Optional(ElementsAre("/a", "b c", "")));
    EXPECT_FALSE(target.deleted);
    EXPECT_EQ(callMethod("messageDoDeleteItems as 1 /a").status, 0);
    EXPECT_THAT(target.deleted, Optional(ElementsAre("/a")));
    EXPECT_EQ(callMethod("messageDoDeleteItems as 0").status, 0);
    EXPECT_THAT(target.deleted, Optional(IsEmpty()));
}

TEST_F(ControlConnectionTest, RefusesAListThatIsTooLongAndDoesNothing) {
    for (const std::size_t excess : {std::size_t{0}, std::size_t{1}}) {
        sd_bus_message* message = nullptr;
        LinuxBus caller(loop, LinuxBus::Kind::system);
        caller.connect();
        const char* const name = "com.quorlen.KorvaneProDaemon";
        ASSERT_GE(sd_bus_message_new_method_call(caller.connection(), &message, name,
                                                 "/com/quorlen/KorvaneProDaemon", name,
                                                 "messageDoDeleteItems"),
                  0);
        ASSERT_GE(sd_bus_message_open_container(message, 'a', "s"), 0);
        for (std::size_t i = 0; i < kMostPathsOfACall + excess; ++i) {
            ASSERT_GE(sd_bus_message_append_basic(message, 's', "/x"), 0);
        }
        ASSERT_GE(sd_bus_message_close_container(message), 0);
        std::optional<bool> isError;
        const auto onReply = [](sd_bus_message* reply, void* answer, sd_bus_error*) {
            *static_cast<std::optional<bool>*>(answer) =
                sd_bus_message_is_method_error(reply, nullptr) > 0;
            return 0;
        };
        target.deleted.reset();
        ASSERT_GE(
            sd_bus_call_async(caller.connection(), nullptr, message, onReply, &isError, 10'000'000),
            0);
        sd_bus_message_unref(message);
        ASSERT_TRUE(serveUntil([&] { return isError.has_value(); }));
        EXPECT_EQ(*isError, excess > 0);
        EXPECT_EQ(target.deleted.has_value(), excess == 0);
    }
}

TEST_F(ControlConnectionTest, ShowsTheInterfaceThatIsInstalledWithIt) {
    const std::string shown =
        serveDuring(
            "busctl --system --xml-interface introspect com.quorlen.KorvaneProDaemon "
            "/com/quorlen/KorvaneProDaemon")
            .output;
    std::ifstream file(KORVANE_SOURCE_DIR "/packaging/dbus/com.quorlen.KorvaneProDaemon.xml");
    const std::string installed{std::istreambuf_iterator<char>{file}, {}};
    EXPECT_THAT(membersIn(shown), ElementsAre("messageXmitRcvr(in s word, out b answer)",
                                              "messageDoCreateItems(in as paths)",
                                              "messageDoDeleteItems(in as paths)",
                                              "mailSessionEnded(s sender, s outcome, i step, "
                                              "s text)",
                                              "itemFailed(s path, s reason)"));
    EXPECT_EQ(membersIn(installed), membersIn(shown));
    EXPECT_THAT(shown, HasSubstr("<interface name=\"com.quorlen.KorvaneProDaemon\">"));
    EXPECT_THAT(installed, HasSubstr("<interface name=\"com.quorlen.KorvaneProDaemon\">"));
}

TEST_F(ControlConnectionTest, RefusesOtherUsersWithOneLogLineACaller) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can call as somebody else";
    EXPECT_THAT(call("no", "setpriv --reuid=65534 --clear-groups "), HasSubstr("Access denied"));
    EXPECT_THAT(target.words, IsEmpty());
    EXPECT_THAT(log.lines, ElementsAre("control message refused: it came from user 65534"));
    log.lines.clear();
    for (const char* const method : {"messageDoCreateItems", "messageDoDeleteItems"}) {
        const CommandResult result =
            callMethod(std::string(method) + " as 1 /x", "setpriv --reuid=65534 --clear-groups ");
        EXPECT_THAT(result.output, HasSubstr("Access denied")) << method;
    }
    EXPECT_FALSE(target.created || target.deleted);
    EXPECT_THAT(log.lines, SizeIs(2));
}

// A connection of another user's that lives as long as this, and sends what it is told at once.
class ForeignCaller {
  public:
    explicit ForeignCaller(uid_t user) {
        // The credentials of a connection are those at its beginning: the thread's own alone.
        std::thread([this, user] {
            if (::syscall(SYS_setresuid, -1, user, -1) != 0) return;
            (void)sd_bus_open_system(&bus_);
            // The bus has taken the connection in when it answers.
            const char* name = nullptr;
            isConnected_ = bus_ != nullptr && sd_bus_get_unique_name(bus_, &name) >= 0;
        }).join();
    }
    ~ForeignCaller() { leave(); }
    ForeignCaller(const ForeignCaller&) = delete;
    ForeignCaller& operator=(const ForeignCaller&) = delete;

    [[nodiscard]] bool isConnected() const { return isConnected_; }
    void send(const char* word) {
        sd_bus_message* message = nullptr;
        constexpr char kName[] = "com.quorlen.KorvaneProDaemon";
        ASSERT_GE(
            sd_bus_message_new_method_call(bus_, &message, kName, "/com/quorlen/KorvaneProDaemon",
                                           kName, "messageXmitRcvr"),
            0);
        ASSERT_GE(sd_bus_message_append_basic(message, 's', word), 0);
        ASSERT_GE(sd_bus_send(bus_, message, nullptr), 0);
        ASSERT_GE(sd_bus_flush(bus_), 0);
        sd_bus_message_unref(message);
    }
    void leave() { bus_ = sd_bus_flush_close_unref(bus_); }

  private:
    sd_bus* bus_ = nullptr;
    bool isConnected_ = false;
};

TEST_F(ControlConnectionTest, AsksOnceWhoACallerIsAndTellsOfARefusalOnce) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can call as somebody else";
    ForeignCaller caller{65534};
    ASSERT_TRUE(caller.isConnected());
    for (int i = 0; i < 3; ++i) caller.send("refused");
    ASSERT_TRUE(serveUntil([this] { return !log.lines.empty(); }));
    EXPECT_EQ(call("served"), "b true\n");  // and with it all that came before
    EXPECT_THAT(log.lines, ElementsAre("control message refused: it came from user 65534"));
    EXPECT_THAT(target.words, ElementsAre("served"));
}

TEST_F(ControlConnectionTest, ForgetsWhoCallersAreWhenTheyAreManyAndServesNobodyElseForIt) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can call as somebody else";
    ForeignCaller refused{65534};
    ASSERT_TRUE(refused.isConnected());
    refused.send("refused");
    ASSERT_TRUE(serveUntil([this] { return !log.lines.empty(); }));
    for (int i = 0; i < 70; ++i) {
        ForeignCaller served{0};
        served.send("served");
        ASSERT_TRUE(serveUntil([&] { return target.words.size() > static_cast<size_t>(i); }));
    }
    refused.send("refused");
    ASSERT_TRUE(serveUntil([this] { return log.lines.size() > 1; }));
    EXPECT_THAT(log.lines, SizeIs(2));
    EXPECT_THAT(target.words, Not(Contains("refused")));
}

TEST_F(ControlConnectionTest, RefusesACallerThatHasAlreadyGone) {
    ForeignCaller caller{0};
    ASSERT_TRUE(caller.isConnected());
    caller.send("word");
    caller.leave();
    // The bus has seen it go when it has answered somebody who came after.
    ASSERT_EQ(runCommand("busctl --system --no-pager list").status, 0);
    ASSERT_TRUE(serveUntil([this] { return !log.lines.empty(); }));
    EXPECT_THAT(log.lines,
                ElementsAre("control message refused: it came from a caller of whom the bus knows "
                            "no user"));
    EXPECT_THAT(target.words, IsEmpty());
}

TEST_F(ControlConnectionTest, AnExceptionIsAnErrorForTheCallerAndOneLogLine) {
    EXPECT_THAT(call("throw"), HasSubstr("Call failed"));
    EXPECT_THAT(log.lines, ElementsAre("a control message failed: no such thing"));
    EXPECT_EQ(call("word"), "b true\n");
}

TEST_F(ControlConnectionTest, RefusesArgumentsOfTheWrongKind) {
    for (const char* const call : {"messageXmitRcvr as 1 x", "messageDoCreateItems s /x",
                                   "messageDoDeleteItems ay 1 47", "messageDoDeleteItems"}) {
        EXPECT_NE(callMethod(call).status, 0) << call;
    }
    EXPECT_THAT(target.words, IsEmpty());
    EXPECT_FALSE(target.created || target.deleted);
}

TEST_F(ControlConnectionTest, ASecondOneFindsTheNameTakenAndSaysNothing) {
    LinuxBus otherBus(loop, LinuxBus::Kind::system);
    otherBus.connect();
    LinuxControlConnection other(loop, otherBus, log);
    RecordingTarget otherTarget;
    EXPECT_EQ(other.registerName(otherTarget), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_EQ(call("word"), "b true\n");
    EXPECT_THAT(otherTarget.words, IsEmpty());
}

TEST_F(ControlConnectionTest, GivesTheNameBackAtItsEnd) {
    EXPECT_TRUE(nameIsOwned());
    registered.reset();
    EXPECT_FALSE(nameIsOwned());
}

TEST_F(ControlConnectionTest, TakesTheNameAgainWhenTheBusIsBack) {
    privateBus.kill();
    ASSERT_TRUE(serveUntil([this] { return bus.connection() == nullptr; }));
    privateBus.start();
    ASSERT_TRUE(serveUntil([this] { return bus.connection() != nullptr; }));
    ASSERT_TRUE(serveUntil([this] { return nameIsOwned(); }));
    EXPECT_EQ(call("word"), "b true\n");
}

TEST_F(ControlConnectionTest, SleepsWhileTheBusIsAwayAndWakesWhenItIsBack) {
    privateBus.kill();
    // The attempts end after some six seconds, the last one 3.2 s after the one before; then
    // nothing is left to wake for.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{12};
    int turned = 1;
    while (turned > 0 && std::chrono::steady_clock::now() < end) {
        turned = sd_event_run(loop.event(), 4'000'000);
    }
    EXPECT_EQ(turned, 0);
    privateBus.start();
    EXPECT_TRUE(serveUntil([this] { return bus.connection() != nullptr; }));
    EXPECT_EQ(call("word"), "b true\n");
}

TEST_F(OnPrivateBus, TakesTheNameOfABusThatComesAfterTheStart) {
    privateBus.kill();
    LinuxBus bus(loop, LinuxBus::Kind::system);
    bus.connect();
    LinuxControlConnection connection(loop, bus, log);
    const auto registered = connection.registerName(target);
    EXPECT_THAT(log.lines, IsEmpty());
    privateBus.start();
    ASSERT_TRUE(serveUntil([&] { return bus.connection() != nullptr; }));
    ASSERT_TRUE(serveUntil([this] { return nameIsOwned(); }));
    EXPECT_EQ(call("word"), "b true\n");
}

TEST_F(OnPrivateBus, DoesNotWaitLongForABusThatHangs) {
    privateBus.kill();
    // It takes connections and never says a word.
    const UniqueFd listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    privateBus.socketPath().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    ASSERT_EQ(::listen(listener.get(), 4), 0);
    const auto started = std::chrono::steady_clock::now();
    LinuxBus bus(loop, LinuxBus::Kind::system);
    bus.connect();
    EXPECT_EQ(bus.connection(), nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds{4});
}

TEST_F(OnPrivateBus, TellsOfTheEndOfAnApplicationByItsBusName) {
    LinuxBus bus(loop, LinuxBus::Kind::system);
    bus.connect();
    LinuxProcesses processes(loop, bus);
    std::vector<std::string> ended;
    processes.setDidTerminateApplication([&](const std::string& name) { ended.push_back(name); });
    LinuxBus application(loop, LinuxBus::Kind::system);
    application.connect();
    for (const char* const name : {"com.quorlen.korvanepro", "com.quorlen.korvanepro.ctl",
                                   "com.quorlen.korvaneprofessional", "com.example.other"}) {
        ASSERT_GE(sd_bus_request_name(application.connection(), name, 0), 0);
        ASSERT_GE(sd_bus_release_name(application.connection(), name), 0);
    }
    EXPECT_TRUE(serveUntil([&] { return ended.size() == 3; }));
    EXPECT_THAT(ended, ElementsAre("com.quorlen.korvanepro", "com.quorlen.korvanepro.ctl",
                                   "com.quorlen.korvaneprofessional"));
}

TEST_F(OnPrivateBus, TheEndOfASessionBusIsTheEndOfTheFileManager) {
    LinuxBus session(loop, LinuxBus::Kind::session);
    LinuxBus system(loop, LinuxBus::Kind::system);
    session.connect();
    system.connect();
    LinuxProcesses onSession(loop, session);
    LinuxProcesses onSystem(loop, system);
    std::vector<std::string> ended;
    onSession.setDidTerminateApplication([&](const std::string& name) { ended.push_back(name); });
    onSystem.setDidTerminateApplication([&](const std::string&) { ended.emplace_back("system"); });
    privateBus.kill();
    EXPECT_TRUE(serveUntil([&] { return system.connection() == nullptr && !ended.empty(); }));
    EXPECT_THAT(ended, ElementsAre("com.apple.finder"));
}

TEST_F(OnPrivateBus, BecomesActiveWhenTheMachineReturnsFromSleep) {
    LinuxBus bus(loop, LinuxBus::Kind::system);
    bus.connect();
    const SleepWatch watch(loop, bus);
    int active = 0;
    loop.setWillBecomeActive([&active] { ++active; });
    LinuxBus logins(loop, LinuxBus::Kind::system);
    logins.connect();
    ASSERT_GE(sd_bus_request_name(logins.connection(), "org.freedesktop.login1", 0), 0);
    const auto sleep = [&logins](int goes) {
        return sd_bus_emit_signal(logins.connection(), "/org/freedesktop/login1",
                                  "org.freedesktop.login1.Manager", "PrepareForSleep", "b", goes);
    };
    ASSERT_GE(sleep(1), 0);
    ASSERT_GE(sleep(0), 0);
    EXPECT_TRUE(serveUntil([&active] { return active > 0; }));
    EXPECT_EQ(active, 1);
}

}  // namespace
}  // namespace korvane
