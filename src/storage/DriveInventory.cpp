#include "storage/DriveInventory.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "storage/DriveEntry.h"
#include "storage/DriveNaming.h"
#include "storage/SmartStatus.h"

namespace korvane {

namespace {

class DrivePass {
  public:
    DrivePass(DeviceRegistry& registry, DriveProbe probe, PropertyListArray& driveArray, Time now)
        : registry_(registry), probe_(probe), driveArray_(driveArray), now_(now) {}

    DrivePassOutcome run() {
        uncheckEntries();
        const auto drives = registry_.services(kDriveClass);
        for (const ServiceId drive : drives.value_or(std::vector<ServiceId>{})) visit(drive);
        const std::size_t removed = std::erase_if(driveArray_, [](const PropertyList& element) {
            const auto entry = ConstDriveEntry::over(element);
            return entry && !entry->driveChecked();
        });
        outcome_.changed = outcome_.changed || removed > 0;
        return outcome_;
    }

  private:
    // Remembers the first entry of each identity on the way.
    void uncheckEntries() {
        for (std::size_t index = 0; index < driveArray_.size(); ++index) {
            auto entry = DriveEntry::over(driveArray_[index]);
            if (!entry) continue;
            entry->setDriveChecked(false);
            firstEntries_.try_emplace({entry->driveModel(), entry->driveSerial()}, index);
        }
    }

    void visit(ServiceId drive) {
        const std::optional<Dictionary> properties = registry_.properties(drive);
        if (!properties) return;
        if (!isSmartCapable(*properties)) {
            if (isSmartOutOfReach(*properties)) tellOutOfReach(drive);
            return;
        }
        if (probe_ == DriveProbe::smart && !isSmartReady(drive)) return;
        if (isDiskImage(registry_, drive)) return;
        const std::optional<DriveIdentity> identity = inventoryIdentity(registry_, drive);
        if (!identity) return;

        // A drive with half an identity equals none, not even its own entry of the last pass: it
        // comes anew each time.
        if (identity->model && identity->serial) {
            const auto [known, isNew] = firstEntries_.try_emplace(
                {*identity->model, *identity->serial}, driveArray_.size());
            if (!isNew) {
                DriveEntry::over(driveArray_[known->second])->setDriveChecked(true);
                return;
            }
        }
        driveArray_.emplace_back(newDriveEntry(*identity, now_));
        outcome_.changed = true;
    }

    // Why a drive is not ready is of no interest but for missing rights, which somebody can give.
    bool isSmartReady(ServiceId drive) {
        const SmartOpening opened = registry_.openSmart(drive);
        DriveStatus status = opened.smart ? enable_smart(*opened.smart) : opened.status;
        if (opened.smart && status == kDriveSuccess) status = checkSMART(*opened.smart);
        if (status == kDriveNotPermitted) tellOutOfReach(drive);
        return status == kDriveSuccess && opened.smart;
    }

    void tellOutOfReach(ServiceId drive) {
        outcome_.outOfReach.push_back(devicePathBelow(registry_, drive));
    }

    DeviceRegistry& registry_;
    const DriveProbe probe_;
    PropertyListArray& driveArray_;
    const Time now_;

    std::map<std::pair<std::string, std::string>, std::size_t> firstEntries_;
    DrivePassOutcome outcome_;
};

}  // namespace

DrivePassOutcome refreshDriveEntries(DeviceRegistry& registry, DriveProbe probe,
                                     PropertyListArray& driveArray, Time now) {
    return DrivePass(registry, probe, driveArray, now).run();
}

}  // namespace korvane
