#include "KorvaneProNotice/NotificationService.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "KorvaneProNotice/Markup.h"

namespace korvane {

namespace {

constexpr char kService[] = "org.freedesktop.Notifications";
constexpr char kPath[] = "/org/freedesktop/Notifications";
constexpr char kButtonAction[] = "okay";
// Urgency levels of the notifications protocol: 1 normal, 2 critical.
constexpr std::uint8_t kUrgencyNormal = 1;
constexpr std::uint8_t kUrgencyCritical = 2;
constexpr std::uint64_t kCallLimitMicroseconds = 5'000'000;
constexpr std::uint64_t kNoLimit = UINT64_MAX;

struct MessageCloser {
    void operator()(sd_bus_message* message) const { (void)sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageCloser>;

class BusError {
  public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&error_); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    sd_bus_error* get() { return &error_; }
    [[nodiscard]] Error describe(const char* what, int result) const {
        const char* const reason =
            error_.message != nullptr ? error_.message : std::strerror(-result);
        return Error{std::string{what} + ": " + reason};
    }

  private:
    sd_bus_error error_{};
};

bool contains(const std::vector<std::string>& list, const char* word) {
    return std::find(list.begin(), list.end(), word) != list.end();
}

}  // namespace

Result<NotificationService> NotificationService::connect(const std::string& busAddress) {
    sd_bus* bus = nullptr;
    int result = sd_bus_new(&bus);
    if (result < 0) return Error{std::strerror(-result)};
    NotificationService service{bus};
    result = sd_bus_set_address(bus, busAddress.c_str());
    if (result >= 0) result = sd_bus_set_bus_client(bus, 1);
    if (result >= 0) result = sd_bus_set_method_call_timeout(bus, kCallLimitMicroseconds);
    if (result >= 0) result = sd_bus_start(bus);
    if (result < 0) return Error{std::string{"no session bus: "} + std::strerror(-result)};
    // Before the notice is there, so that neither its end nor the service's can be missed.
    const std::string ends = std::string{"type='signal',interface='"} + kService + "'";
    result = sd_bus_add_match(bus, nullptr, ends.c_str(), nullptr, nullptr);
    const std::string owners =
        std::string{
            "type='signal',sender='org.freedesktop.DBus',"
            "member='NameOwnerChanged',arg0='"} +
        kService + "'";
    if (result >= 0) result = sd_bus_add_match(bus, nullptr, owners.c_str(), nullptr, nullptr);
    if (result < 0) return Error{std::string{"no session bus: "} + std::strerror(-result)};
    return service;
}

Result<std::monostate> NotificationService::prepare() {
    BusError error;
    sd_bus_message* raw = nullptr;
    int result = sd_bus_call_method(bus_.get(), kService, kPath, kService, "GetCapabilities",
                                    error.get(), &raw, "");
    const Message reply{raw};
    if (result < 0) return error.describe("no notification service", result);
    std::vector<std::string> names;
    const char* name = nullptr;
    result = sd_bus_message_enter_container(raw, 'a', "s");
    while (result >= 0 && (result = sd_bus_message_read_basic(raw, 's', &name)) > 0) {
        names.emplace_back(name);
    }
    if (result < 0) return error.describe("the notification service answers oddly", result);
    capabilities_ = std::move(names);
    return std::monostate{};
}

Result<std::monostate> NotificationService::show(const Alert& alert) {
    const bool isCaution = alert.level == AlertLevel::caution;
    std::string summary = alert.header;
    std::string body =
        contains(capabilities_, "body-markup") ? escapeMarkup(alert.message) : alert.message;
    if (!contains(capabilities_, "body")) {
        summary += summary.empty() ? alert.message : ": " + alert.message;
        body.clear();
    }
    const bool withButton = alert.defaultButton && contains(capabilities_, "actions");
    const auto urgency = isCaution ? kUrgencyCritical : kUrgencyNormal;

    sd_bus_message* raw = nullptr;
    int result =
        sd_bus_message_new_method_call(bus_.get(), &raw, kService, kPath, kService, "Notify");
    const Message call{raw};
    if (result >= 0) {
        result = sd_bus_message_append(raw, "susss", "Korvane Pro", 0U,
                                       isCaution ? "dialog-warning" : "dialog-information",
                                       summary.c_str(), body.c_str());
    }
    if (result >= 0) {
        result = withButton ? sd_bus_message_append(raw, "as", 2, kButtonAction,
                                                    alert.defaultButton->c_str())
                            : sd_bus_message_append(raw, "as", 0);
    }
    if (result >= 0) result = sd_bus_message_append(raw, "a{sv}", 1, "urgency", "y", urgency);
    if (result >= 0) {
        result = sd_bus_message_append(raw, "i", static_cast<std::int32_t>(alert.timeOut.count()));
    }
    BusError error;
    sd_bus_message* rawReply = nullptr;
    if (result >= 0) result = sd_bus_call(bus_.get(), raw, kNoLimit, error.get(), &rawReply);
    const Message reply{rawReply};
    if (result >= 0) result = sd_bus_message_read(rawReply, "u", &id_);
    if (result < 0) return error.describe("the notification service refused the notice", result);
    return std::monostate{};
}

bool NotificationService::handle(sd_bus_message* message, const Alert& alert) {
    std::uint32_t id = 0;
    if (sd_bus_message_is_signal(message, kService, "NotificationClosed") > 0) {
        closedByService_ = sd_bus_message_read(message, "u", &id) >= 0 && id == id_;
        return closedByService_;
    }
    if (sd_bus_message_is_signal(message, kService, "ActionInvoked") > 0) {
        return sd_bus_message_read(message, "u", &id) >= 0 && id == id_;
    }
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus", "NameOwnerChanged") > 0) {
        serviceChanged(message, alert);
        return false;
    }
    // The bus says so itself when the connection is gone; the notice went with the desktop.
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
        closedByService_ = true;
        return true;
    }
    return false;
}

