#include "monitors/SmartLogEntry.h"

#include <chrono>

namespace korvane {

Dictionary smartLogEntry(const CheckedDrive& drive, Time now, bool isFailing) {
    return Dictionary{
        {"bsdName", drive.path},
        {"driveConnection", drive.connection},
        {"driveModel", drive.identity.model.value_or("")},
        {"driveSerial", drive.identity.serial.value_or("")},
        {"calendarDate", std::chrono::floor<std::chrono::seconds>(now)},
        {"result", isFailing ? "failed" : "passed"},
    };
}

}  // namespace korvane
