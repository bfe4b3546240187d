// The sandbox server: connections, TLS and delivery, over cpp-httplib, on threads of its own.

#include "SandboxServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <deque>
#include <future>
#include <list>
#include <map>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Certificates.h"
#include "ExchangeLine.h"
#include "PlatformAPI.h"

namespace zembra::sandbox {
namespace {

constexpr std::size_t kLogCapacity = 1000;
constexpr std::size_t kLongestBody = 16 << 20;
constexpr std::chrono::seconds kSilenceLimit{20};  // hosts under a debugger or an instrument are slow
constexpr std::chrono::milliseconds kLateAnswerDelay{1500};
constexpr std::chrono::milliseconds kForever{-1};

/// Blocks the signals of this thread, and thereby of threads that it starts, while it lives; a fault of the
/// program's own stays a fault.
class SignalBlock {
public:
    SignalBlock() {
        sigset_t signals;
        sigfillset(&signals);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
            sigdelset(&signals, fault);
        pthread_sigmask(SIG_SETMASK, &signals, &previous_);
    }
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

private:
    sigset_t previous_;
};

/// The connection that this thread serves.
struct CurrentConnection {
    SSL* ssl = nullptr;
    bool closesAfterAnswer = false;

    int descriptor() const { return SSL_get_fd(ssl); }
};
thread_local CurrentConnection currentConnection;

/// The open connections of a server, from the start of their handshake, so that all can be shut down at once.
class Connections {
public:
    /// Watches all connections of `context`.
    void watch(SSL_CTX& context) {
        SSL_CTX_set_app_data(&context, this);
        SSL_CTX_set_info_callback(&context, [](const SSL* connection, int event, int) {
            if ((event & SSL_CB_HANDSHAKE_START) == 0) return;
            auto* const self = static_cast<Connections*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
            self->add(const_cast<SSL*>(connection));
        });
    }

    /// Shuts down every connection, those to come included.
    void close() {
        const std::lock_guard lock(mutex_);
        isClosed_ = true;
        for (const auto& [connection, descriptor] : descriptors_)
            shutdown(descriptor, SHUT_RDWR);
    }

private:
    /// The slot of connections that OpenSSL empties, by `remove`, before their descriptors are closed.
    static int slot() {
        static const int index = SSL_get_ex_new_index(
            0, nullptr, nullptr, nullptr,
            [](void* connection, void* self, CRYPTO_EX_DATA*, int, long, void*) {
                if (self != nullptr) static_cast<Connections*>(self)->remove(static_cast<SSL*>(connection));
            });
        return index;
    }

    void add(SSL* connection) {
        currentConnection = {.ssl = connection};
        const int descriptor = currentConnection.descriptor();
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        SSL_set_ex_data(connection, slot(), this);
        const std::lock_guard lock(mutex_);
        descriptors_[connection] = descriptor;
        if (isClosed_) shutdown(descriptor, SHUT_RDWR);
    }

    void remove(SSL* connection) {
        const std::lock_guard lock(mutex_);
        descriptors_.erase(connection);
    }

    std::mutex mutex_;
    std::map<SSL*, int> descriptors_;
    bool isClosed_ = false;
};

/// Serves each connection on a thread of its own, so that silent ones keep no other waiting.
class ThreadPerConnection : public httplib::TaskQueue {
public:
    // Nothing in cpp-httplib 0.11; in 0.18 whether the task was taken.
    using Taken = decltype(std::declval<httplib::TaskQueue&>().enqueue(nullptr));

    Taken enqueue(std::function<void()> serve) override {
        std::unique_lock lock(mutex_);
        joinEnded();
        const auto self = running_.emplace(running_.end());
        *self = std::thread([this, self, serve = std::move(serve)] {
            serve();
            const std::lock_guard end(mutex_);
            ended_.splice(ended_.end(), running_, self);
            oneEnded_.notify_one();
        });
        return Taken(true);
    }

    void shutdown() override {
        std::unique_lock lock(mutex_);
        oneEnded_.wait(lock, [this] { return running_.empty(); });
        joinEnded();
    }

private:
    void joinEnded() {
        for (std::thread& thread : ended_)
            thread.join();
        ended_.clear();
    }

