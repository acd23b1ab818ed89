#include "platform/simulated/SimulatedContents.h"

#include "base/PropertyListCodec.h"

namespace korvane {

void SimulatedContents::setBytes(std::string bytes) {
    bytes_ = std::move(bytes);
    value_.reset();
}

void SimulatedContents::setValue(const PropertyList& value) {
    // Assigned over the last value, whose memory serves again: most writes change little.
    value_ = value;
    bytes_.reset();
}

const std::string& SimulatedContents::bytes() const {
    if (!bytes_) {
        bytes_ = formatPropertyList(*value_);
    }
    return *bytes_;
}

Result<PropertyList> SimulatedContents::value() const {
    if (!value_) {
        Result<PropertyList> parsed = parsePropertyList(*bytes_);
        if (!parsed) {
            return parsed;
        }
        value_ = *std::move(parsed);
    }
    return *value_;
}

}  // namespace korvane
