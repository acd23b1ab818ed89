#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "TemporaryFolder.h"
#include "platform/linux/LinuxPowerSources.h"

namespace korvane {
namespace {

constexpr char kAc[] = "AC Power";
constexpr char kBattery[] = "Battery Power";

PowerSupply mains(const char* online) { return {.type = "Mains", .online = online}; }
PowerSupply usb(const char* online) { return {.type = "USB", .online = online}; }
PowerSupply battery(const char* status) {
    return {.type = "Battery", .scope = "System", .status = status, .present = "1"};
}

struct SuppliesRow {
    const char* name;
    std::vector<PowerSupply> supplies;
    std::optional<std::vector<std::string>> states;
};

void PrintTo(const SuppliesRow& row, std::ostream* out) { *out << row.name; }

class PowerSourceStates : public testing::TestWithParam<SuppliesRow> {};

TEST_P(PowerSourceStates, FollowFromTheSupplies) {
    EXPECT_EQ(powerSourceStates(GetParam().supplies), GetParam().states);
}

using States = std::vector<std::string>;

INSTANTIATE_TEST_SUITE_P(
    Rows, PowerSourceStates,
    testing::Values(
        SuppliesRow{"no supply", {}, std::nullopt},
        SuppliesRow{"laptop on mains, full", {mains("1"), battery("Full")}, States{kAc, kAc}},
        SuppliesRow{
            "laptop on mains, charging", {mains("1"), battery("Charging")}, States{kAc, kAc}},
        SuppliesRow{"laptop on mains, charge held",
                    {mains("1"), battery("Not charging")},
                    States{kAc, kAc}},
        SuppliesRow{
            "adapter too weak for the load", {usb("1"), battery("Discharging")}, States{kAc, kAc}},
        SuppliesRow{
            "laptop unplugged", {mains("0"), battery("Discharging")}, States{kBattery, kBattery}},
        SuppliesRow{
            "unplugged a moment ago", {mains("0"), battery("Full")}, States{kBattery, kBattery}},
        SuppliesRow{"two USB-C sockets, one feeding",
                    {battery("Charging"), usb("0"), usb("1")},
                    States{kAc, kAc, kAc}},
        SuppliesRow{"programmable USB supply", {battery("Full"), usb("2")}, States{kAc, kAc}},
        SuppliesRow{"two USB-C sockets, none feeding",
                    {battery("Discharging"), usb("0"), usb("0")},
                    States{kBattery, kBattery, kBattery}},
        SuppliesRow{"charging by an adapter the kernel does not know",
                    {usb("0"), battery("Charging")},
                    States{kAc, kAc}},
        SuppliesRow{"battery alone, discharging", {battery("Discharging")}, States{kBattery}},
        SuppliesRow{"battery alone, full", {battery("Full")}, States{kAc}},
        SuppliesRow{"battery alone, state unknown", {battery("Unknown")}, States{kAc}},
        SuppliesRow{"two batteries, one at work",
                    {battery("Discharging"), battery("Unknown"), mains("0")},
                    States{kBattery, kBattery, kBattery}},
        SuppliesRow{"desktop with idle USB-C sockets", {usb("0"), usb("0")}, States{kAc, kAc}},
        SuppliesRow{"desktop with a mouse",
                    {{.type = "Battery", .scope = "Device", .status = "Discharging"}},
                    std::nullopt},
        SuppliesRow{"laptop on mains with a mouse",
                    {mains("1"),
                     battery("Full"),
                     {.type = "Battery", .scope = "Device", .status = "Discharging"}},
                    States{kAc, kAc}},
        SuppliesRow{"empty battery bay",
                    {mains("0"), {.type = "Battery", .status = "Unknown", .present = "0"}},
                    States{kAc}},
        SuppliesRow{"battery that does not tell whether it is present",
                    {mains("0"), {.type = "Battery", .status = "Discharging"}},
                    States{kBattery, kBattery}},
        SuppliesRow{"UPS at work", {{.type = "UPS", .status = "Discharging"}}, States{kBattery}},
        SuppliesRow{"supply that went away while it was read", {{}}, std::nullopt}));

TEST(LinuxPowerSources, ReadsTheKernelsFolder) {
    const TemporaryFolder folder;
    folder.write("BAT0/type", "Battery\n");
    folder.write("BAT0/status", "Discharging\n");
    folder.write("BAT0/present", "1\n");
    folder.write("ADP0/type", "Mains\n");
    folder.write("ADP0/online", "0\n");
    folder.write("hidpp_battery_0/type", "Battery\n");
    folder.write("hidpp_battery_0/scope", "Device\n");
    LinuxPowerSources sources(folder.path());
    EXPECT_EQ(sources.states(), (States{kBattery, kBattery}));
    folder.write("ADP0/online", "1\n");
    EXPECT_EQ(sources.states(), (States{kAc, kAc}));
}

TEST(LinuxPowerSources, HasNoneWithoutTheKernelsFolder) {
    const TemporaryFolder folder;
    EXPECT_EQ(LinuxPowerSources(folder / "missing").states(), std::nullopt);
    EXPECT_EQ(LinuxPowerSources(folder.path()).states(), std::nullopt);
}

}  // namespace
}  // namespace korvane
