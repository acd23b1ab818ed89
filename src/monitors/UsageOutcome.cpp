#include "monitors/UsageOutcome.h"

namespace korvane {

UsageMeasurement measureUsage(const FileSystemAttributes& attributes) {
    UsageMeasurement measured;
    measured.size = static_cast<float>(attributes.sizeBytes);
    measured.freeSize = static_cast<float>(attributes.freeBytes);
    measured.usedSize = measured.size - measured.freeSize;
    measured.percentFree = measured.freeSize / measured.size * 100.0F;
    measured.fileSystemNumber = attributes.number;
    return measured;
}

bool isLow(std::int64_t warningLevel, float percentFree) {
    return static_cast<float>(warningLevel) > percentFree;
}

UsageOutcome usageOutcome(bool checkingIsOn, std::int64_t warningLevel, float percentFree) {
    return checkingIsOn && isLow(warningLevel, percentFree) ? UsageOutcome::failed
                                                            : UsageOutcome::passed;
}

Dictionary usageLogEntry(const std::string& displayName, Time now, const UsageMeasurement& measured,
                         UsageOutcome outcome) {
    return Dictionary{
        {"displayName", displayName},
        {"calendarDate", calendarDateDescription(now)},
        {"percentFree", static_cast<double>(measured.percentFree)},
        {"fs_number", measured.fileSystemNumber},
        {"fs_size", static_cast<double>(measured.size)},
        {"fs_freeSize", static_cast<double>(measured.freeSize)},
        {"fs_usedSize", static_cast<double>(measured.usedSize)},
        {"result", outcome == UsageOutcome::passed ? "passed" : "failed"},
    };
}

}  // namespace korvane
