#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <ZembraSandbox/Certificates.h>
#include <fcntl.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

namespace zembra::test {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Clock = std::chrono::steady_clock;

inline constexpr char kJSON[] = "Content-Type: application/json\r\n";

/// One connection as a server's script sees it. What reads or writes makes the TLS handshake first. An
/// operation that fails because the other side is gone or the server stops returns false or an empty text; a
/// script that returns closes the connection.
class Connection {
public:
    Connection(BIO* socket, SSL_CTX* context)
        : descriptor(static_cast<int>(BIO_get_fd(socket, nullptr))), ssl_(::SSL_new(context), &::SSL_free) {
        ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        ::BIO_set_tcp_ndelay(descriptor, 1);
        ::SSL_set_bio(ssl_.get(), socket, socket);
        ::SSL_set_accept_state(ssl_.get());
    }

    /// Makes each of the two parts of the server's side of the handshake, as TLS 1.2 has it, 1.1 seconds
    /// late.
    void slowHandshakeDown() {
        ::SSL_set_max_proto_version(ssl_.get(), TLS1_2_VERSION);
        ::SSL_set_info_callback(ssl_.get(), [](const SSL* ssl, int, int) {
            const OSSL_HANDSHAKE_STATE state = ::SSL_get_state(ssl);  // what came last
            if (state == TLS_ST_SR_CLNT_HELLO || state == TLS_ST_SR_FINISHED)
                std::this_thread::sleep_for(1100ms);
        });
    }

    /// The next request as it came, header and body.
    std::string readRequest() {
        constexpr std::string_view kEnd = "\r\n\r\n", kLength = "\r\nContent-Length:";
        std::string request;
        for (std::size_t size = std::string::npos; request.size() < size;) {
            char buffer[16384];
            const int count = ::SSL_read(ssl_.get(), buffer, sizeof buffer);
            if (count <= 0) return {};
            request.append(buffer, static_cast<std::size_t>(count));
            const std::size_t end = request.find(kEnd);
            if (end == std::string::npos) continue;
            const std::size_t length = request.find(kLength);
            size = end + kEnd.size();
            if (length < end) size += std::strtoul(&request[length + kLength.size()], nullptr, 10);
        }
        return request;
    }

    bool write(std::string_view text) {
        return text.empty() || ::SSL_write(ssl_.get(), text.data(), static_cast<int>(text.size())) > 0;
    }

    /// Writes an answer with `body`, its length and `fields` (lines).
    bool answer(std::string_view body = "{}", std::string_view fields = kJSON, int status = 200) {
        return write("HTTP/1.1 " + std::to_string(status) + " Answer\r\nContent-Length: " +
                     std::to_string(body.size()) + "\r\n" + std::string(fields) + "\r\n" + std::string(body));
    }

    /// Waits that long, reading nothing; false as soon as the client closes the connection or the server
    /// stops.
    bool wait(std::chrono::milliseconds time) const {
        pollfd socket{descriptor, POLLRDHUP, 0};
        return ::poll(&socket, 1, static_cast<int>(time.count())) == 0;
    }

    /// Waits for one of these two; `stall` makes the handshake before.
    void hold() const { wait(-1ms); }
    void stall() {
        ::SSL_accept(ssl_.get());
        hold();
    }

    /// Tells the client that nothing follows, as TLS does at the proper end of a connection.
    void closeTLS() { ::SSL_shutdown(ssl_.get()); }

    /// Makes the connection end with a reset.
    void reset() const {
        const linger atOnce{1, 0};
        ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }

    const int descriptor;  ///< The socket itself, for what goes around TLS.

private:
    const std::unique_ptr<SSL, decltype(&::SSL_free)> ssl_;
};

using Script = std::function<void(Connection&)>;

/// Gives every request this answer.
inline Script answering(std::string body = "{}", std::string fields = kJSON, int status = 200) {
    return [=](Connection& connection) {
        while (!connection.readRequest().empty() && connection.answer(body, fields, status)) {
        }
    };
}

/// The authority that issues the certificates of all servers unless they say otherwise.
inline const sandbox::Certificate& testAuthority() {
    static const auto certificate =
        sandbox::makeCertificate({.commonName = "Test authority", .isAuthority = true});
    return certificate;
}

struct TLSServerOptions {
    const sandbox::Certificate* issuer = &testAuthority();  ///< None makes a self-signed certificate.
    std::vector<std::string> names = {"DNS:localhost", "IP:127.0.0.1"};
    std::chrono::seconds validFrom = -1h;
    std::chrono::seconds validUntil = 1h;
    int version = 0;                  ///< Of TLS, alone; 0 stands for any.
    bool asksForCertificate = false;  ///< And takes no request without one.
};

/// A server on the loopback interface, at an ephemeral port, that does to each connection what its script
/// says: for the faults that no proper HTTP server commits. The script runs on a thread of the connection.
class TLSServer {
public:
    /// Without a script connections wait to be accepted: the first one for ever, the others unmade.
    explicit TLSServer(Script script = answering(), const TLSServerOptions& options = {})
        : script_(std::move(script)), context_(::SSL_CTX_new(::TLS_server_method()), &::SSL_CTX_free) {
        const auto& [issuer, names, validFrom, validUntil, version, asksForCertificate] = options;
        useCertificate(*context_,
                       makeCertificate({"localhost", names, false, validFrom, validUntil}, issuer));
        ::SSL_CTX_set_security_level(context_.get(), 0);
        SSL_CTX_set_min_proto_version(context_.get(), version);
        SSL_CTX_set_max_proto_version(context_.get(), version);
        if (asksForCertificate)
            ::SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        if (BIO_do_accept(listener_.get()) != 1) std::abort();
        if (script_)
            acceptor_ = std::jthread([this] { accept(); });
        else
            ::listen(descriptor(), 0);
    }

    ~TLSServer() {
        ::shutdown(descriptor(), SHUT_RDWR);
        acceptor_ = {};
        const std::lock_guard lock(mutex_);
        for (const Served& served : served_)
            if (served.connection) ::shutdown(served.connection->descriptor, SHUT_RDWR);
    }

    /// "https://<host>:<port>/"
    [[nodiscard]] std::string address(std::string_view host = "127.0.0.1") const {
        return "https://" + std::string(host) + ':' + BIO_get_accept_port(listener_.get()) + '/';
    }

    /// PEM text of `testAuthority()`.
    [[nodiscard]] static const std::string& certificateAuthority() { return testAuthority().pem; }

    [[nodiscard]] int connectionCount() const noexcept { return connectionCount_; }

private:
    [[nodiscard]] int descriptor() const { return static_cast<int>(BIO_get_fd(listener_.get(), nullptr)); }

    void accept() {
        sigset_t signals;
        ::sigfillset(&signals);  // a client that goes away in the middle of a write is no reason to die
        ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        while (BIO_do_accept(listener_.get()) == 1) {
            ++connectionCount_;
            const std::lock_guard lock(mutex_);
            std::erase_if(served_, [](const Served& served) { return !served.connection; });
            Served& served = served_.emplace_back();
            served.connection.emplace(::BIO_pop(listener_.get()), context_.get());
            served.thread = std::jthread([this, &served] {
                script_(*served.connection);
                const std::lock_guard closing(mutex_);
                served.connection.reset();
            });
        }
    }

    /// A connection, until its script has ended, and its thread, which is joined: OpenSSL's end of a thread
    /// must not meet that of the process.
    struct Served {
        std::optional<Connection> connection;
        std::jthread thread;
    };

    const Script script_;
    const std::unique_ptr<SSL_CTX, decltype(&::SSL_CTX_free)> context_;
    const std::unique_ptr<BIO, decltype(&::BIO_free_all)> listener_{::BIO_new_accept("127.0.0.1:0"),
                                                                    &::BIO_free_all};
    std::atomic<int> connectionCount_ = 0;
    std::mutex mutex_;
    std::list<Served> served_;  // guarded by it
    std::jthread acceptor_;
};

}  // namespace zembra::test
