#include "support/TLSServer.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zembra::test {

namespace {

using namespace std::chrono_literals;

constexpr auto kStopCheck = 20ms;

void require(bool condition, const char* what) {
    if (!condition) throw std::runtime_error(what);
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

int listenOnLoopback(int backlog, std::uint16_t& port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    require(::bind(listener, raw, size) == 0 && ::listen(listener, backlog) == 0 &&
                ::getsockname(listener, raw, &size) == 0,
            "cannot listen on the loopback interface");
    port = ntohs(address.sin_port);
    return listener;
}

std::string addressOf(std::string_view host, std::uint16_t port) {
    return "https://" + std::string(host) + ':' + std::to_string(port) + '/';
}

const sandbox::Certificate& authority() {
    static const auto certificate =
        sandbox::makeCertificate({.commonName = "Test authority", .isAuthority = true});
    return certificate;
}

template <class Object, class Read, class Free>
std::unique_ptr<Object, Free> fromPEM(const std::string& text, Read read, Free free) {
    const std::unique_ptr<BIO, decltype(&::BIO_free)> bio(
        ::BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), &::BIO_free);
    return {read(bio.get(), nullptr, nullptr, nullptr), free};
}

}  // namespace

Connection::Connection(int descriptor, ssl_ctx_st* context, const std::atomic<bool>& isStopping)
    : descriptor_(descriptor), isStopping_(isStopping), ssl_(::SSL_new(context)) {
    const int one = 1;
    ::setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ::SSL_set_fd(ssl_, descriptor_);
}

Connection::~Connection() {
    ::SSL_free(ssl_);
    ::close(descriptor_);
}

bool Connection::isReady(short events) const {
    pollfd socket{descriptor_, events, 0};
    while (!isStopping_) {
        if (::poll(&socket, 1, static_cast<int>(kStopCheck.count())) > 0) return true;
    }
    return false;
}

bool Connection::handshake() {
    while (isReady(POLLIN)) {
        const int result = ::SSL_accept(ssl_);
        if (result == 1) return true;
        if (::SSL_get_error(ssl_, result) != SSL_ERROR_WANT_READ) break;
    }
    return false;
}

bool Connection::slowHandshake(std::chrono::milliseconds pause) {
    constexpr std::size_t kPieces = 4;
    BIO* const incoming = ::BIO_new(::BIO_s_mem());
    BIO* const outgoing = ::BIO_new(::BIO_s_mem());
    ::SSL_set_bio(ssl_, incoming, outgoing);
    while (!::SSL_is_init_finished(ssl_)) {
        char buffer[16384];
        if (!isReady(POLLIN)) return false;
        const ssize_t count = ::recv(descriptor_, buffer, sizeof buffer, 0);
        if (count <= 0) return false;
        ::BIO_write(incoming, buffer, static_cast<int>(count));
        ::SSL_accept(ssl_);
        const int size = ::BIO_read(outgoing, buffer, sizeof buffer);
        std::string_view rest(buffer, static_cast<std::size_t>(std::max(size, 0)));
        const std::size_t pieceSize = rest.size() / kPieces + 1;
        while (!::SSL_is_init_finished(ssl_) && !rest.empty()) {
            const std::string_view piece = rest.substr(0, pieceSize);
            if (!wait(pause) || ::send(descriptor_, piece.data(), piece.size(), 0) < 0) return false;
            rest.remove_prefix(piece.size());
        }
        if (!rest.empty() && ::send(descriptor_, rest.data(), rest.size(), 0) < 0) return false;
    }
    // What came along with the last of the handshake is the start of the request; the socket may stay silent
    // now.
    while (::BIO_ctrl_pending(incoming) > 0) {
        char buffer[16384];
        const int count = ::SSL_read(ssl_, buffer, sizeof buffer);
        if (count > 0)
            received_.append(buffer, static_cast<std::size_t>(count));
        else if (::SSL_get_error(ssl_, count) != SSL_ERROR_WANT_READ)
            return false;
    }
    ::SSL_set_fd(ssl_, descriptor_);
    return true;
}

bool Connection::readMore() {
    char buffer[16384];
    while (::SSL_pending(ssl_) > 0 || isReady(POLLIN)) {
        const int count = ::SSL_read(ssl_, buffer, sizeof buffer);
        if (count > 0) {
            received_.append(buffer, static_cast<std::size_t>(count));
            return true;
        }
        if (::SSL_get_error(ssl_, count) != SSL_ERROR_WANT_READ) break;
    }
    return false;
}

std::string Connection::readHeader() {
    constexpr std::string_view kEnd = "\r\n\r\n";
    std::size_t end = received_.find(kEnd);
    while (end == std::string::npos) {
        if (!readMore()) return {};
        end = received_.find(kEnd);
    }
    std::string header = received_.substr(0, end + kEnd.size());
    received_.erase(0, header.size());
    return header;
}

