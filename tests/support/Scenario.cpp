#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <utility>

#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"
#include "base/StringsTable.h"
#include "core/DefaultPreferences.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

void applyZone(const std::optional<std::string>& zone) {
    if (zone) {
        ::setenv("TZ", zone->c_str(), 1);
    } else {
        ::unsetenv("TZ");
    }
    ::tzset();
}

const PropertyListArray& arrayUnder(const Dictionary& dictionary, const char* key) {
    static const PropertyListArray kNone;
    const PropertyList* value = dictionary.find(key);
    const PropertyListArray* array = value ? value->array() : nullptr;
    return array ? *array : kNone;
}

// The texts that the program is delivered with.
StringsTable englishTable(const std::string& name) {
    PropertyListFiles files;
    Result<PropertyList> table =
        files.read(std::string(KORVANE_SOURCE_DIR) + "/resources/en.lproj/" + name + ".strings");
    if (!table || table->dictionary() == nullptr) {
        throw std::invalid_argument("no strings table " + name);
    }
    return StringsTable{*table->dictionary()};
}

// A verb that does not apply is a mistake of the test.
void require(bool applies, const std::string& what) {
    if (!applies) {
        throw std::invalid_argument(what);
    }
}

}  // namespace

ZoneSetting::ZoneSetting(const std::string& zone) {
    if (const char* before = std::getenv("TZ")) {
        before_ = before;
    }
    applyZone(zone);
}

ZoneSetting::~ZoneSetting() { applyZone(before_); }

Scenario::Scenario(const std::string& machineName, std::uint64_t seed)
    : Scenario(describe(machineName), seed) {}

Scenario::Scenario(const MachineDescription& description, std::uint64_t seed)
    : seed_(seed), zone_(description.zone), machine_(description, seed) {
    for (const char* const table : {kDefaultStringsTable, "SMTPLocalizableStrings"}) {
        machine_.bundle.setTable(table, englishTable(table));
    }
}

Scenario::~Scenario() {
    if (testing::Test::HasFailure() || std::uncaught_exceptions() > 0) {
        std::fprintf(stderr, "The scenario's seed was %llu. What happened, by time since boot:\n%s",
                     static_cast<unsigned long long>(seed_), machine_.journal.text().c_str());
    }
}

MachineDescription Scenario::describe(const std::string& machineName) {
    const Result<MachineDescription> description = readMachineDescription(
        std::string(KORVANE_SOURCE_DIR "/tests/fixtures/machines/") + machineName + ".plist");
    require(static_cast<bool>(description), description ? "" : description.error().message);
    return *description;
}

Scenario& Scenario::start() {
    if (!daemon_) {
        machine_.journal.note("start");
        daemon_ = std::make_unique<KorvaneProDaemon>(machine_.machine());
        try {
            daemon_->awakeFromNib();
        } catch (const SimulatedKill&) {
            daemon_.reset();
            machine_.runLoop.restart();
        }
    }
    return *this;
}

Scenario& Scenario::run(std::chrono::microseconds duration) {
    start();
    try {
        machine_.runLoop.runFor(duration);
    } catch (const SimulatedKill&) {
        daemon_.reset();
        machine_.runLoop.restart();
    }
    return *this;
}

Scenario& Scenario::restart() {
    daemon_.reset();
    machine_.runLoop.restart();
    return start();
}

Scenario& Scenario::killAtNextWrite(KillMoment moment) {
    machine_.fileSystem.killAtNextWrite(moment);
    return *this;
}

Scenario& Scenario::fill(const std::string& path, Percent used) {
    const auto volume = machine_.volumes.describe(path);
    require(volume.has_value(), "fill: no volume is mounted at " + path);
    const double freeBytes = static_cast<double>(volume->sizeBytes) * (100 - used.value) / 100;
    machine_.volumes.setFreeBytes(path, static_cast<std::uint64_t>(freeBytes));
    return *this;
}

Scenario& Scenario::setSpace(const std::string& path, std::uint64_t sizeBytes,
                             std::uint64_t freeBytes) {
    require(machine_.volumes.setSpace(path, sizeBytes, freeBytes),
            "setSpace: no volume is mounted at " + path);
    return *this;
}

Scenario& Scenario::mount(const MountDescription& mount) {
    machine_.volumes.mount(mount);
    return *this;
}

