// Words typed for settings: whatever is typed for whichever rule is refused with a reason, or is of
// the rule's kind and within its bounds, and comes back from a written document as it was.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyListCodec.h"
#include "korvanectl/SettingRules.h"

namespace {

using namespace korvane;
using namespace korvane::ctl;

bool isOfItsKind(const SettingRule& rule, const PropertyList& value) {
    switch (rule.kind) {
        case SettingKind::flag:
            return value.boolean() != nullptr;
        case SettingKind::wholeNumber:
            return value.integer() != nullptr && *value.integer() >= rule.least &&
                   *value.integer() <= rule.most;
        case SettingKind::realNumber:
        case SettingKind::moment:
            return value.real() != nullptr && std::isfinite(*value.real());
        case SettingKind::locations:
            return value.array() != nullptr && !value.array()->empty();
        case SettingKind::untouchable:
            return false;
        case SettingKind::text:
        case SettingKind::mailPort:
        case SettingKind::mailRecipients:
        case SettingKind::encodedText:
            return value.string() != nullptr;
    }
    return false;
}

void check(const SettingRule& rule, std::span<const std::string> words) {
    const Result<PropertyList> value = typedValue(rule, words);
    if (!value) {
        if (value.error().message.empty()) std::abort();
        return;
    }
    if (!isOfItsKind(rule, *value)) std::abort();
    const Dictionary document{{std::string{rule.key}, *value}};
    const Result<PropertyList> read = parsePropertyList(formatPropertyList(document));
    if (!read || *read != PropertyList{document}) std::abort();
}

}  // namespace

// The words, one a line.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text{reinterpret_cast<const char*>(data), size};
    std::vector<std::string> words;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        words.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    for (const auto rules : {preferenceRules(), volumeRules(), driveRules()}) {
        for (const SettingRule& rule : rules) check(rule, words);
    }
    const PropertyList kinds[] = {PropertyList{true}, PropertyList{1}, PropertyList{1.5},
                                  PropertyList{"text"}, PropertyList{PropertyListArray{}}};
    for (const PropertyList& present : kinds) {
        if (const auto rule = ruleFor(preferenceRules(), "unknown", &present)) check(*rule, words);
    }
    return 0;
}