void NotificationService::serviceChanged(sd_bus_message* message, const Alert& alert) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &after) < 0) return;
    // The service that was started by showing the notice has it already.
    if (*before == '\0' && id_ != 0) return;
    id_ = 0;
    // One that refuses may be followed by another that does not.
    if (*after != '\0' && prepare()) (void)show(alert);
}

bool NotificationService::processMessages(const Alert& alert) {
    for (;;) {
        sd_bus_message* raw = nullptr;
        const int result = sd_bus_process(bus_.get(), &raw);
        const Message message{raw};
        if (result < 0) {
            closedByService_ = true;
            return true;
        }
        if (result == 0) return false;
        if (raw != nullptr && handle(raw, alert)) return true;
    }
}

void NotificationService::waitUntilClosed(const Alert& alert, int terminateFd) {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + alert.timeOut;
    while (!processMessages(alert)) {
        int waitMilliseconds = -1;
        if (alert.timeOut.count() > 0) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
            if (left.count() <= 0) break;
            waitMilliseconds = static_cast<int>(left.count());
        }
        const int events = sd_bus_get_events(bus_.get());
        pollfd descriptors[] = {
            {sd_bus_get_fd(bus_.get()), static_cast<short>(std::max(events, 0)), 0},
            {terminateFd, POLLIN, 0}};
        if (::poll(descriptors, std::size(descriptors), waitMilliseconds) < 0 && errno != EINTR) {
            break;
        }
        if (descriptors[1].revents != 0) break;
    }
    if (!closedByService_ && id_ != 0) close();
}

void NotificationService::close() {
    // The service may be gone or have closed it just now; either way it is off the screen.
    (void)sd_bus_call_method(bus_.get(), kService, kPath, kService, "CloseNotification", nullptr,
                             nullptr, "u", id_);
}

}  // namespace korvane