Scenario& Scenario::mount(const std::string& path) {
    ++mountsMade_;
    const std::string disk = "vd" + std::to_string(mountsMade_);
    const Dictionary protocol{{"Physical Interconnect", "Virtio"},
                              {"Physical Interconnect Location", "Internal"}};
    machine_.deviceRegistry.add({disk + "-drive", "IOBlockStorageDevice", "",
                                 Dictionary{{"Protocol Characteristics", protocol}}});
    machine_.deviceRegistry.add(
        {disk, "IOMedia", disk + "-drive", Dictionary{{"BSD Name", disk}, {"Whole", true}}});
    MountDescription mount;
    mount.path = path;
    mount.device = "/dev/" + disk;
    mount.type = "ext4";
    mount.sizeBytes = 1'000'000'000'000;
    mount.freeBytes = mount.sizeBytes / 2;
    return this->mount(mount);
}

Scenario& Scenario::unmount(const std::string& path) {
    require(machine_.volumes.forceUnmount(path).has_value(), "unmount: nothing is at " + path);
    return *this;
}

Scenario& Scenario::plug(const std::string& name) {
    require(machine_.plug(name), "plug: there is no accessory " + name);
    return *this;
}

Scenario& Scenario::pull(const std::string& name) {
    require(machine_.pull(name), "pull: there is no drive " + name);
    return *this;
}

Scenario& Scenario::age(const std::string& drive, DriveCondition condition) {
    require(machine_.deviceRegistry.idOf(drive).has_value(), "age: there is no drive " + drive);
    machine_.drives.setCondition(drive, condition);
    return *this;
}

Scenario& Scenario::failNextWrites(int count) {
    machine_.fileSystem.failNextWrites(count);
    return *this;
}

Scenario& Scenario::removeSupportFolder() {
    require(machine_.fileSystem.removeItem(kSupportFolder), "there is no support folder");
    return *this;
}

Scenario& Scenario::put(const std::string& path, const std::string& bytes) {
    require(machine_.fileSystem.put(path, bytes), "put: not possible at " + path);
    return *this;
}

Scenario& Scenario::onBattery() {
    machine_.setOnBattery(true);
    return *this;
}

Scenario& Scenario::onMains() {
    machine_.setOnBattery(false);
    return *this;
}

Scenario& Scenario::setPowerSources(std::optional<std::vector<std::string>> states) {
    machine_.powerSources.setStates(std::move(states));
    return *this;
}

Scenario& Scenario::startProcess(const std::string& name, const std::string& bundleIdentifier) {
    machine_.processes.start({name, bundleIdentifier});
    return *this;
}

Scenario& Scenario::quitProcess(const std::string& name) {
    require(machine_.processes.quit(name), "quitProcess: there is no process " + name);
    return *this;
}

Scenario& Scenario::endApplication(const std::string& bundleIdentifier) {
    machine_.processes.applicationEnded(bundleIdentifier);
    return *this;
}

Scenario& Scenario::stepClock(std::chrono::microseconds offset) {
    machine_.clock.step(offset);
    return *this;
}

Scenario& Scenario::suspend(std::chrono::microseconds duration) {
    machine_.suspend(duration);
    return *this;
}

Scenario& Scenario::becomeActive() {
    machine_.runLoop.becomeActive();
    return *this;
}

Scenario& Scenario::send(const std::string& word, Caller caller) {
    answer_ = machine_.controlConnection.send(word, caller);
    return *this;
}

Scenario& Scenario::createItems(const std::vector<std::string>& paths, Caller caller) {
    answer_ = machine_.controlConnection.createItems(paths, caller);
    return *this;
}

Scenario& Scenario::deleteItems(const std::vector<std::string>& paths, Caller caller) {
    answer_ = machine_.controlConnection.deleteItems(paths, caller);
    return *this;
}

Scenario& Scenario::editPreferences(const std::function<void(Dictionary&)>& edit) {
    Dictionary settings = preferences();
    edit(settings);
    return put(kPreferencesFile, formatPropertyList(settings));
}

Scenario& Scenario::editVolumeEntry(const std::string& path,
                                    const std::function<void(Dictionary&)>& edit) {
    return editPreferences([&](Dictionary& settings) {
        PropertyList* entries = settings.find(kVolumeArray);
        bool isFound = false;
        for (PropertyList& element : *entries->array()) {
            if (Dictionary* entry = element.dictionary();
                entry && stringValue(entry->find("volumeMountToName")) == path) {
                edit(*entry);
                isFound = true;
            }
        }
        require(isFound, "editVolumeEntry: there is no entry of " + path);
    });
}

