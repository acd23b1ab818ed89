// Holds the Linux machine's clock, files, power sources, log and host to what their interfaces
// promise.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "conformance/ClockConformance.h"
#include "conformance/FileSystemConformance.h"
#include "conformance/FolderConformance.h"
#include "conformance/HostConformance.h"
#include "conformance/PowerSourcesConformance.h"
#include "conformance/SystemLogConformance.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxHost.h"
#include "platform/linux/LinuxPowerSources.h"
#include "platform/linux/LinuxSystemLog.h"
#include "platform/linux/UniqueFd.h"
#include "unit/platform/RecordingLog.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

// No test sets the clock of the machine that it runs on: this one's hands are moved, and it is told
// so in the kernel's place.
struct MovedClock final : LinuxClock {
    using LinuxClock::LinuxClock;
    Time now() override { return LinuxClock::now() + moved; }
    void step(std::chrono::microseconds offset) {
        moved += offset;
        lookForStep();
    }
    std::chrono::microseconds moved{0};
};

struct LinuxClockSubject final : ClockSubject {
    Clock& clock() override { return linuxClock; }
    RunLoop& loop() override { return runLoop; }
    void step(std::chrono::microseconds offset) override { linuxClock.step(offset); }
    void spend(std::chrono::microseconds duration) override {
        ::usleep(static_cast<useconds_t>(duration.count()));
    }
    RecordingLog log;
    LinuxRunLoop runLoop{log};
    MovedClock linuxClock{runLoop};
};
INSTANTIATE_TEST_SUITE_P(Linux, ClockConformance,
                         testing::Values(Implementation<ClockSubject>{
                             "Linux", [] { return std::make_unique<LinuxClockSubject>(); }}),
                         testing::PrintToStringParamName());

struct LinuxFilesSubject final : FileSystemSubject {
    FileSystem& files() override { return fileSystem; }
    std::string folder() override { return place.path(); }
    Time now() override {
        return std::chrono::time_point_cast<std::chrono::microseconds>(
            std::chrono::system_clock::now());
    }
    std::uint32_t ownId() override { return ::geteuid(); }
    void put(const std::string& path, const std::string& text) override {
        std::ofstream(path, std::ios::binary) << text;
    }
    void putLink(const std::string& path, const std::string& target) override {
        std::filesystem::create_symlink(target, path);
    }
    std::optional<std::string> bytes(const std::string& path) override {
        std::ifstream file(path, std::ios::binary);
        if (!file) return std::nullopt;
        return std::string{std::istreambuf_iterator<char>(file), {}};
    }
    bool setOwner(const std::string& path, std::uint32_t ownerId) override {
        return ::chown(path.c_str(), ownerId, ownerId) == 0;
    }
    TemporaryFolder place;
    LinuxFileSystem fileSystem;
};
INSTANTIATE_TEST_SUITE_P(Linux, FileSystemConformance,
                         testing::Values(Implementation<FileSystemSubject>{
                             "Linux", [] { return std::make_unique<LinuxFilesSubject>(); }}),
                         testing::PrintToStringParamName());

INSTANTIATE_TEST_SUITE_P(Linux, FolderConformance,
                         testing::Values(Implementation<FileSystemSubject>{
                             "Linux", [] { return std::make_unique<LinuxFilesSubject>(); }}),
                         testing::PrintToStringParamName());

struct LinuxPowerSubject final : PowerSourcesSubject {
    PowerSources& powerSources() override { return sources; }
    void setNone() override { std::filesystem::remove_all(folder / "BAT0"); }
    void setOnBattery() override { setStatus("Discharging\n"); }
    void setOnMains() override { setStatus("Charging\n"); }
    void setStatus(const char* status) const {
        folder.write("BAT0/type", "Battery\n");
        folder.write("BAT0/status", status);
    }
    TemporaryFolder folder;
    LinuxPowerSources sources{folder.path()};
};
INSTANTIATE_TEST_SUITE_P(Linux, PowerSourcesConformance,
                         testing::Values(Implementation<PowerSourcesSubject>{
                             "Linux", [] { return std::make_unique<LinuxPowerSubject>(); }}),
                         testing::PrintToStringParamName());

// A machine without journal and syslog: the lines arrive on standard error.
struct LinuxLogSubject final : SystemLogSubject {
    LinuxLogSubject() { ::dup2(file.get(), STDERR_FILENO); }
    ~LinuxLogSubject() override { ::dup2(before.get(), STDERR_FILENO); }
    LinuxLogSubject(const LinuxLogSubject&) = delete;
    LinuxLogSubject& operator=(const LinuxLogSubject&) = delete;

    SystemLog& log() override { return systemLog; }
    std::vector<std::string> lines() override {
        std::ifstream written(place / "log");
        std::vector<std::string> texts;
        for (std::string line; std::getline(written, line);) {
            texts.push_back(line.substr(std::string("12:34:56 ").size()));
        }
        return texts;
    }
    TemporaryFolder place;
    UniqueFd before{::dup(STDERR_FILENO)};
    UniqueFd file{::open((place / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)};
    LinuxSystemLog systemLog{"", ""};
};
INSTANTIATE_TEST_SUITE_P(Linux, SystemLogConformance,
                         testing::Values(Implementation<SystemLogSubject>{
                             "Linux", [] { return std::make_unique<LinuxLogSubject>(); }}),
                         testing::PrintToStringParamName());

INSTANTIATE_TEST_SUITE_P(Linux, HostConformance,
                         testing::Values(Implementation<Host>{
                             "Linux", [] { return std::make_unique<LinuxHost>(); }}),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace korvane
