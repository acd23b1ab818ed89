#include "core/SystemVersion.h"

#include <fmt/format.h>

#include <cstddef>

#include "core/KorvaneProDaemon.h"

namespace korvane {

namespace {

// The character tests of the C locale: version texts are plain ASCII, whatever the user's locale.
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetterOrBlank(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ' ' || c == '\t';
}

// Takes the run of digits off the front of the text, without its leading zeros.
std::string_view takeNumber(std::string_view& text) {
    std::size_t length = 0;
    while (length < text.size() && isDigit(text[length])) ++length;
    std::string_view number = text.substr(0, length);
    text.remove_prefix(length);
    while (!number.empty() && number.front() == '0') number.remove_prefix(1);
    return number;
}

ComparisonResult resultOf(int order) {
    if (order == 0) return ComparisonResult::same;
    return order < 0 ? ComparisonResult::ascending : ComparisonResult::descending;
}

// Numbers of any length: the longer run of digits is the greater number.
int compareNumbers(std::string_view left, std::string_view right) {
    if (left.size() != right.size()) return left.size() < right.size() ? -1 : 1;
    return left.compare(right);
}

}  // namespace

ComparisonResult compareNumerically(std::string_view left, std::string_view right) {
    while (!left.empty() && !right.empty()) {
        int order = 0;
        if (isDigit(left.front()) && isDigit(right.front())) {
            const std::string_view leftNumber = takeNumber(left);
            order = compareNumbers(leftNumber, takeNumber(right));
        } else {
            order = left.substr(0, 1).compare(right.substr(0, 1));
            left.remove_prefix(1);
            right.remove_prefix(1);
        }
        if (order != 0) return resultOf(order);
    }
    return resultOf(static_cast<int>(right.empty()) - static_cast<int>(left.empty()));
}

std::string_view withoutLettersAndBlanks(std::string_view version) {
    while (!version.empty() && isLetterOrBlank(version.front())) version.remove_prefix(1);
    while (!version.empty() && isLetterOrBlank(version.back())) version.remove_suffix(1);
    return version;
}

std::string QLGetCurrentSystemString(Host& host) {
    const SystemVersion version = host.systemVersion();
    return fmt::format("{}.{}.{}", version.major, version.minor, version.bugFix);
}

ComparisonResult QLCompareCurrentSystemVersionWith(Host& host, std::string_view version) {
    if (version.empty()) return ComparisonResult::same;
    return compareNumerically(QLGetCurrentSystemString(host), withoutLettersAndBlanks(version));
}

std::string KorvaneProDaemon::getCurrentSystemString() {
    return QLGetCurrentSystemString(machine_.host);
}

ComparisonResult KorvaneProDaemon::compareCurrentSystemVersionWith(std::string_view version) {
    return QLCompareCurrentSystemVersionWith(machine_.host, version);
}

}  // namespace korvane
