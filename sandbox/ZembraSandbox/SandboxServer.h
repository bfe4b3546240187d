#pragma once

// The sandbox server, for hosts' tests and the sandbox program; any thread.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zembra::sandbox {

/// Name and value pairs.
using Fields = std::vector<std::pair<std::string, std::string>>;

/// One request and its answer as they were, tokens included, for tests to compare. What is to be printed is
/// `line`, which shows no token; the stream operator prints that.
struct Exchange {
    std::string method;
    std::string target;  ///< Path and query as sent, undecoded.

    /// In alphabetical order; the values of a repeated one in the order of the request. A percent-encoded
    /// byte in a value is shown decoded.
    Fields headers;

    /// The decoded form, in the order of the request; empty where there is no well-formed one.
    Fields parameters;

    int status = 0;      ///< 0 where no answer was given.
    std::string answer;  ///< The body of the answer, also where only its first half was sent.
    std::string line;    ///< As one line of printable text, with whatever may be a secret masked.

    /// The value of the first header (names compare without regard to case) or parameter of this name.
    [[nodiscard]] std::optional<std::string> header(std::string_view name) const;
    [[nodiscard]] std::optional<std::string> parameter(std::string_view name) const;
};

std::ostream& operator<<(std::ostream& stream, const Exchange& exchange);

struct SandboxOptions {
    std::uint16_t port = 0;  ///< 0 takes a free one.

    /// Gets each exchange once it is in the log, before the answer goes out: on the server's threads, one
    /// call at a time. It must neither stop the server nor throw.
    std::function<void(const Exchange&)> onExchange = nullptr;
};

/// A stand-in for the platform's API, for hosts to work with offline: HTTPS on the loopback interface, with a
/// certificate authority and a certificate (for 127.0.0.1 and localhost) of its own, both made at start.
///
/// It answers POST app/token and POST app/members/token under /api/v1/, as strictly as the platform might:
/// 404 for another path, 405 for another method, 400 for whatever else is wrong with a request, each with a
/// JSON body that says why. Well-known client identifiers and refresh tokens rehearse every other outcome;
/// `outcomeTables` lists them. Connections do not wait for each other; one that is silent for 20 seconds is
/// dropped.
///
/// All operations may be called from any thread. Its own threads block all signals, and the process's signal
/// dispositions stay as they are.
class SandboxServer {
public:
    /// The server is up when the constructor returns. Throws `std::runtime_error` with a text to show where
    /// it cannot start, such as for a port in use.
    explicit SandboxServer(SandboxOptions options = {});
    ~SandboxServer();
    SandboxServer(const SandboxServer&) = delete;
    SandboxServer& operator=(const SandboxServer&) = delete;

    /// Closes all connections, also those with a request pending, and waits for the server's threads, which
    /// takes a moment at most. The log stays readable. Calling it again does nothing.
    void stop();

    [[nodiscard]] std::uint16_t port() const noexcept;

    /// "https://<host>:<port>/api/v1/"; the host is 127.0.0.1 or localhost.
    [[nodiscard]] std::string baseAddress(std::string_view host = "127.0.0.1") const;

    /// The authority's certificate, PEM text.
    [[nodiscard]] const std::string& certificateAuthority() const noexcept;

    /// Writes it to a new file. Throws `std::runtime_error` where the file exists or cannot be written.
    void writeCertificateAuthority(const std::filesystem::path& file) const;

    /// From now on `token` (any bytes) is a member's refresh token like "sandbox.member".
    void acceptRefreshToken(std::string token);

    /// The number of exchanges so far, and the latest 1,000 of them, in order.
    [[nodiscard]] std::size_t exchangeCount() const;
    [[nodiscard]] std::vector<Exchange> exchanges() const;

    /// Waits until there have been `count` exchanges; false where `limit` runs out first.
    [[nodiscard]] bool waitForExchanges(std::size_t count, std::chrono::milliseconds limit) const;

    /// The well-known client identifiers and refresh tokens with their outcomes, as two Markdown tables.
    [[nodiscard]] static std::string outcomeTables();

private:
    class Server;
    const std::unique_ptr<Server> server_;
};

}  // namespace zembra::sandbox
