// The addresses of the machine's network interfaces, in the order and the pairs in which the list
// of addresses has them.
#pragma once

#include <string>
#include <vector>

namespace korvane {

// An interface's addresses as the list of addresses wants them.
struct InterfaceAddresses {
    bool isEthernetOrWiFi = false;
    std::string linkLocal;               // IPv6, without its scope; empty when it has none
    std::vector<std::string> addresses;  // IPv4; where there is none, IPv6 of wider scope
};
// The pairs of the interfaces in their order, Ethernet and Wi-Fi first as "en0", "en1" ..., the
// others as "if0", "if1" ...: whoever looks for the network finds it by one rule on every machine.
// An interface without a link-local address pairs its others with "fe80::".
[[nodiscard]] std::vector<std::string> addressPairs(
    const std::vector<InterfaceAddresses>& interfaces);

// The interfaces that are up, in the kernel's order, without bridges, their ports and tunnels: an
// address of those says little about where the machine can be found.
[[nodiscard]] std::vector<InterfaceAddresses> interfacesOfThisMachine();

}  // namespace korvane