    std::mutex mutex_;
    std::condition_variable oneEnded_;
    std::list<std::thread> running_, ended_;
};

/// The library's server, with room for more connections that wait to be accepted.
class HTTPSServer : public httplib::SSLServer {
public:
    using SSLServer::SSLServer;
    void extendBacklog() { ::listen(svr_sock_, SOMAXCONN); }
};

/// Keeps the process's disposition of SIGPIPE while it lives, one at a time: the library's server ignores
/// that signal for the whole process when it is made.
class PipeSignalKeeper {
public:
    PipeSignalKeeper() { sigaction(SIGPIPE, nullptr, &disposition_); }
    ~PipeSignalKeeper() { sigaction(SIGPIPE, &disposition_, nullptr); }
    PipeSignalKeeper(const PipeSignalKeeper&) = delete;
    PipeSignalKeeper& operator=(const PipeSignalKeeper&) = delete;

private:
    static std::mutex& mutex() {
        static std::mutex instance;
        return instance;
    }

    const std::lock_guard<std::mutex> lock_{mutex()};
    struct sigaction disposition_ {};
};

std::unique_ptr<HTTPSServer> makeHTTPSServer(const std::function<bool(SSL_CTX&)>& setUp) {
    const PipeSignalKeeper keeper;
    return std::make_unique<HTTPSServer>(setUp);
}

/// The headers of a request without those that the library adds.
Fields headersOf(const httplib::Request& request) {
    constexpr std::array<std::string_view, 4> kAdded{"LOCAL_ADDR", "LOCAL_PORT", "REMOTE_ADDR",
                                                     "REMOTE_PORT"};
    Fields headers;
    for (const auto& [name, value] : request.headers) {
        if (std::find(kAdded.begin(), kAdded.end(), name) == kAdded.end()) headers.emplace_back(name, value);
    }
    return headers;
}

/// Waits until the client has closed the connection (or it was shut down), at most for `limit`.
void waitForEnd(int descriptor, std::chrono::milliseconds limit) {
    pollfd end{.fd = descriptor, .events = POLLRDHUP, .revents = 0};
    poll(&end, 1, static_cast<int>(limit.count()));
}

/// Ends a connection with a reset instead of an orderly close.
void reset(int descriptor) {
    sockaddr none{};
    none.sa_family = AF_UNSPEC;
    [[maybe_unused]] const int result = connect(descriptor, &none, sizeof none);
}

}  // namespace

class SandboxServer::Server {
public:
    explicit Server(SandboxOptions options)
        : onExchange_(std::move(options.onExchange)),
          authority_(makeCertificate({.commonName = "Sandbox certificate authority", .isAuthority = true})),
          https_(makeHTTPSServer([this](SSL_CTX& context) {
              connections_.watch(context);
              useCertificate(context, makeCertificate({.commonName = "Sandbox server",
                                                       .alternativeNames = {"DNS:localhost", "IP:127.0.0.1"}},
                                                      &authority_));
              return SSL_CTX_set_min_proto_version(&context, TLS1_2_VERSION) == 1;
          })) {
        if (!https_->is_valid()) throw std::runtime_error("There is no TLS 1.2 or later.");
        configure();
        bind(options.port);
        listen();
    }

    ~Server() { stop(); }

    void stop() {
        const std::lock_guard lock(stopMutex_);
        if (!listener_.joinable()) return;
        https_->stop();
        connections_.close();
        listener_.join();
    }

    std::uint16_t port() const noexcept { return port_; }
    const std::string& authority() const noexcept { return authority_.pem; }
    PlatformAPI& api() noexcept { return api_; }

    std::size_t exchangeCount() const {
        const std::lock_guard lock(logMutex_);
        return exchangeCount_;
    }

    std::vector<Exchange> exchanges() const {
        const std::lock_guard lock(logMutex_);
        return {log_.begin(), log_.end()};
    }

