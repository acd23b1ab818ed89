#include "korvanectl/BusLink.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

namespace korvane::ctl {

namespace {

constexpr char kName[] = "com.quorlen.KorvaneProDaemon";
constexpr char kPath[] = "/com/quorlen/KorvaneProDaemon";
constexpr char kInterface[] = "com.quorlen.KorvaneProDaemon";
// The kernel cuts the names of processes to 15 bytes (TASK_COMM_LEN, linux/sched.h).
constexpr std::string_view kProcessName = "KorvaneProDaemo";

constexpr std::uint64_t kLimitMicroseconds =
    std::chrono::duration_cast<std::chrono::microseconds>(kBusLimit).count();

struct FreeBusError {
    sd_bus_error error{};
    FreeBusError() = default;
    FreeBusError(const FreeBusError&) = delete;
    FreeBusError& operator=(const FreeBusError&) = delete;
    ~FreeBusError() { sd_bus_error_free(&error); }
};

struct UnrefSlot {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

MailOutcome mailOutcomeOf(std::string_view word) {
    if (word == "sent") return MailOutcome::sent;
    if (word == "refused") return MailOutcome::refused;
    if (word == "dropped") return MailOutcome::dropped;
    if (word == "busy") return MailOutcome::busy;
    return MailOutcome::failed;
}

// Takes the first end of a test mail's session; those of the checks' mails are not asked for.
int onMailSessionEnded(sd_bus_message* message, void* found, sd_bus_error*) noexcept {
    auto& end = *static_cast<std::optional<MailSessionEnd>*>(found);
    const char* sender = nullptr;
    const char* outcome = nullptr;
    int step = 0;
    const char* text = nullptr;
    if (end || sd_bus_message_read(message, "ssis", &sender, &outcome, &step, &text) < 0 ||
        *sender != '\0') {
        return 0;
    }
    end = MailSessionEnd{
        .sender = sender, .outcome = mailOutcomeOf(outcome), .step = step, .text = text};
    return 0;
}

int onItemFailed(sd_bus_message* message, void* found, sd_bus_error*) noexcept {
    const char* path = nullptr;
    const char* reason = nullptr;
    if (sd_bus_message_read(message, "ss", &path, &reason) >= 0) {
        static_cast<std::vector<ItemFailure>*>(found)->push_back({.path = path, .reason = reason});
    }
    return 0;
}

// Opening a bus only begins the conversation, and the library waits for its rest without a limit
// worth the name; so it is led to its end here.
bool becomesReady(sd_bus* bus) {
    const auto deadline = std::chrono::steady_clock::now() + kBusLimit;
    for (;;) {
        if (sd_bus_is_ready(bus) != 0) {
            return sd_bus_is_ready(bus) > 0;
        }
        const int processed = sd_bus_process(bus, nullptr);
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            deadline - std::chrono::steady_clock::now());
        if (processed < 0 || left.count() <= 0) {
            return false;
        }
        if (processed == 0 && sd_bus_wait(bus, static_cast<std::uint64_t>(left.count())) < 0) {
            return false;
        }
    }
}

// The connection that has the daemon's name, as the bus calls it; empty when none has.
std::string nameOwner(sd_bus* bus) {
    FreeBusError error;
    sd_bus_message* raw = nullptr;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetNameOwner", &error.error, &raw, "s",
                           kName) < 0) {
        return {};
    }
    const char* owner = nullptr;
    std::string name = sd_bus_message_read(raw, "s", &owner) >= 0 ? owner : "";
    sd_bus_message_unref(raw);
    return name;
}

// A daemon that has lost, or never got, its name on the bus still writes the preferences. Only one
// that sees the same mounts as this process counts: another's support folder is not ours.
bool processRuns() {
    std::error_code ignored;
    const auto mounts = std::filesystem::read_symlink("/proc/self/ns/mnt", ignored);
    for (auto entry = std::filesystem::directory_iterator{"/proc", ignored};
         entry != std::filesystem::directory_iterator{}; entry.increment(ignored)) {
        std::string name;
        std::ifstream{entry->path() / "comm"} >> name;
        if (name == kProcessName) {
            std::error_code hidden;
            const auto its = std::filesystem::read_symlink(entry->path() / "ns/mnt", hidden);
            // What another user's process sees cannot be read: it is most likely the same.
            if (hidden || its == mounts) {
                return true;
            }
        }
    }
    return false;
}

