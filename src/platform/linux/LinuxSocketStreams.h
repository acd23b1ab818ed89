// Connections over TCP, their events on the loop. A peer that has died without a word ends a read
// within minutes, by the kernel's own probes.
#pragma once

#include <string>

#include "platform/Bundle.h"
#include "platform/SocketStream.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/TlsSession.h"

namespace korvane {

class LinuxSocketStreams final : public SocketStreams {
  public:
    // The bundle has the TLS module among its plug-ins.
    LinuxSocketStreams(LinuxRunLoop& loop, Bundle& bundle);

    // Null for a port that is none.
    [[nodiscard]] std::shared_ptr<SocketStream> streamsToHost(const std::string& host,
                                                              int port) override;

    // A session on the connected socket; null when there is no module, or it refuses. The module
    // is loaded by the first call and stays.
    [[nodiscard]] std::unique_ptr<TlsSession> newTlsSession(int socket,
                                                            const std::string& peerName);

  private:
    LinuxRunLoop& loop_;
    Bundle& bundle_;
    NewTlsSession newTlsSession_ = nullptr;
};

}  // namespace korvane
