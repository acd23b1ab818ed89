// The named inter-process connection over which the main application steers the daemon.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvane {

// The root object of the connection: what may be called from outside. On the loop's thread.
class ControlTarget {
  public:
    virtual ~ControlTarget() = default;
    virtual bool messageXmitRcvr(const std::string& word) = 0;
    virtual void messageDoCreateItems(const std::vector<std::string>& paths) = 0;
    virtual void messageDoDeleteItems(const std::vector<std::string>& paths) = 0;
};

// A registered name. Destroying it gives the name back.
class RegisteredConnection {
  public:
    virtual ~RegisteredConnection() = default;
};

class ControlConnection {
  public:
    virtual ~ControlConnection() = default;

    // Registers the daemon's service name and delivers calls to the target, which must outlive the
    // result. Null when the name is taken or there is nothing to register it with. Callers other
    // than root and the daemon's own user are refused here.
    [[nodiscard]] virtual std::unique_ptr<RegisteredConnection> registerName(
        ControlTarget& target) = 0;
};

}  // namespace korvane