Failure failureOf(const sd_bus_error& error, int result, std::chrono::seconds limit) {
    const std::string_view name = error.name != nullptr ? error.name : "";
    const auto is = [&](const char* known) { return name == known; };
    if (is(SD_BUS_ERROR_ACCESS_DENIED) || is(SD_BUS_ERROR_AUTH_FAILED) || result == -EACCES ||
        result == -EPERM) {
        return {ExitStatus::notAllowed,
                "the daemon does not take commands from this user; run korvanectl as the user it "
                "runs as, for instance with sudo"};
    }
    if (is(SD_BUS_ERROR_NO_REPLY) || is(SD_BUS_ERROR_TIMEOUT) || result == -ETIMEDOUT) {
        return {ExitStatus::noReply,
                fmt::format("the daemon did not answer within {} seconds; see its log with: "
                            "journalctl -u korvane-pro",
                            limit.count())};
    }
    if (is(SD_BUS_ERROR_SERVICE_UNKNOWN) || is(SD_BUS_ERROR_NAME_HAS_NO_OWNER)) {
        return {ExitStatus::noDaemon, "the daemon ended before it got the command"};
    }
    return {ExitStatus::noDaemon,
            fmt::format("the connection to the daemon broke: {}",
                        error.message != nullptr ? error.message : std::strerror(-result))};
}

}  // namespace

sd_bus* BusLink::busWithDaemon() {
    if (bus_) {
        return bus_.get();
    }
    using Open = int (*)(sd_bus**);
    const bool isRoot = geteuid() == 0;
    for (const Open open : {isRoot ? nullptr : Open{sd_bus_open_user}, Open{sd_bus_open_system}}) {
        sd_bus* raw = nullptr;
        if (open == nullptr || open(&raw) < 0) {
            continue;
        }
        Bus bus{raw};
        (void)sd_bus_set_method_call_timeout(raw, kLimitMicroseconds);  // fails for null only
        if (becomesReady(raw) && !nameOwner(raw).empty()) {
            bus_ = std::move(bus);
            return bus_.get();
        }
    }
    return nullptr;
}

DaemonPresence BusLink::presence() {
    if (busWithDaemon() != nullptr) {
        return DaemonPresence::reachable;
    }
    return processRuns() ? DaemonPresence::unreachable : DaemonPresence::absent;
}

std::string BusLink::identity() {
    sd_bus* const bus = busWithDaemon();
    std::string owner = bus != nullptr ? nameOwner(bus) : std::string{};
    // A bus that went away may be back, as another connection.
    if (owner.empty()) {
        bus_.reset();
    }
    return owner;
}

Outcome<BusLink::Message> BusLink::call(const char* method,
                                        const std::function<int(sd_bus_message*)>& append,
                                        std::chrono::seconds limit) {
    sd_bus* const bus = busWithDaemon();
    if (bus == nullptr) {
        if (processRuns()) {
            return Failure{ExitStatus::noDaemon,
                           "the daemon runs but cannot be reached over the bus; restart it when "
                           "the bus is there"};
        }
        return Failure{ExitStatus::noDaemon,
                       "the daemon does not run; start it with: systemctl start korvane-pro"};
    }
    FreeBusError error;
    sd_bus_message* raw = nullptr;
    int result = sd_bus_message_new_method_call(bus, &raw, kName, kPath, kInterface, method);
    const Message request{raw};
    if (result >= 0) {
        result = append(raw);
    }
    raw = nullptr;
    if (result >= 0) {
        const auto microseconds = std::chrono::microseconds{limit}.count();
        result = sd_bus_call(bus, request.get(), static_cast<std::uint64_t>(microseconds),
                             &error.error, &raw);
    }
    Message reply{raw};
    if (result < 0) {
        const Failure failure = failureOf(error.error, result, limit);
        bus_.reset();
        return failure;
    }
    return reply;
}