    bool waitForExchanges(std::size_t count, std::chrono::milliseconds limit) const {
        std::unique_lock lock(logMutex_);
        return logGrew_.wait_for(lock, limit, [&] { return exchangeCount_ >= count; });
    }

private:
    void configure() {
        https_->set_tcp_nodelay(true);
        https_->set_keep_alive_max_count(1000000);
        https_->set_keep_alive_timeout(static_cast<std::time_t>(kSilenceLimit.count()));
        https_->set_read_timeout(kSilenceLimit);
        https_->set_payload_max_length(kLongestBody);
        // The library's own choice would let two servers share a port.
        https_->set_socket_options([](int descriptor) {
            const int on = 1;
            setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        });

        const auto withBody = [this](const httplib::Request& request, httplib::Response& response,
                                     const httplib::ContentReader& reader) {
            std::string body;
            const auto append = [&body](const char* data, std::size_t size) {
                body.append(data, size);
                return true;
            };
            const bool isComplete =
                request.is_multipart_form_data()
                    ? reader([](const auto&) { return true; }, [](const char*, std::size_t) { return true; })
                    : reader(append);
            if (isComplete) handle(request, response, body);
            // Else the library has set a status, and the error handler does the rest.
        };
        https_->Post(".*", withBody).Put(".*", withBody).Patch(".*", withBody).Delete(".*", withBody);
        https_->set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
            constexpr std::array<std::string_view, 4> kWithBody{"POST", "PUT", "PATCH", "DELETE"};
            if (std::find(kWithBody.begin(), kWithBody.end(), request.method) != kWithBody.end()) {
                return httplib::Server::HandlerResponse::Unhandled;
            }
            // A body is not read, so what comes next on the connection is no request.
            currentConnection.closesAfterAnswer =
                request.has_header("Content-Length") || request.has_header("Transfer-Encoding");
            handle(request, response, {});
            return httplib::Server::HandlerResponse::Handled;
        });
        https_->set_error_handler([this](const httplib::Request& request, httplib::Response& response) {
            if (!response.body.empty()) return;  // It is an answer of the API.
            currentConnection.closesAfterAnswer = true;
            const std::string_view message = response.status == 413  ? "The body is too large."
                                             : response.status < 500 ? "The request is not well-formed HTTP."
                                                                     : "The sandbox has failed.";
            give(refusal(response.status, "invalid_request", message), exchangeOf(request), response);
        });
        https_->set_logger([](const httplib::Request&, const httplib::Response&) {  // The answer is out.
            if (!currentConnection.closesAfterAnswer) return;
            SSL_set_shutdown(currentConnection.ssl, SSL_RECEIVED_SHUTDOWN);
            shutdown(currentConnection.descriptor(), SHUT_RD);
        });
    }

    void bind(std::uint16_t port) {
        errno = 0;
        const int bound = port == 0 ? https_->bind_to_any_port("127.0.0.1")
                                    : (https_->bind_to_port("127.0.0.1", port) ? port : -1);
        if (bound <= 0) {
            throw std::runtime_error("Cannot listen on 127.0.0.1 port " + std::to_string(port) + ": " +
                                     std::generic_category().message(errno));
        }
        port_ = static_cast<std::uint16_t>(bound);
        https_->extendBacklog();
    }

    /// Starts the listening thread and waits until the server can be stopped.
    void listen() {
        std::promise<void> isListening;
        https_->new_task_queue = [&isListening] {
            auto queue = std::make_unique<ThreadPerConnection>();
            isListening.set_value();
            return queue.release();
        };
        const SignalBlock block;
        listener_ = std::thread([this] { https_->listen_after_bind(); });
        isListening.get_future().wait();
    }

    static Exchange exchangeOf(const httplib::Request& request) {
        Exchange exchange;
        exchange.method = request.method;
        exchange.target = request.target;
        exchange.headers = headersOf(request);
        return exchange;
    }

    void handle(const httplib::Request& request, httplib::Response& response, const std::string& body) {
        Exchange exchange = exchangeOf(request);
        const Answer answer = api_.answer(exchange, body);
        give(answer, std::move(exchange), response);
    }

    /// Completes the exchange, puts it into the log and has the answer delivered.
    void give(const Answer& answer, Exchange exchange, httplib::Response& response) {
        exchange.status = answer.status;
        exchange.answer = answer.body;
        exchange.line = exchangeLine(exchange, answer.token);
        record(std::move(exchange));

        response.status = answer.status;
        for (const auto& [name, value] : answer.headers)
            response.set_header(name, value);
        response.set_header("Cache-Control", "no-store");
        if (currentConnection.closesAfterAnswer) response.set_header("Connection", "close");
        const int descriptor = currentConnection.descriptor();
        switch (answer.delivery) {
            case Delivery::late:
                waitForEnd(descriptor, kLateAnswerDelay);
                [[fallthrough]];
            case Delivery::whole:
                response.set_content(answer.body, answer.contentType);
                break;
            case Delivery::truncated:
                // TLS ends in order here: whether cpp-httplib says so after a failure differs by version.
                response.set_content_provider(answer.body.size(), answer.contentType,
                                              [half = answer.body.substr(0, answer.body.size() / 2)](
                                                  std::size_t, std::size_t, httplib::DataSink& sink) {
                                                  if (sink.write(half.data(), half.size()))
                                                      SSL_shutdown(currentConnection.ssl);
                                                  return false;
                                              });
                break;
            case Delivery::never:
                waitForEnd(descriptor, kForever);
                shutdown(descriptor, SHUT_RDWR);
                break;
            case Delivery::reset:
                reset(descriptor);
                break;
        }
    }

    void record(Exchange exchange) {
        const std::lock_guard order(observerMutex_);
        {
            const std::lock_guard lock(logMutex_);
            log_.push_back(exchange);
            if (log_.size() > kLogCapacity) log_.pop_front();
            ++exchangeCount_;
        }
        logGrew_.notify_all();
        if (onExchange_) onExchange_(exchange);
    }

    const std::function<void(const Exchange&)> onExchange_;
    const Certificate authority_;
    PlatformAPI api_;

    mutable std::mutex logMutex_;
    mutable std::condition_variable logGrew_;
    std::deque<Exchange> log_;
    std::size_t exchangeCount_ = 0;
    std::mutex observerMutex_;

    Connections connections_;
    const std::unique_ptr<HTTPSServer> https_;
    std::uint16_t port_ = 0;
    std::mutex stopMutex_;
    std::thread listener_;
};

