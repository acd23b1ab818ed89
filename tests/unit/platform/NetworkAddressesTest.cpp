#include <gmock/gmock.h>

#include "platform/linux/NetworkAddresses.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(NetworkAddresses, PairsEachAddressWithItsInterfacesLinkLocalOne) {
    EXPECT_THAT(addressPairs({{.isEthernetOrWiFi = true,
                               .linkLocal = "fe80::1",
                               .addresses = {"192.168.1.20", "10.0.0.2"}}}),
                ElementsAre("fe80::1%en0", "192.168.1.20", "fe80::1%en0", "10.0.0.2"));
}

TEST(NetworkAddresses, NamesEthernetAndWiFiFirstAndInTheirOrder) {
    const InterfaceAddresses loopback{
        .isEthernetOrWiFi = false, .linkLocal = "", .addresses = {"127.0.0.1"}};
    const InterfaceAddresses first{
        .isEthernetOrWiFi = true, .linkLocal = "", .addresses = {"10.0.0.2"}};
    const InterfaceAddresses second{
        .isEthernetOrWiFi = true, .linkLocal = "fe80::2", .addresses = {"10.0.0.3"}};
    EXPECT_THAT(addressPairs({loopback, first, second}),
                ElementsAre("fe80::%en0", "10.0.0.2", "fe80::2%en1", "10.0.0.3", "fe80::%if0",
                            "127.0.0.1"));
}

TEST(NetworkAddresses, LeavesInterfacesWithoutAnAddressOut) {
    EXPECT_THAT(addressPairs({{.isEthernetOrWiFi = true, .linkLocal = "fe80::1", .addresses = {}}}),
                IsEmpty());
    EXPECT_THAT(addressPairs({}), IsEmpty());
}

TEST(NetworkAddresses, OfThisMachineComeInPairs) {
    const std::vector<std::string> pairs = addressPairs(interfacesOfThisMachine());
    ASSERT_EQ(pairs.size() % 2, 0U);
    for (std::size_t i = 0; i < pairs.size(); i += 2) {
        EXPECT_THAT(pairs[i], testing::HasSubstr("%"));
        EXPECT_THAT(pairs[i + 1], testing::Not(testing::HasSubstr("%")));
    }
}

}  // namespace
}  // namespace korvane
