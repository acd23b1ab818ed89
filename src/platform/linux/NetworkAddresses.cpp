#include "platform/linux/NetworkAddresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>

namespace korvane {

namespace {

struct AddressListCloser {
    void operator()(ifaddrs* list) const { ::freeifaddrs(list); }
};

// What is gathered of one interface while the kernel's list is read.
struct Interface {
    std::string name;
    InterfaceAddresses found;
    std::vector<std::string> wideIpv6;
    bool isUp = false;
};

// Made by software to join others: sysfs shows each kind by a file or folder of its own.
bool isPlumbing(const std::string& name) {
    const std::string folder = "/sys/class/net/" + name + "/";
    for (const char* const mark : {"bridge", "brport", "tun_flags"}) {
        if (::access((folder + mark).c_str(), F_OK) == 0) return true;
    }
    return false;
}

std::string textOfAddress(int family, const void* address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    const char* const written =
        ::inet_ntop(family, address, text.data(), static_cast<socklen_t>(text.size()));
    return written == nullptr ? std::string{} : written;
}

void take(Interface& interface, const sockaddr& address) {
    // The kernel's structures of each family begin alike; this is how they are meant to be read.
    if (address.sa_family == AF_PACKET) {
        const auto& link = reinterpret_cast<const sockaddr_ll&>(address);
        interface.found.isEthernetOrWiFi = link.sll_hatype == ARPHRD_ETHER;
    } else if (address.sa_family == AF_INET) {
        const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(address);
        interface.found.addresses.push_back(textOfAddress(AF_INET, &ipv4.sin_addr));
    } else if (address.sa_family == AF_INET6) {
        const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
        const std::string text = textOfAddress(AF_INET6, &ipv6.sin6_addr);
        if (!IN6_IS_ADDR_LINKLOCAL(&ipv6.sin6_addr)) {
            interface.wideIpv6.push_back(text);
        } else if (interface.found.linkLocal.empty()) {
            interface.found.linkLocal = text;
        }
    }
}

}  // namespace

std::vector<std::string> addressPairs(const std::vector<InterfaceAddresses>& interfaces) {
    std::vector<std::string> pairs;
    for (const bool isEthernetOrWiFi : {true, false}) {
        std::size_t number = 0;
        for (const InterfaceAddresses& interface : interfaces) {
            if (interface.isEthernetOrWiFi != isEthernetOrWiFi) continue;
            const std::string scope = (isEthernetOrWiFi ? "%en" : "%if") + std::to_string(number++);
            const std::string linkLocal =
                interface.linkLocal.empty() ? std::string{"fe80::"} : interface.linkLocal;
            for (const std::string& address : interface.addresses) {
                pairs.push_back(linkLocal + scope);
                pairs.push_back(address);
            }
        }
    }
    return pairs;
}

std::vector<InterfaceAddresses> interfacesOfThisMachine() {
    ifaddrs* raw = nullptr;
    if (::getifaddrs(&raw) != 0) return {};
    const std::unique_ptr<ifaddrs, AddressListCloser> list(raw);
    std::vector<Interface> interfaces;
    for (const ifaddrs* entry = raw; entry != nullptr; entry = entry->ifa_next) {
        auto known = std::find_if(interfaces.begin(), interfaces.end(), [entry](const auto& seen) {
            return seen.name == entry->ifa_name;
        });
        if (known == interfaces.end()) {
            interfaces.push_back({.name = entry->ifa_name,
                                  .found = {},
                                  .wideIpv6 = {},
                                  .isUp = (entry->ifa_flags & IFF_UP) != 0});
            known = interfaces.end() - 1;
        }
        if (entry->ifa_addr != nullptr) take(*known, *entry->ifa_addr);
    }
    std::vector<InterfaceAddresses> found;
    for (Interface& interface : interfaces) {
        if (!interface.isUp || isPlumbing(interface.name)) continue;
        if (interface.found.addresses.empty()) {
            interface.found.addresses = std::move(interface.wideIpv6);
        }
        found.push_back(std::move(interface.found));
    }
    return found;
}

}  // namespace korvane
