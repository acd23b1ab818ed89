// A machine of which the test says what it is: its version, its names and addresses, its users.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/Host.h"

namespace korvane {

class SimulatedHost final : public Host {
  public:
    explicit SimulatedHost(SystemVersion version) : version_(version) {}

    [[nodiscard]] SystemVersion systemVersion() override { return version_; }
    [[nodiscard]] std::string systemVersionText() override {
        return "Version " + std::to_string(version_.major) + "." + std::to_string(version_.minor) +
               "." + std::to_string(version_.bugFix);
    }
    [[nodiscard]] std::string hostName() override { return hostName_; }
    [[nodiscard]] std::vector<std::string> names() override { return names_; }
    [[nodiscard]] std::vector<std::string> addresses() override { return addresses_; }
    [[nodiscard]] std::optional<std::string> consoleUserName() override { return consoleUser_; }
    [[nodiscard]] std::optional<std::string> fullUserName(const std::string& name) override {
        const auto user = users_.find(name);
        if (user == users_.end()) return std::nullopt;
        return user->second;
    }
    [[nodiscard]] std::string ownFullUserName() override { return "System Administrator"; }

    void setSystemVersion(SystemVersion version) { version_ = version; }
    void setHostName(std::string name) { hostName_ = std::move(name); }
    void setNames(std::vector<std::string> names) { names_ = std::move(names); }
    void setAddresses(std::vector<std::string> addresses) { addresses_ = std::move(addresses); }
    // Nothing: nobody is at the console.
    void setConsoleUser(std::optional<std::string> name) { consoleUser_ = std::move(name); }
    // Short names to full ones.
    void setUsers(std::map<std::string, std::string> users) { users_ = std::move(users); }

  private:
    SystemVersion version_;
    std::string hostName_ = "studio.example.org";
    std::vector<std::string> names_{"studio.example.org", "studio.local"};
    std::vector<std::string> addresses_{"fe80::1%en0", "192.168.1.20", "fe80::1%lo0", "127.0.0.1"};
    std::optional<std::string> consoleUser_ = "ada";
    std::map<std::string, std::string> users_{{"ada", "Ada Example"}};
};

}  // namespace korvane
