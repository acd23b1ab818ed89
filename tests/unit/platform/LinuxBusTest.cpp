#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "platform/linux/LinuxBus.h"

namespace korvane {
namespace {

struct AddressRow {
    std::string address;
    std::optional<std::string> path;
};

class BusAddress : public testing::TestWithParam<AddressRow> {};

TEST_P(BusAddress, GivesThePathOfItsSocket) {
    EXPECT_EQ(socketPathOf(GetParam().address), GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BusAddress,
    testing::Values(AddressRow{"unix:path=/run/dbus/system_bus_socket",
                               "/run/dbus/system_bus_socket"},
                    AddressRow{"unix:path=/run/bus,guid=0123456789abcdef", "/run/bus"},
                    AddressRow{"unix:guid=0123,path=/run/bus", "/run/bus"},
                    AddressRow{"tcp:host=::1;unix:abstract=x;unix:path=/run/bus", "/run/bus"},
                    AddressRow{"unix:path=/run/a%20b%2fc", "/run/a b/c"},
                    AddressRow{"unix:path=/run/bad%zz%2", "/run/bad%zz%2"},
                    AddressRow{"unix:abstract=/tmp/dbus-x", std::nullopt},
                    AddressRow{"unix:path=relative", std::nullopt},
                    AddressRow{"unix:path=", std::nullopt}, AddressRow{"unix:", std::nullopt},
                    AddressRow{";;,=", std::nullopt}, AddressRow{"", std::nullopt}));

}  // namespace
}  // namespace korvane
