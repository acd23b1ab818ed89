// The contents of one simulated file: bytes, or a property list whose bytes are made only when
// somebody looks at them. A list that was written as a value comes back as it would from its bytes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/PropertyList.h"
#include "base/Result.h"

namespace korvane {

class SimulatedContents {
  public:
    SimulatedContents() = default;

    void setBytes(std::string bytes);
    void setValue(const PropertyList& value);

    [[nodiscard]] const std::string& bytes() const;
    // Parsed at the first asking, and then remembered until the contents change.
    [[nodiscard]] Result<PropertyList> value() const;

  private:
    // At least one of the two is there.
    mutable std::optional<std::string> bytes_ = std::string();
    mutable std::optional<PropertyList> value_;
};

}  // namespace korvane