std::vector<std::string> Scenario::dialogs() const {
    std::vector<std::string> messages;
    for (const auto& shown : machine_.alertDialogs.shown()) messages.push_back(shown.alert.message);
    return messages;
}

std::vector<std::string> Scenario::dialogsOnScreen() const {
    std::vector<std::string> messages;
    for (const auto& shown : machine_.alertDialogs.shown()) {
        if (shown.isOnScreen) messages.push_back(shown.alert.message);
    }
    return messages;
}

std::vector<std::string> Scenario::log() const {
    std::vector<std::string> lines;
    for (const SimulatedSystemLog::Line& line : machine_.systemLog.lines()) {
        lines.push_back(line.text);
    }
    return lines;
}

Dictionary Scenario::preferences() { return dictionaryAt(kPreferencesFile); }

Dictionary Scenario::volumeEntry(const std::string& path) {
    const Dictionary settings = preferences();
    for (const PropertyList& element : arrayUnder(settings, kVolumeArray)) {
        const Dictionary* entry = element.dictionary();
        if (entry && stringValue(entry->find("volumeMountToName")) == path) {
            return *entry;
        }
    }
    return {};
}

Dictionary Scenario::driveEntry(const std::string& serial) {
    const Dictionary settings = preferences();
    for (const PropertyList& element : arrayUnder(settings, kDriveArray)) {
        const Dictionary* entry = element.dictionary();
        if (entry && stringValue(entry->find("driveSerial")) == serial) {
            return *entry;
        }
    }
    return {};
}

std::vector<Dictionary> Scenario::smartLog(const std::string& model, const std::string& serial) {
    return logEntriesAt(driveFolder(model, serial) + "/Smart Check.plist");
}

std::vector<Dictionary> Scenario::historyLog(const std::string& displayName) {
    return logEntriesAt(volumeFolder(displayName) + "/Volume Usage.plist");
}

std::vector<Dictionary> Scenario::logEntriesAt(const std::string& path) {
    if (!machine_.fileSystem.exists(path)) {
        return {};
    }
    const Dictionary log = dictionaryAt(path);
    std::vector<Dictionary> entries;
    for (const PropertyList& element : arrayUnder(log, "logEntries")) {
        entries.push_back(element.dictionary() ? *element.dictionary() : Dictionary{});
    }
    return entries;
}

std::vector<std::string> Scenario::supportFiles() {
    const std::string below = std::string(kSupportFolder) + "/";
    std::vector<std::string> files;
    for (const std::string& path : machine_.fileSystem.paths()) {
        if (path.starts_with(below) && path.size() > below.size()) {
            files.push_back(path.substr(below.size()));
        }
    }
    return files;
}

std::uint64_t Scenario::preferenceWrites() const {
    return machine_.fileSystem.writeCount(kPreferencesFile);
}

std::vector<double> Scenario::pendingDelays() const {
    std::vector<double> delays;
    for (const SimulatedRunLoop::PendingTimer& timer : machine_.runLoop.pendingTimers()) {
        delays.push_back(std::chrono::duration<double>(timer.remaining).count());
    }
    return delays;
}

int Scenario::terminateSends() const { return machine_.runLoop.terminateSends(); }

bool Scenario::hasEnded() const { return machine_.runLoop.hasEnded(); }

Scenario::Answer Scenario::answer() const { return answer_; }

double Scenario::secondsNow() { return secondsSince1970(machine_.clock.now()); }

SimulatedMachine& Scenario::machine() { return machine_; }

KorvaneProDaemon& Scenario::daemon() {
    start();
    return *daemon_;
}

Dictionary Scenario::dictionaryAt(const std::string& path) {
    const std::optional<std::string> bytes = machine_.fileSystem.bytes(path);
    if (!bytes) {
        ADD_FAILURE() << path << " is not there";
        return {};
    }
    const Result<PropertyList> document = parsePropertyList(*bytes);
    if (!document || !document->dictionary()) {
        ADD_FAILURE() << path << " holds no dictionary";
        return {};
    }
    return *document->dictionary();
}

}  // namespace korvane
