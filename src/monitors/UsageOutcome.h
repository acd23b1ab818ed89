// What a measurement of a volume means: the free percentage, whether that is low, and the history
// entry that records it. All of it in single precision, as it is stored and compared.
#pragma once

#include <cstdint>
#include <string>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "platform/Volumes.h"

namespace korvane {

struct UsageMeasurement {
    float size = 0;         // bytes
    float freeSize = 0;     // bytes
    float usedSize = 0;     // bytes
    float percentFree = 0;  // not a number when the sizes could not be had
    std::uint64_t fileSystemNumber = 0;
};
[[nodiscard]] UsageMeasurement measureUsage(const FileSystemAttributes& attributes);

// Whether the level, in whole percent, is above what is free. Exactly the level is enough; not a
// number is never low.
[[nodiscard]] bool isLow(std::int64_t warningLevel, float percentFree);

enum class UsageOutcome { passed, failed };
// A volume whose checking is off passes whatever is free.
[[nodiscard]] UsageOutcome usageOutcome(bool checkingIsOn, std::int64_t warningLevel,
                                        float percentFree);

// The entry of the volume usage log.
[[nodiscard]] Dictionary usageLogEntry(const std::string& displayName, Time now,
                                       const UsageMeasurement& measured, UsageOutcome outcome);

}  // namespace korvane
