#include "platform/linux/HostLookup.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

namespace korvane {

namespace {

struct AddressInfoCloser {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

HostAddresses lookUp(const std::string& host, int port, int flags) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    addrinfo* raw = nullptr;
    const int error = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &raw);
    if (error != 0) {
        const std::string reason =
            error == EAI_SYSTEM ? std::generic_category().message(errno) : ::gai_strerror(error);
        return {.addresses = {}, .error = host + ": " + reason};
    }
    const std::unique_ptr<addrinfo, AddressInfoCloser> list(raw);
    HostAddresses found;
    for (const addrinfo* entry = raw; entry != nullptr; entry = entry->ai_next) {
        SocketAddress address;
        if (entry->ai_addrlen > sizeof(address.address)) continue;
        std::memcpy(&address.address, entry->ai_addr, entry->ai_addrlen);
        address.length = entry->ai_addrlen;
        found.addresses.push_back(address);
    }
    if (found.addresses.empty()) found.error = host + ": no address";
    return found;
}

}  // namespace

// Written by the thread before it signals, read by the loop after that.
struct HostLookup::Answer {
    HostAddresses found;
    UniqueFd signal{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};

    void give(HostAddresses addresses) {
        found = std::move(addresses);
        (void)eventfd_write(signal.get(), 1);  // 0 to 1: cannot fail
    }
};

HostLookup::HostLookup(LinuxRunLoop& loop, const std::string& host, int port, Callback callback)
    : loop_(loop), callback_(std::move(callback)), answer_(std::make_shared<Answer>()) {
    if (!answer_->signal) throw std::system_error(errno, std::generic_category(), "eventfd");
    sd_event_source* source = nullptr;
    const int result =
        sd_event_add_io(loop.event(), &source, answer_->signal.get(), EPOLLIN, onAnswer, this);
    if (result < 0) throw std::system_error(-result, std::generic_category(), "look-up source");
    source_.reset(source);
    // An address needs no resolver, and so no thread.
    HostAddresses numeric = lookUp(host, port, AI_NUMERICHOST);
    if (numeric.error.empty()) {
        answer_->give(std::move(numeric));
        return;
    }
    try {
        // Not waited for, ever: the resolver may keep it for minutes, the end of the process does
        // not. All it touches is the answer.
        std::thread([answer = answer_, host, port] {
            answer->give(lookUp(host, port, 0));
        }).detach();
    } catch (const std::system_error& failure) {
        answer_->give({.addresses = {}, .error = failure.what()});
    }
}

HostLookup::~HostLookup() = default;

int HostLookup::onAnswer(sd_event_source*, int, std::uint32_t, void* self) noexcept {
    auto* const lookup = static_cast<HostLookup*>(self);
    lookup->source_.reset();
    // The callback may destroy the look-up.
    lookup->loop_.callBack(
        "a host's addresses",
        [callback = lookup->callback_, answer = lookup->answer_] { callback(answer->found); });
    return 0;
}

}  // namespace korvane
