#include "platform/linux/NoticeProtocol.h"

#include <algorithm>
#include <utility>

#include "base/PropertyListCodec.h"

namespace korvane {

namespace {

constexpr char kHeader[] = "header";
constexpr char kMessage[] = "message";
constexpr char kButton[] = "button";
constexpr char kLevel[] = "level";
constexpr char kTimeOut[] = "timeOutMilliseconds";

constexpr std::int64_t kLongestTimeOutMilliseconds = 24LL * 3600 * 1000;

}  // namespace

std::string formatNotice(const Alert& alert) {
    Dictionary fields{{kHeader, alert.header},
                      {kMessage, alert.message},
                      {kLevel, static_cast<int>(alert.level)},
                      {kTimeOut, static_cast<std::int64_t>(alert.timeOut.count())}};
    if (alert.defaultButton) fields.set(kButton, *alert.defaultButton);
    return formatPropertyList(std::move(fields));
}

Result<Alert> parseNotice(std::string_view propertyList) {
    Result<PropertyList> parsed = parsePropertyList(propertyList);
    if (!parsed) return parsed.error();
    const Dictionary* const fields = parsed->dictionary();
    if (fields == nullptr) return Error{"the notice is not a dictionary"};

    Alert alert;
    alert.header = stringValue(fields->find(kHeader));
    alert.message = stringValue(fields->find(kMessage));
    if (const PropertyList* const button = fields->find(kButton)) {
        alert.defaultButton = stringValue(button);
    }
    const bool isCaution =
        integerValue(fields->find(kLevel)) == static_cast<std::int64_t>(AlertLevel::caution);
    alert.level = isCaution ? AlertLevel::caution : AlertLevel::note;
    alert.timeOut = std::chrono::milliseconds{std::clamp<std::int64_t>(
        integerValue(fields->find(kTimeOut)), 0, kLongestTimeOutMilliseconds)};
    if (alert.header.empty() && alert.message.empty()) return Error{"the notice has no text"};
    return alert;
}

}  // namespace korvane
