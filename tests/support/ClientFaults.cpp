#include "support/ClientFaults.h"

#include <chrono>
#include <utility>

#include "support/HangingResolver.h"
#include "support/Outcome.h"
#include "support/TLSServer.h"

namespace zembra::test {

namespace {

using namespace std::chrono_literals;
using Configure = std::function<void(AFHTTPSessionManager&)>;

NSErrorPtr failureAt(const std::string& address, std::string_view path, const Configure& configure) {
    AFHTTPSessionManager client(NSURL::URLWithString(address));
    client.requestSerializer().setTimeoutInterval(20s);
    client.requestSerializer().setValue(std::string("Bearer ") + kSecret, "Authorization");
    if (configure) configure(client);
    return performPOST(client, path, Value::dictionary({{"refresh_token", kSecret}})).error;
}

/// Against a server with that script. `trusts` says whether the client knows its authority.
std::function<NSErrorPtr()> atServer(TLSServer::Script script, Configure configure = nullptr,
                                     TLSServer::Options options = {}, bool trusts = true,
                                     std::string host = "127.0.0.1") {
    return [=] {
        TLSServer server(script, options);
        return failureAt(server.address(host), "token", [&](AFHTTPSessionManager& client) {
            if (trusts) client.addTrustedCertificateAuthority(server.certificateAuthority());
            if (configure) configure(client);
        });
    };
}

std::function<NSErrorPtr()> atAddress(std::string address, std::string path = "token",
                                      Configure configure = nullptr) {
    return [=] { return failureAt(address, path, configure); };
}

/// A server that reads the request and writes `answer`.
TLSServer::Script says(std::string answer) {
    return [=](Connection& connection) {
        if (connection.handshake() && !connection.readRequest().empty()) connection.write(answer);
    };
}

TLSServer::Script answers(std::string body, std::string fields, int status) {
    return [=](Connection& connection) {
        if (connection.handshake() && !connection.readRequest().empty())
            connection.answer(body, fields, status);
    };
}

/// A server that writes `start` and then `more` without end.
TLSServer::Script saysForever(std::string start, std::string more) {
    return [=](Connection& connection) {
        if (!connection.handshake() || connection.readRequest().empty() || !connection.write(start)) return;
        while (connection.write(more)) {
        }
    };
}

TLSServer::Options certificate(sandbox::CertificateProfile profile) {
    TLSServer::Options options;
    profile.commonName = options.profile.commonName;
    if (profile.alternativeNames.empty()) profile.alternativeNames = options.profile.alternativeNames;
    options.profile = std::move(profile);
    return options;
}

void handshakeOnly(Connection& connection) {
    connection.handshake();
}

}  // namespace

std::string compressedZeros(std::size_t size) {
    // One block with deflate's fixed codes: a zero byte, then copies of 258 bytes from one byte back.
    std::string bits =
        "110"
        "00110000";
    for (std::size_t count = 1; count < size; count += 258)
        bits +=
            "11000101"
            "00000";
    bits += "0000000";
    std::string stream = {'\x1F', '\x8B', 8, 0, 0, 0, 0, 0, 0, 3};
    for (std::size_t index = 0; index < bits.size(); index += 8) {
        unsigned byte = 0;
        for (std::size_t bit = 0; bit < 8 && index + bit < bits.size(); ++bit)
            byte |= (bits[index + bit] == '1' ? 1u : 0u) << bit;
        stream += static_cast<char>(byte);
    }
    return stream;
}

std::vector<ClientFault> clientFaults() {
    const std::string json = "Content-Type: application/json\r\n";
    const std::string okay = "HTTP/1.1 200 OK\r\n" + json;
    const std::string domain = NSURLErrorDomain;
    const std::string own = AFHTTPSessionErrorDomain;
    const std::string megabyte(1 << 20, ' ');
    TLSServer::Options selfSigned;
    selfSigned.isSelfSigned = true;
    TLSServer::Options oldTLS;
    oldTLS.isTLS11Only = true;
    const auto sets = [](std::string name, std::string value) -> Configure {
        return [=](AFHTTPSessionManager& client) { client.requestSerializer().setValue(value, name); };
    };
    const auto trustsFile = [](std::string file) -> Configure {
        return [=](AFHTTPSessionManager& client) { client.addTrustedCertificateAuthorityFile(file); };
    };
    const std::string bomb = compressedZeros(std::size_t{17} << 20);

    return {
        {"not a URL", domain, NSURLErrorBadURL, "URL", atAddress("https://127.0.0.1/", "a\nb")},
        {"base is not a URL", domain, NSURLErrorBadURL, "URL", atAddress("api/v1/")},
        {"a user in the URL", domain, NSURLErrorBadURL, "URL",
         atAddress(std::string("https://me:") + kSecret + "@127.0.0.1/")},
        {"not https", domain, NSURLErrorUnsupportedURL, "https", atAddress("http://127.0.0.1/")},
        {"another scheme", domain, NSURLErrorUnsupportedURL, "https", atAddress("file:///etc/", "passwd")},
        {"missing CA file", domain, NSURLErrorSecureConnectionFailed, "/nonexistent/ca.pem",
         atAddress("https://127.0.0.1/", "token", trustsFile("/nonexistent/ca.pem"))},
        {"CA file that is none", domain, NSURLErrorSecureConnectionFailed, "/proc/self/status",
         atAddress("https://127.0.0.1/", "token", trustsFile("/proc/self/status"))},
        {"line break in a header value", own, AFHTTPSessionErrorHeaderRefused, "header",
         atAddress("https://127.0.0.1/", "token", sets("X-Value", std::string(kSecret) + "\r\nX-Evil: 1"))},
        {"control character in a header name", own, AFHTTPSessionErrorHeaderRefused, "header",
         atAddress("https://127.0.0.1/", "token", sets("X-Bad\x01", kSecret))},

        {"unknown host", domain, NSURLErrorCannotFindHost, kUnknownHost,
         atAddress(std::string("https://") + kUnknownHost + '/')},
        {"refused connection", domain, NSURLErrorCannotConnectToHost, "127.0.0.1",
         [] { return failureAt(refusingAddress(), "token", nullptr); }},
        {"silence", domain, NSURLErrorTimedOut, "waiting for the answer",
         atServer(
             [](Connection& connection) {
                 if (connection.handshake()) connection.hold();
             },
             [](AFHTTPSessionManager& client) { client.requestSerializer().setTimeoutInterval(200ms); })},
        {"reset", domain, NSURLErrorNetworkConnectionLost, "lost", atServer([](Connection& connection) {
             if (connection.handshake() && !connection.readRequest().empty()) connection.reset();
         })},
        {"end without an answer", domain, NSURLErrorNetworkConnectionLost, "lost", atServer(says(""))},
        {"truncated body", domain, NSURLErrorNetworkConnectionLost, "lost",
         atServer(says(okay + "Content-Length: 100\r\n\r\n{"))},
        {"truncated chunks", domain, NSURLErrorNetworkConnectionLost, "lost",
         atServer(says(okay + "Transfer-Encoding: chunked\r\n\r\n10\r\n{"))},
        {"no HTTP", domain, NSURLErrorBadServerResponse, "not valid HTTP", atServer(says("220 ready\r\n"))},
        {"body without end", domain, NSURLErrorDataLengthExceedsMaximum, "too large",
         atServer(saysForever(okay + "\r\n", megabyte))},
        {"header without end", domain, NSURLErrorDataLengthExceedsMaximum, "too large",
         atServer(saysForever(okay, "X-More: and more\r\n"))},
        {"header line without end", domain, NSURLErrorDataLengthExceedsMaximum, "too large",
         atServer(saysForever(okay + "X-Long: ", megabyte))},
        {"compressed bomb", domain, NSURLErrorDataLengthExceedsMaximum, "too large",
         atServer(answers(bomb, json + "Content-Encoding: gzip\r\n", 200))},
        {"broken compression", domain, NSURLErrorCannotDecodeContentData, "compressed",
         atServer(answers("no gzip", json + "Content-Encoding: gzip\r\n", 200))},

        {"TLS 1.1", domain, NSURLErrorSecureConnectionFailed, "secure connection",
         atServer(handshakeOnly, nullptr, oldTLS)},
        {"no TLS", domain, NSURLErrorSecureConnectionFailed, "secure connection",
         atServer([](Connection& connection) {
             [[maybe_unused]] const auto count = ::write(connection.descriptor(), "220 ready\r\n", 11);
         })},
        {"self-signed", domain, NSURLErrorServerCertificateUntrusted, "self-signed",
         atServer(handshakeOnly, nullptr, selfSigned)},
        {"unknown authority", domain, NSURLErrorServerCertificateHasUnknownRoot, "unknown authority",
         atServer(handshakeOnly, nullptr, {}, false)},
        {"expired", domain, NSURLErrorServerCertificateHasBadDate, "expired",
         atServer(handshakeOnly, nullptr, certificate({.validFrom = -2h, .validUntil = -1h}))},
        {"not yet valid", domain, NSURLErrorServerCertificateNotYetValid, "not yet valid",
         atServer(handshakeOnly, nullptr, certificate({.validFrom = 1h, .validUntil = 2h}))},
        {"certificate of another host", domain, NSURLErrorServerCertificateUntrusted, "127.0.0.1",
         atServer(handshakeOnly, nullptr, certificate({.alternativeNames = {"DNS:other.example"}}))},

        {"401", own, AFHTTPSessionErrorUnacceptableStatus, "401", atServer(answers("{}", json, 401))},
        {"500", own, AFHTTPSessionErrorUnacceptableStatus, "500", atServer(answers("", "", 500))},
        {"redirect", own, AFHTTPSessionErrorUnacceptableStatus, "302",
         atServer(answers("", "Location: /elsewhere\r\n", 302))},
        {"another content type", own, AFHTTPSessionErrorUnacceptableContentType, "content type",
         atServer(answers("{}", "Content-Type: text/html\r\n", 200))},
        {"no content type", own, AFHTTPSessionErrorUnacceptableContentType, "content type",
         atServer(answers("{}", "", 200))},
        {"not JSON", own, AFHTTPSessionErrorCannotDecodeBody, "JSON", atServer(answers("<p>", json, 200))},
    };
}

}  // namespace zembra::test