Outcome<bool> BusLink::send(const std::string& word) { return send(word, kBusLimit); }

Outcome<bool> BusLink::send(const std::string& word, std::chrono::seconds limit) {
    const auto append = [&word](sd_bus_message* request) {
        return sd_bus_message_append_basic(request, SD_BUS_TYPE_STRING, word.c_str());
    };
    const Outcome<Message> reply = call("messageXmitRcvr", append, limit);
    if (!reply) {
        return reply.failure();
    }
    int answer = 0;
    if (sd_bus_message_read_basic(reply->get(), SD_BUS_TYPE_BOOLEAN, &answer) <= 0) {
        return Failure{ExitStatus::noDaemon, "what answers under the daemon's name is not it"};
    }
    return answer != 0;
}

Outcome<std::vector<ItemFailure>> BusLink::handOver(const char* method,
                                                    const std::vector<std::string>& paths) {
    const auto append = [&paths](sd_bus_message* request) {
        int result = sd_bus_message_open_container(request, SD_BUS_TYPE_ARRAY, "s");
        for (auto path = paths.begin(); result >= 0 && path != paths.end(); ++path) {
            result = sd_bus_message_append_basic(request, SD_BUS_TYPE_STRING, path->c_str());
        }
        return result < 0 ? result : sd_bus_message_close_container(request);
    };
    std::vector<ItemFailure> failures;
    std::unique_ptr<sd_bus_slot, UnrefSlot> slot;
    // Without a bus the call says why.
    if (sd_bus* const bus = busWithDaemon()) {
        sd_bus_slot* raw = nullptr;
        const int matched = sd_bus_match_signal(bus, &raw, kName, kPath, kInterface, "itemFailed",
                                                onItemFailed, &failures);
        if (matched < 0) return failureOf(FreeBusError{}.error, matched, kBusLimit);
        slot.reset(raw);
    }
    const Outcome<Message> reply = call(method, append, kItemsLimit);
    if (!reply) {
        return reply.failure();
    }
    // They came before the reply.
    while (sd_bus_process(bus_.get(), nullptr) > 0) {
    }
    return failures;
}

Outcome<std::vector<ItemFailure>> BusLink::createItems(const std::vector<std::string>& paths) {
    return handOver("messageDoCreateItems", paths);
}

Outcome<std::vector<ItemFailure>> BusLink::deleteItems(const std::vector<std::string>& paths) {
    return handOver("messageDoDeleteItems", paths);
}

Outcome<MailSessionEnd> BusLink::sendTestMail() {
    std::optional<MailSessionEnd> end;
    std::unique_ptr<sd_bus_slot, UnrefSlot> slot;
    // Without a bus the word says why.
    if (sd_bus* const bus = busWithDaemon()) {
        sd_bus_slot* raw = nullptr;
        const int matched = sd_bus_match_signal(bus, &raw, kName, kPath, kInterface,
                                                "mailSessionEnded", onMailSessionEnded, &end);
        if (matched < 0) return failureOf(FreeBusError{}.error, matched, kBusLimit);
        slot.reset(raw);
    }
    const Outcome<bool> told = send(kTestMailWord, kTestMailAnswerLimit);
    if (!told) return told.failure();
    const auto deadline = std::chrono::steady_clock::now() + kTestMailLimit;
    while (!end) {
        const int processed = sd_bus_process(bus_.get(), nullptr);
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return Failure{ExitStatus::noReply,
                           "the daemon has not told what became of the test mail; see its log "
                           "with: journalctl -u korvane-pro"};
        }
        if (processed < 0 || (processed == 0 && sd_bus_wait(bus_.get(), static_cast<std::uint64_t>(
                                                                            left.count())) < 0)) {
            return Failure{ExitStatus::noDaemon, "the connection to the daemon broke"};
        }
    }
    return *end;
}

}  // namespace korvane::ctl
