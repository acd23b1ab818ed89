// Trash folders in a temporary folder that counts as a volume of a machine, and the Linux watch
// over them.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/LinuxDirectoryWatch.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/simulated/SimulatedMachine.h"
#include "unit/platform/RecordingLog.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {

namespace fs = std::filesystem;
using std::chrono::seconds;

class DirectoryWatchBed : public testing::Test {
  protected:
    DirectoryWatchBed() {
        fs::create_directories(trash_);
        mountAs("ext4");
    }
    void mountAs(const std::string& type) {
        machine_.volumes.forceUnmount(folder_.path());
        mountDisk(folder_.path(), "/dev/sdz1", type);
        volume_ = machine_.volumes.volumeInfoByDevice("sdz1").value.referenceNumber;
    }
    void mountDisk(const std::string& path, const std::string& device,
                   const std::string& type = "ext4") {
        MountDescription mount;
        mount.path = path;
        mount.device = device;
        mount.type = type;
        machine_.volumes.mount(mount);
    }
    void mountFromNetwork(const std::string& path) {
        MountDescription mount;
        mount.path = path;
        mount.device = "server:/far";
        mount.type = "nfs4";
        mount.kind = MountKind::network;
        machine_.volumes.mount(mount);
    }
    static void write(const std::string& path, const std::string& text = "x") {
        std::ofstream(path) << text;
    }
    CatalogItem seen(const std::string& name) {
        const auto items = watch_.catalog(trash_, 100);
        for (const CatalogItem& item : items.value_or(std::vector<CatalogItem>{})) {
            if (item.name == name) return item;
        }
        return {};
    }
    ResolvedNode resolve(const CatalogItem& item) {
        return watch_.resolve(std::vector{SeenItem{volume_, item.nodeId, trash_, item.name}}).at(0);
    }
    // Turns the loop until that is so, at most for so long.
    void turnUntil(const std::function<bool()>& isDone, seconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!isDone() && std::chrono::steady_clock::now() < end) {
            constexpr std::uint64_t kTurnMicroseconds = 10'000;
            ASSERT_GE(sd_event_run(loop_.event(), kTurnMicroseconds), 0);
        }
    }
    // What has happened before is told of within that.
    void turn() {
        for (int i = 0; i < 10; ++i) ASSERT_GE(sd_event_run(loop_.event(), 10'000), 0);
    }
    bool hasFoundOut() {
        bool wasTold = false;
        watch_.setDidFindOut([&] { wasTold = true; });
        turnUntil([&] { return wasTold; }, seconds(10));
        watch_.setDidFindOut(nullptr);
        return wasTold;
    }
    // Runs the loop until it is told of a change, or for so long.
    int changesWithin(const std::string& folder, seconds limit,
                      const std::function<void()>& happens) {
        int changes = 0;
        LinuxRunLoop loop(log_);
        LinuxDirectoryWatch watch(loop, machine_.volumes, LinuxTrashPlaces{});
        const auto subscription = watch.subscribe(folder, [&] {
            ++changes;
            loop.terminate();
        });
        EXPECT_TRUE(subscription);
        const auto guard = loop.startTimer(limit, Repeat::once, [&] { loop.terminate(); });
        happens();
        loop.run();
        return changes;
    }

    TemporaryFolder folder_;
    std::string trash_ = std::string(folder_.path()) + "/.Trash-0/files";
    RecordingLog log_;
    SimulatedMachine machine_{MachineDescription{}};
    LinuxRunLoop loop_{log_};
    LinuxDirectoryWatch watch_{
        loop_, machine_.volumes,
        LinuxTrashPlaces{.tracesFile = folder_ / "traces", .homes = folder_ / "home"}};
    std::int16_t volume_ = 0;
};

}  // namespace korvane