SandboxServer::SandboxServer(SandboxOptions options)
    : server_(std::make_unique<Server>(std::move(options))) {}
SandboxServer::~SandboxServer() = default;

void SandboxServer::stop() {
    server_->stop();
}
std::uint16_t SandboxServer::port() const noexcept {
    return server_->port();
}

std::string SandboxServer::baseAddress(std::string_view host) const {
    return "https://" + std::string(host) + ":" + std::to_string(port()) + "/api/v1/";
}

const std::string& SandboxServer::certificateAuthority() const noexcept {
    return server_->authority();
}

void SandboxServer::writeCertificateAuthority(const std::filesystem::path& file) const {
    const std::string& pem = certificateAuthority();
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    int error = descriptor >= 0 ? 0 : errno;
    if (descriptor >= 0) {
        if (write(descriptor, pem.data(), pem.size()) != static_cast<ssize_t>(pem.size())) error = errno;
        ::close(descriptor);
        if (error != 0) unlink(file.c_str());
    }
    if (error != 0) {
        throw std::runtime_error(
            "Cannot write the certificate authority to " + file.string() + ": " +
            std::generic_category().message(error) +
            (error == EEXIST ? " (if a run that was killed left it behind, remove it)" : ""));
    }
}

void SandboxServer::acceptRefreshToken(std::string token) {
    server_->api().acceptRefreshToken(std::move(token));
}
std::size_t SandboxServer::exchangeCount() const {
    return server_->exchangeCount();
}
std::vector<Exchange> SandboxServer::exchanges() const {
    return server_->exchanges();
}

bool SandboxServer::waitForExchanges(std::size_t count, std::chrono::milliseconds limit) const {
    return server_->waitForExchanges(count, limit);
}

}  // namespace zembra::sandbox
