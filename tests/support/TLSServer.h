#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <ZembraSandbox/Certificates.h>

struct ssl_ctx_st;
struct ssl_st;

namespace zembra::test {

/// One connection as a server's script sees it. An operation that fails because the other side is gone or the
/// server stops returns false or an empty text; a script that returns closes the connection.
class Connection {
public:
    Connection(int descriptor, ssl_ctx_st* context, const std::atomic<bool>& isStopping);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool handshake();

    /// A handshake whose side of it comes byte by byte, as it were: in pieces, `pause` before each.
    bool slowHandshake(std::chrono::milliseconds pause);

    /// The next request as it came: its header, or header and body (by its Content-Length).
    std::string readHeader();
    std::string readRequest();

    bool write(std::string_view text);

    /// Writes an answer with `body`, its length and `fields` (lines).
    bool answer(std::string_view body, std::string_view fields = "Content-Type: application/json\r\n",
                int status = 200);

    /// Writes each piece `pause` after the one before.
    bool drip(const std::vector<std::string>& pieces, std::chrono::milliseconds pause);

    /// Waits, reading nothing, until the client closes the connection or the server stops.
    void hold();

    /// Waits that long, less if the server stops.
    bool wait(std::chrono::milliseconds time);

    /// Makes the connection end with a reset.
    void reset();

    /// The socket itself, for what goes around TLS.
    [[nodiscard]] int descriptor() const noexcept { return descriptor_; }

private:
    [[nodiscard]] bool isReady(short events) const;
    bool readMore();

    const int descriptor_;
    const std::atomic<bool>& isStopping_;
    ssl_st* const ssl_;
    std::string received_;
};

/// A server on the loopback interface, at an ephemeral port, that does to each connection what its script
/// says: for the faults that no proper HTTP server commits. The script runs on a thread of the connection.
class TLSServer {
public:
    using Script = std::function<void(Connection&)>;

    struct Options {
        sandbox::CertificateProfile profile = {.commonName = "localhost",
                                               .alternativeNames = {"DNS:localhost", "IP:127.0.0.1"}};
        bool isSelfSigned = false;
        bool isTLS11Only = false;
    };

    explicit TLSServer(Script script);
    TLSServer(Script script, Options options);
    ~TLSServer();
    TLSServer(const TLSServer&) = delete;
    TLSServer& operator=(const TLSServer&) = delete;

    /// "https://<host>:<port>/"
    [[nodiscard]] std::string address(std::string_view host = "127.0.0.1") const;

    /// PEM text of the authority that issues the certificates of all these servers.
    [[nodiscard]] static const std::string& certificateAuthority();

    [[nodiscard]] int connectionCount() const noexcept { return connectionCount_; }

private:
    void accept();

    const Script script_;
    const std::unique_ptr<ssl_ctx_st, void (*)(ssl_ctx_st*)> context_;
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> isStopping_ = false;
    std::atomic<int> connectionCount_ = 0;
    std::list<std::thread> threads_;
    std::thread acceptor_;
};

/// A loopback address at which nothing listens.
[[nodiscard]] std::string refusingAddress();

/// A loopback address at which connecting hangs: the queue of its listener is full.
class UnacceptingServer {
public:
    UnacceptingServer();
    ~UnacceptingServer();
    UnacceptingServer(const UnacceptingServer&) = delete;
    UnacceptingServer& operator=(const UnacceptingServer&) = delete;

    [[nodiscard]] std::string address() const;

private:
    std::vector<int> descriptors_;
    std::uint16_t port_ = 0;
};

}  // namespace zembra::test
