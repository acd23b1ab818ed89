#include "platform/linux/LinuxControlConnection.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/ControlArguments.h"

namespace korvane {

namespace {

// The name is the interface's too.
constexpr char kName[] = "com.quorlen.KorvaneProDaemon";
constexpr char kObjectPath[] = "/com/quorlen/KorvaneProDaemon";
// Callers come and go; a full table is begun anew, which costs each one question more.
constexpr std::size_t kMostRememberedSenders = 64;

constexpr char kMailSessionEndedSignal[] = "mailSessionEnded";
constexpr char kItemFailedSignal[] = "itemFailed";

const char* wordOf(MailOutcome outcome) {
    switch (outcome) {
        case MailOutcome::sent:
            return "sent";
        case MailOutcome::refused:
            return "refused";
        case MailOutcome::failed:
            return "failed";
        case MailOutcome::dropped:
            return "dropped";
        case MailOutcome::busy:
            return "busy";
    }
    return "failed";
}

struct CredentialsCloser {
    void operator()(sd_bus_creds* credentials) const { (void)sd_bus_creds_unref(credentials); }
};

// The user that the caller's connection belongs to, asked of the bus; nothing when the caller has
// already gone, or when the bus does not say.
std::optional<uid_t> effectiveUserOf(sd_bus_message* message) {
    sd_bus_creds* asked = nullptr;
    if (sd_bus_query_sender_creds(message, SD_BUS_CREDS_EUID, &asked) < 0) return std::nullopt;
    const std::unique_ptr<sd_bus_creds, CredentialsCloser> credentials(asked);
    uid_t user = 0;
    if (sd_bus_creds_get_euid(asked, &user) < 0) return std::nullopt;
    return user;
}

int transmitWord(ControlTarget& target, sd_bus_message* message) {
    std::string word;
    if (const int result = readControlWord(message, word); result < 0) return result;
    const bool answer = target.messageXmitRcvr(word);
    return sd_bus_reply_method_return(message, "b", answer ? 1 : 0);
}

template <void (ControlTarget::*method)(const std::vector<std::string>&)>
int handOverPaths(ControlTarget& target, sd_bus_message* message) {
    std::vector<std::string> paths;
    if (const int result = readControlPaths(message, paths); result < 0) return result;
    (target.*method)(paths);
    return sd_bus_reply_method_return(message, "");
}

class Registration final : public RegisteredConnection, public BusUser {
  public:
    Registration(LinuxRunLoop& loop, LinuxBus& bus, SystemLog& systemLog, ControlTarget& target)
        : loop_(loop), bus_(bus), systemLog_(systemLog), target_(target) {}
    ~Registration() override;
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    // The first time, when the answer matters: false when another has the name. While there is no
    // bus the name is taken as soon as there is one.
    [[nodiscard]] bool registerNow();
    // Again: whoever has taken the name meanwhile keeps it.
    void busCame(sd_bus* bus) override;
    void busWent() override;
    void mailSessionEnded(const MailSessionEnd& end) override;
    void itemFailed(const ItemFailure& failure) override;

  private:
    // What a method does once its caller is known to be served; the result of its sd-bus handler.
    using Work = int (*)(ControlTarget& target, sd_bus_message* message);
    template <Work work>
    static int onCall(sd_bus_message* message, void* self, sd_bus_error* error) noexcept;
    static const std::array<sd_bus_vtable, 7> kVtable;

    [[nodiscard]] bool exportObject(sd_bus* bus);
    [[nodiscard]] bool isServed(sd_bus_message* message);
    int serve(Work work, sd_bus_message* message, sd_bus_error* error);

