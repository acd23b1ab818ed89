#include "platform/linux/LinuxSocketStreams.h"

#include <dlfcn.h>

#include <memory>

#include "platform/linux/LinuxSocketStream.h"

namespace korvane {

LinuxSocketStreams::LinuxSocketStreams(LinuxRunLoop& loop, Bundle& bundle)
    : loop_(loop), bundle_(bundle) {}

std::shared_ptr<SocketStream> LinuxSocketStreams::streamsToHost(const std::string& host, int port) {
    constexpr int kHighestPort = 65535;
    if (port < 1 || port > kHighestPort) return nullptr;
    return std::make_shared<LinuxSocketStream>(loop_, *this, host, port);
}

std::unique_ptr<TlsSession> LinuxSocketStreams::newTlsSession(int socket,
                                                              const std::string& peerName) {
    if (newTlsSession_ == nullptr) {
        const std::string path = bundle_.plugIn(kTlsModule);
        // Never unloaded: what the TLS library leaves behind at the end of the process needs it.
        void* const module = path.empty() ? nullptr : ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (module == nullptr) return nullptr;
        newTlsSession_ = reinterpret_cast<NewTlsSession>(::dlsym(module, kTlsModuleEntry));
        if (newTlsSession_ == nullptr) return nullptr;
    }
    return std::unique_ptr<TlsSession>(newTlsSession_(socket, peerName.c_str()));
}

}  // namespace korvane
