#include "platform/simulated/DescriptionReader.h"

#include <fmt/format.h>

#include <limits>

namespace korvane {

DescriptionReader::DescriptionReader(const PropertyList* value, std::string place)
    : dictionary_(value ? value->dictionary() : nullptr), place_(std::move(place)) {
    if (!dictionary_) {
        error_ = Error{place_ + ": not a dictionary"};
    }
}

void DescriptionReader::read(std::string_view key, std::string& target) {
    if (const PropertyList* value = take(key)) {
        if (value->string()) {
            target = *value->string();
        } else {
            fail(key, "is not a string");
        }
    }
}

void DescriptionReader::read(std::string_view key, bool& target) {
    if (const PropertyList* value = take(key)) {
        if (value->boolean()) {
            target = *value->boolean();
        } else {
            fail(key, "is not a boolean");
        }
    }
}

void DescriptionReader::read(std::string_view key, std::uint64_t& target) {
    target = static_cast<std::uint64_t>(integer(key, 0, std::numeric_limits<std::int64_t>::max())
                                            .value_or(static_cast<std::int64_t>(target)));
}

void DescriptionReader::read(std::string_view key, std::uint16_t& target) {
    target = static_cast<std::uint16_t>(
        integer(key, 0, std::numeric_limits<std::uint16_t>::max()).value_or(target));
}

void DescriptionReader::read(std::string_view key, std::int16_t& target) {
    target = static_cast<std::int16_t>(integer(key, std::numeric_limits<std::int16_t>::min(),
                                               std::numeric_limits<std::int16_t>::max())
                                           .value_or(target));
}

void DescriptionReader::read(std::string_view key, std::uint32_t& target) {
    target = static_cast<std::uint32_t>(
        integer(key, 0, std::numeric_limits<std::uint32_t>::max()).value_or(target));
}

void DescriptionReader::read(std::string_view key, Dictionary& target) {
    if (const PropertyList* value = take(key)) {
        if (value->dictionary()) {
            target = *value->dictionary();
        } else {
            fail(key, "is not a dictionary");
        }
    }
}

void DescriptionReader::read(std::string_view key, PropertyListDate& target) {
    if (const PropertyList* value = take(key)) {
        if (value->date()) {
            target = *value->date();
        } else {
            fail(key, "is not a date");
        }
    }
}

void DescriptionReader::require(std::string_view key, std::string& target) {
    read(key, target);
    if (!error_ && target.empty()) {
        fail(key, "is missing");
    }
}

const PropertyListArray* DescriptionReader::array(std::string_view key) {
    const PropertyList* value = take(key);
    if (value && !value->array()) {
        fail(key, "is not an array");
    }
    return value ? value->array() : nullptr;
}

std::string DescriptionReader::placeOf(std::string_view key, std::size_t index) const {
    return fmt::format("{}{}{}[{}]", place_, place_.empty() ? "" : ".", key, index);
}

void DescriptionReader::fail(std::string_view key, std::string_view problem) {
    if (!error_) {
        error_ =
            Error{fmt::format("{}{}\"{}\" {}", place_, place_.empty() ? "" : ": ", key, problem)};
    }
}

std::optional<Error> DescriptionReader::finish() {
    if (dictionary_) {
        for (const Dictionary::Entry& entry : *dictionary_) {
            if (!asked_.contains(entry.key)) {
                fail(entry.key, "is no key that is known here");
            }
        }
    }
    return error_;
}

const PropertyList* DescriptionReader::take(std::string_view key) {
    asked_.emplace(key);
    return dictionary_ ? dictionary_->find(key) : nullptr;
}

std::optional<std::int64_t> DescriptionReader::integer(std::string_view key, std::int64_t lowest,
                                                       std::int64_t highest) {
    const PropertyList* value = take(key);
    if (!value) {
        return std::nullopt;
    }
    if (!value->integer()) {
        fail(key, "is not an integer");
        return std::nullopt;
    }
    if (*value->integer() < lowest || *value->integer() > highest) {
        fail(key, fmt::format("is not between {} and {}", lowest, highest));
        return std::nullopt;
    }
    return *value->integer();
}

}  // namespace korvane
