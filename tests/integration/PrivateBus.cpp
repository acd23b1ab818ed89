#include "integration/PrivateBus.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace korvane {

PrivateBus::PrivateBus() {
    // Other users' processes must reach the socket.
    ::chmod(folder_.path().c_str(), 0755);
    ::mkdir((folder_ / "bus").c_str(), 0755);
    address_ = "unix:path=" + socketPath();
    folder_.write("bus.conf",
                  "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
                  "1.0//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                  "<busconfig><listen>" +
                      address_ +
                      "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                      "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/>"
                      "<allow own=\"*\"/><allow user=\"*\"/></policy></busconfig>\n");
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus() { kill(); }

void PrivateBus::start() {
    std::array<int, 2> ready{};
    if (::pipe2(ready.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    const std::string config = "--config-file=" + (folder_ / "bus.conf");
    server_ = ::fork();
    if (server_ == 0) {
        // Whatever happens to the test, the server does not outlive it.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::dup2(ready[1], STDOUT_FILENO);
        // Its complaints about limits that it may not raise would drown the test's own output.
        const int log = ::open((folder_ / "bus.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        ::dup2(log, STDERR_FILENO);
        ::execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--nopidfile",
                 "--print-address=1", nullptr);
        ::_exit(127);
    }
    ::close(ready[1]);
    std::array<char, 512> line{};
    const ssize_t count = ::read(ready[0], line.data(), line.size());
    ::close(ready[0]);
    if (count <= 0) throw std::runtime_error("dbus-daemon did not start");
}

void PrivateBus::kill() {
    if (server_ <= 0) return;
    ::kill(server_, SIGKILL);
    ::waitpid(server_, nullptr, 0);
    server_ = -1;
    ::unlink(socketPath().c_str());
}

CommandResult runCommand(const std::string& command) {
    CommandResult result;
    std::FILE* const pipe = ::popen((command + " 2>&1").c_str(), "re");
    if (pipe == nullptr) return result;
    std::array<char, 4096> chunk{};
    while (const std::size_t count = std::fread(chunk.data(), 1, chunk.size(), pipe)) {
        result.output.append(chunk.data(), count);
    }
    const int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

}  // namespace korvane