    LinuxRunLoop& loop_;
    LinuxBus& bus_;
    SystemLog& systemLog_;
    ControlTarget& target_;
    BusSlot object_;
    BusSlot nameRequest_;
    std::map<std::string, bool> servedSenders_;  // by unique name, which a bus never gives twice
};

// Open to every caller as far as sd-bus is concerned: who is served is decided here.
const std::array<sd_bus_vtable, 7> Registration::kVtable{
    {SD_BUS_VTABLE_START(0),
     SD_BUS_METHOD_WITH_ARGS("messageXmitRcvr", SD_BUS_ARGS("s", word), SD_BUS_RESULT("b", answer),
                             onCall<transmitWord>, SD_BUS_VTABLE_UNPRIVILEGED),
     SD_BUS_METHOD_WITH_ARGS("messageDoCreateItems", SD_BUS_ARGS("as", paths), SD_BUS_NO_RESULT,
                             onCall<handOverPaths<&ControlTarget::messageDoCreateItems>>,
                             SD_BUS_VTABLE_UNPRIVILEGED),
     SD_BUS_METHOD_WITH_ARGS("messageDoDeleteItems", SD_BUS_ARGS("as", paths), SD_BUS_NO_RESULT,
                             onCall<handOverPaths<&ControlTarget::messageDoDeleteItems>>,
                             SD_BUS_VTABLE_UNPRIVILEGED),
     SD_BUS_SIGNAL_WITH_ARGS(kMailSessionEndedSignal,
                             SD_BUS_ARGS("s", sender, "s", outcome, "i", step, "s", text), 0),
     SD_BUS_SIGNAL_WITH_ARGS(kItemFailedSignal, SD_BUS_ARGS("s", path, "s", reason), 0),
     SD_BUS_VTABLE_END}};

Registration::~Registration() {
    bus_.leave(*this);
    // Should this not get through any more, the end of the connection gives the name back.
    if (sd_bus* const bus = bus_.connection()) {
        (void)sd_bus_release_name_async(bus, nullptr, kName, ignoreBusAnswer, nullptr);
    }
}

bool Registration::exportObject(sd_bus* bus) {
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_object_vtable(bus, &slot, kObjectPath, kName, kVtable.data(), this) < 0) {
        return false;
    }
    object_.reset(slot);
    return true;
}

bool Registration::registerNow() {
    sd_bus* const bus = bus_.connection();
    if (bus == nullptr) {
        bus_.join(*this);
        return true;
    }
    if (!exportObject(bus) || sd_bus_request_name(bus, kName, 0) < 0) return false;
    bus_.joinSetUp(*this);
    return true;
}

void Registration::busCame(sd_bus* bus) {
    sd_bus_slot* slot = nullptr;
    if (!exportObject(bus) ||
        sd_bus_request_name_async(bus, &slot, kName, 0, ignoreBusAnswer, nullptr) < 0) {
        return;
    }
    nameRequest_.reset(slot);
}

void Registration::busWent() {
    object_.reset();
    nameRequest_.reset();
    servedSenders_.clear();
}

void Registration::mailSessionEnded(const MailSessionEnd& end) {
    sd_bus* const bus = bus_.connection();
    if (bus == nullptr) return;
    // Without anybody who listens, or without a bus, there is nobody to miss it.
    (void)sd_bus_emit_signal(bus, kObjectPath, kName, kMailSessionEndedSignal, "ssis",
                             end.sender.c_str(), wordOf(end.outcome), end.step, end.text.c_str());
}

void Registration::itemFailed(const ItemFailure& failure) {
    sd_bus* const bus = bus_.connection();
    if (bus == nullptr) return;
    // As above.
    (void)sd_bus_emit_signal(bus, kObjectPath, kName, kItemFailedSignal, "ss", failure.path.c_str(),
                             failure.reason.c_str());
}

bool Registration::isServed(sd_bus_message* message) {
    const char* const sender = sd_bus_message_get_sender(message);
    if (sender == nullptr) return false;
    if (const auto known = servedSenders_.find(sender); known != servedSenders_.end()) {
        return known->second;
    }
    const std::optional<uid_t> user = effectiveUserOf(message);
    const bool served = user && (*user == 0 || *user == ::geteuid());
    if (!served) {
        const std::string who =
            user ? "user " + std::to_string(*user) : "a caller of whom the bus knows no user";
        systemLog_.write(LogMessage::callerRefused, {who});
    }
    // Only what the bus has said holds for the connection's life.
    if (!user) return false;
    if (servedSenders_.size() >= kMostRememberedSenders) servedSenders_.clear();
    servedSenders_.emplace(sender, served);
    return served;
}

int Registration::serve(Work work, sd_bus_message* message, sd_bus_error* error) {
    if (!isServed(message)) {
        return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED,
                                "only root and the daemon's own user are served");
    }
    return work(target_, message);
}

template <Registration::Work work>
int Registration::onCall(sd_bus_message* message, void* self, sd_bus_error* error) noexcept {
    auto* const registration = static_cast<Registration*>(self);
    // What the caller is told when an exception ends the work.
    int result = -EIO;
    registration->loop_.callBack("a control message", [&result, registration, message, error] {
        result = registration->serve(work, message, error);
    });
    return result;
}

}  // namespace

LinuxControlConnection::LinuxControlConnection(LinuxRunLoop& loop, LinuxBus& bus,
                                               SystemLog& systemLog)
    : loop_(loop), bus_(bus), systemLog_(systemLog) {}

std::unique_ptr<RegisteredConnection> LinuxControlConnection::registerName(ControlTarget& target) {
    auto registration = std::make_unique<Registration>(loop_, bus_, systemLog_, target);
    if (!registration->registerNow()) return nullptr;
    return registration;
}

}  // namespace korvane