std::string Connection::readRequest() {
    std::string request = readHeader();
    constexpr std::string_view kName = "\r\nContent-Length:";
    const std::size_t field = request.find(kName);
    if (field == std::string::npos) return request;
    const auto length = static_cast<std::size_t>(std::strtoull(&request[field + kName.size()], nullptr, 10));
    while (received_.size() < length) {
        if (!readMore()) return {};
    }
    request += received_.substr(0, length);
    received_.erase(0, length);
    return request;
}

bool Connection::write(std::string_view text) {
    while (!text.empty()) {
        const auto size = static_cast<int>(std::min<std::size_t>(text.size(), 16384));
        const int count = ::SSL_write(ssl_, text.data(), size);
        if (count > 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (::SSL_get_error(ssl_, count) != SSL_ERROR_WANT_WRITE || !isReady(POLLOUT)) {
            return false;
        }
    }
    return true;
}

bool Connection::answer(std::string_view body, std::string_view fields, int status) {
    return write("HTTP/1.1 " + std::to_string(status) + " Answer\r\nContent-Length: " +
                 std::to_string(body.size()) + "\r\n" + std::string(fields) + "\r\n" + std::string(body));
}

bool Connection::drip(const std::vector<std::string>& pieces, std::chrono::milliseconds pause) {
    return std::ranges::all_of(pieces, [&](const auto& piece) { return wait(pause) && write(piece); });
}

void Connection::hold() {
    pollfd socket{descriptor_, POLLRDHUP, 0};
    while (!isStopping_ && ::poll(&socket, 1, static_cast<int>(kStopCheck.count())) <= 0) {
    }
}

bool Connection::wait(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!isStopping_) {
        const auto left = end - std::chrono::steady_clock::now();
        if (left <= 0ms) return true;
        std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, kStopCheck));
    }
    return false;
}

void Connection::reset() {
    const linger atOnce{1, 0};
    ::setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

TLSServer::TLSServer(Script script) : TLSServer(std::move(script), Options()) {}

TLSServer::TLSServer(Script script, Options options)
    : script_(std::move(script)), context_(::SSL_CTX_new(::TLS_server_method()), &::SSL_CTX_free) {
    const auto own = sandbox::makeCertificate(options.profile, options.isSelfSigned ? nullptr : &authority());
    const auto certificate = fromPEM<X509>(own.pem, &::PEM_read_bio_X509, &::X509_free);
    const auto key = fromPEM<EVP_PKEY>(own.privateKey, &::PEM_read_bio_PrivateKey, &::EVP_PKEY_free);
    require(::SSL_CTX_use_certificate(context_.get(), certificate.get()) == 1 &&
                ::SSL_CTX_use_PrivateKey(context_.get(), key.get()) == 1,
            "cannot use the certificate");
    if (options.isTLS11Only) {
        ::SSL_CTX_set_security_level(context_.get(), 0);
        ::SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
        ::SSL_CTX_set_max_proto_version(context_.get(), TLS1_1_VERSION);
    }
    listener_ = listenOnLoopback(64, port_);
    acceptor_ = std::thread([this] { accept(); });
}

TLSServer::~TLSServer() {
    isStopping_ = true;
    acceptor_.join();
    for (std::thread& thread : threads_)
        thread.join();
    ::close(listener_);
}

void TLSServer::accept() {
    sigset_t signals;
    ::sigfillset(&signals);  // a client that goes away in the middle of a write is no reason to die
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    pollfd listener{listener_, POLLIN, 0};
    while (!isStopping_) {
        if (::poll(&listener, 1, static_cast<int>(kStopCheck.count())) <= 0) continue;
        const int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (descriptor == -1) continue;
        ++connectionCount_;
        threads_.emplace_back([this, descriptor] {
            Connection connection(descriptor, context_.get(), isStopping_);
            script_(connection);
        });
    }
}

const std::string& TLSServer::certificateAuthority() {
    return authority().pem;
}

std::string TLSServer::address(std::string_view host) const {
    return addressOf(host, port_);
}

std::string refusingAddress() {
    std::uint16_t port = 0;
    ::close(listenOnLoopback(1, port));
    return addressOf("127.0.0.1", port);
}

UnacceptingServer::UnacceptingServer() {
    descriptors_.push_back(listenOnLoopback(0, port_));
    const sockaddr_in address = loopback(port_);
    for (int count = 0; count < 4; ++count) {  // more than the queue holds
        descriptors_.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        [[maybe_unused]] const int pending =
            ::connect(descriptors_.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
}

UnacceptingServer::~UnacceptingServer() {
    for (const int descriptor : descriptors_)
        ::close(descriptor);
}

std::string UnacceptingServer::address() const {
    return addressOf("127.0.0.1", port_);
}

}  // namespace zembra::test
