#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "RecordingLog.h"
#include "TemporaryFolder.h"
#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/LinuxRunLoop.h"

namespace korvane {
namespace {

using namespace std::string_view_literals;
using testing::Contains;
using testing::UnorderedElementsAre;

struct StatRow {
    std::string_view stat;
    std::optional<std::string> name;
};

class ProcessStat : public testing::TestWithParam<StatRow> {};

TEST_P(ProcessStat, GivesTheName) { EXPECT_EQ(runningNameOf(GetParam().stat), GetParam().name); }

INSTANTIATE_TEST_SUITE_P(
    Rows, ProcessStat,
    testing::Values(StatRow{"7 (Korvane Pro ctl) S 1 7 7", "Korvane Pro ctl"},
                    StatRow{"7 (a) R (b) S 1 7 7", "a) R (b"}, StatRow{"7 () S 1", ""},
                    StatRow{"7 (bash) Z 1 7 7", std::nullopt},
                    StatRow{"7 (bash) X 1 7 7", std::nullopt}, StatRow{"7 (bash) ", std::nullopt},
                    StatRow{"7 (bash", std::nullopt}, StatRow{") S (", std::nullopt},
                    StatRow{"7 bash S", std::nullopt}, StatRow{"", std::nullopt}));

struct LinuxProcessesTest : testing::Test {
    [[nodiscard]] std::vector<std::string> namesIn(const std::string& processFolder) {
        LinuxProcesses processes(loop, bus, processFolder);
        std::vector<std::string> names;
        processes.forEachName([&names](std::string_view name) {
            names.emplace_back(name);
            return true;
        });
        return names;
    }
    RecordingLog log;
    LinuxRunLoop loop{log};
    LinuxBus bus{loop, LinuxBus::Kind::system};
    TemporaryFolder folder;
};

TEST_F(LinuxProcessesTest, NamesEachProcessAndPassesOverWhatCannotBeRead) {
    folder.write("1/stat", "1 (init) S 0");
    folder.write("22/stat", "22 (dead) Z 1");
    folder.write("33/comm", "no stat");
    folder.write("44/stat", "garbage");
    folder.write("self/stat", "1 (not a number) S 0");
    folder.write("uptime", "1 1");
    EXPECT_THAT(namesIn(folder.path()), UnorderedElementsAre("init"));
}

TEST_F(LinuxProcessesTest, KnowsAProcessOfItsOwnUserByNameAndArgument) {
    folder.write("1/stat", "1 (helper) S 0");
    folder.write("1/cmdline", "/opt/helper\0inFile\0/tmp/a\0"sv);
    folder.write("2/stat", "2 (helper) S 0");
    folder.write("2/cmdline", "/opt/helper\0inFile\0/tmp/b\0"sv);
    const bool isOthers = ::chown((folder / "2").c_str(), 65534, 65534) == 0;  // takes root
    folder.write("3/stat", "3 (other) S 0");
    folder.write("3/cmdline", "/opt/other\0/tmp/c\0"sv);
    LinuxProcesses processes(loop, bus, folder.path());
    EXPECT_TRUE(processes.isRunning("helper", "/tmp/a"));
    EXPECT_FALSE(processes.isRunning("helper", "/tmp"));
    EXPECT_EQ(processes.isRunning("helper", "/tmp/b"), !isOthers);
    EXPECT_FALSE(processes.isRunning("helper", "/tmp/c"));
}

TEST_F(LinuxProcessesTest, CompletesANameThatTheKernelCut) {
    folder.write("1/stat", "1 (Korvane Pro Dis) S 0");
    folder.write("1/cmdline", "/opt/Korvane/Korvane Pro Disk Care\0--now\0"sv);
    folder.write("2/stat", "2 (fifteen-letters) S 0");
    folder.write("2/cmdline", "/usr/bin/python3\0x\0"sv);
    folder.write("3/stat", "3 (fifteen-letters) S 0");
    folder.write("4/stat", "4 (short) S 0");
    folder.write("4/cmdline", "/usr/bin/shorter\0"sv);
    EXPECT_THAT(namesIn(folder.path()),
                UnorderedElementsAre("Korvane Pro Disk Care", "fifteen-letters", "fifteen-letters",
                                     "short"));
}

TEST_F(LinuxProcessesTest, StopsWhenTheVisitorHasSeenEnough) {
    folder.write("1/stat", "1 (one) S 0");
    folder.write("2/stat", "2 (two) S 0");
    LinuxProcesses processes(loop, bus, folder.path());
    int visited = 0;
    processes.forEachName([&visited](std::string_view) {
        ++visited;
        return false;
    });
    EXPECT_EQ(visited, 1);
}

TEST_F(LinuxProcessesTest, AProgramLaunchedByBackgroundWorkHasOrdinaryPriority) {
    LinuxProcesses processes(loop, bus);
    const std::string file = folder.path() + "/nice";
    std::unique_ptr<Task> task;
    processes.setTaskDidTerminate([&](const Task&) { loop.terminate(); });
    loop.post([&] {
        loop.runInBackgroundAndWait([&] {
            task = processes.launch("/bin/sh", {"-c", "nice >\"" + file + "\""});
        });
        if (!task) loop.terminate();
    });
    loop.run();
    int nice = -100;
    std::ifstream(file) >> nice;
    EXPECT_EQ(nice, ::getpriority(PRIO_PROCESS, 0));
}

TEST_F(LinuxProcessesTest, FindsThisVeryProcess) {
    std::ifstream comm("/proc/self/comm");
    std::string own;
    std::getline(comm, own);
    EXPECT_THAT(namesIn("/proc"), Contains(testing::StartsWith(own)));
}

}  // namespace
}  // namespace korvane
