// The TLS module: sessions on OpenSSL that accept whatever certificate the server shows. A warning
// about a dying drive has to get through a server whose certificate ran out last night; it is not
// worth less for having been read on the way.

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/linux/TlsSession.h"

namespace korvane {

namespace {

struct ContextCloser {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct SslCloser {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};

bool isAddress(const char* name) {
    std::array<unsigned char, sizeof(in6_addr)> address{};
    return ::inet_pton(AF_INET, name, address.data()) == 1 ||
           ::inet_pton(AF_INET6, name, address.data()) == 1;
}

class OpenSslSession final : public TlsSession {
  public:
    // False when the library refuses, out of memory say.
    [[nodiscard]] bool begin(int socket, const char* peerName) {
        // No configuration file of the machine's: it could only make the settings stricter.
        if (OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) != 1) return false;
        context_.reset(SSL_CTX_new(TLS_client_method()));
        if (!context_) return false;
        SSL_CTX_set_verify(context_.get(), SSL_VERIFY_NONE, nullptr);
        SSL_CTX_set_security_level(context_.get(), 0);
        SSL_CTX_set_options(context_.get(),
                            SSL_OP_LEGACY_SERVER_CONNECT | SSL_OP_IGNORE_UNEXPECTED_EOF);
        (void)SSL_CTX_set_mode(context_.get(), SSL_MODE_AUTO_RETRY);
        ssl_.reset(SSL_new(context_.get()));
        if (!ssl_ || SSL_set_fd(ssl_.get(), socket) != 1) return false;
        // RFC 6066, section 3: a server is named by its name, never by an address.
        if (*peerName != '\0' && !isAddress(peerName) && !setServerName(peerName)) return false;
        SSL_set_connect_state(ssl_.get());
        return true;
    }

    Transfer handshake() override {
        ERR_clear_error();
        return outcome(SSL_do_handshake(ssl_.get()), 0);
    }

    Transfer read(std::span<char> buffer) override {
        ERR_clear_error();
        std::size_t count = 0;
        const int result = SSL_read_ex(ssl_.get(), buffer.data(), buffer.size(), &count);
        return outcome(result, count);
    }

    Transfer peek() override {
        ERR_clear_error();
        char byte = 0;
        std::size_t count = 0;
        const int result = SSL_peek_ex(ssl_.get(), &byte, 1, &count);
        return outcome(result, count);
    }

    Transfer write(std::string_view bytes) override {
        ERR_clear_error();
        std::size_t count = 0;
        const int result = SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &count);
        return outcome(result, count);
    }

    std::string error() const override { return error_; }

  private:
    // SSL_set_tlsext_host_name without its cast; the library copies the name.
    [[nodiscard]] bool setServerName(const char* name) {
        std::string copy{name};
        return SSL_ctrl(ssl_.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                        copy.data()) == 1;
    }

    Transfer outcome(int result, std::size_t count) {
        const int systemError = errno;
        switch (SSL_get_error(ssl_.get(), result)) {
            case SSL_ERROR_NONE:
                return {TransferState::done, count};
            case SSL_ERROR_WANT_READ:
                return {TransferState::wantsToRead, 0};
            case SSL_ERROR_WANT_WRITE:
                return {TransferState::wantsToWrite, 0};
            case SSL_ERROR_ZERO_RETURN:
                return {TransferState::ended, 0};
            default:
                break;
        }
        error_ = "TLS: ";
        if (const unsigned long code = ERR_get_error(); code != 0) {
            const char* const reason = ERR_reason_error_string(code);
            error_ += reason == nullptr ? "unknown error" : reason;
        } else {
            error_ += systemError == 0 ? "the connection ended" : std::strerror(systemError);
        }
        return {TransferState::failed, 0};
    }

    std::unique_ptr<SSL_CTX, ContextCloser> context_;
    std::unique_ptr<SSL, SslCloser> ssl_;
    std::string error_;
};

}  // namespace

}  // namespace korvane

extern "C" [[gnu::visibility("default")]] korvane::TlsSession* korvaneNewTlsSession(
    int socket, const char* peerName) {
    auto session = std::make_unique<korvane::OpenSslSession>();
    return session->begin(socket, peerName) ? session.release() : nullptr;
}
