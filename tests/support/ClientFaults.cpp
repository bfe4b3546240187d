#include "support/ClientFaults.h"

#include <chrono>
#include <map>
#include <utility>

#include <sys/socket.h>
#include <zlib.h>

#include "support/HangingResolver.h"
#include "support/Outcome.h"
#include "support/TLSServer.h"

namespace zembra::test {

namespace {

using Provoke = std::function<NSErrorPtr()>;
using Configure = std::function<void(AFHTTPSessionManager&)>;

Provoke atAddress(std::string address, std::string path = "token", Configure configure = nullptr) {
    return [=] {
        const auto client = clientOf(address);
        client->requestSerializer().setValue("Bearer "s + kSecret, "Authorization");
        if (configure) configure(*client);
        return performPOST(*client, path, Value::dictionary({{"refresh_token", kSecret}})).error;
    };
}

Provoke withAuthorities(std::string file) {
    return atAddress("https://127.0.0.1/", "token",
                     [=](AFHTTPSessionManager& client) { client.addTrustedCertificateAuthorityFile(file); });
}

Provoke atServer(Script script, Configure configure = nullptr, TLSServerOptions options = {}) {
    return [=] {
        const TLSServer server(script, options);
        return atAddress(server.address(), "token", configure)();
    };
}

Provoke presenting(TLSServerOptions options) {
    return atServer(answering(), nullptr, std::move(options));
}

/// Writes `start` and then `more` without end.
Script sayingForever(std::string start, std::string more) {
    return [=](Connection& connection) {
        bool goesOn = !connection.readRequest().empty() && connection.write(start);
        while (goesOn)
            goesOn = connection.write(more);
    };
}

/// More than an answer may have, in some kilobytes.
std::string compressedZeros() {
    const std::vector<Bytef> zeros(std::size_t{17} << 20);
    std::vector<Bytef> compressed(zeros.size());
    uLongf size = compressed.size();
    ::compress(compressed.data(), &size, zeros.data(), zeros.size());
    return {compressed.begin(), compressed.begin() + static_cast<std::ptrdiff_t>(size)};
}

}  // namespace

std::vector<ClientFault> clientFaults() {
    const std::string okay = "HTTP/1.1 200 OK\r\n"s + kJSON;
    const std::string compressed = kJSON + "Content-Encoding: deflate\r\n"s;
    const std::string megabyte(1 << 20, ' ');
    std::string emptyBlocks;  // of deflate: stored, with no byte in them
    while (emptyBlocks.size() < megabyte.size())
        emptyBlocks.append("\0\0\0\xFF\xFF", 5);
    static const auto stranger = sandbox::makeCertificate({.commonName = "Stranger", .isAuthority = true});

    std::vector<ClientFault> faults;
    /// The text holds the fault's own name unless there is another.
    const auto add = [&](auto code, std::map<std::string, Provoke> some, std::string text = "") {
        const bool isNetwork = std::is_same_v<decltype(code), NSURLErrorCode>;
        const char* const domain = isNetwork ? NSURLErrorDomain : AFHTTPSessionErrorDomain;
        for (const auto& [name, provoke] : some)
            faults.push_back({name, domain, code, text.empty() ? name : text, provoke});
    };

    add(NSURLErrorBadURL,
        {{"not a URL", atAddress("https://127.0.0.1/", "a\nb")},
         {"base is not a URL", atAddress("api/v1/")},
         {"a user in the URL", atAddress("https://me:"s + kSecret + "@127.0.0.1/")}},
        "URL");
    add(NSURLErrorUnsupportedURL,
        {{"not https", atAddress("http://127.0.0.1/")}, {"another scheme", atAddress("file:///etc/")}},
        "https");
    for (const char* const file : {"/nonexistent/ca.pem", "/proc/self/status"})
        add(NSURLErrorSecureConnectionFailed, {{file, withAuthorities(file)}});
    add(NSURLErrorCannotFindHost, {{kUnknownHost, atAddress("https://"s + kUnknownHost + '/')}});
    add(NSURLErrorCannotConnectToHost, {{"127.0.0.1", atAddress(refusingAddress())}});
    add(NSURLErrorTimedOut,
        {{"waiting for the answer", atServer(&Connection::stall, [](AFHTTPSessionManager& client) {
              client.requestSerializer().setTimeoutInterval(200ms);
          })}});
    add(NSURLErrorNetworkConnectionLost,
        {{"reset", atServer([](Connection& connection) {
              connection.readRequest();
              connection.reset();
          })},
         {"end without an answer", atServer(saying(""))},
         {"truncated body", atServer(saying(okay + "Content-Length: 100\r\n\r\n{"))},
         {"truncated chunks", atServer(saying(okay + "Transfer-Encoding: chunked\r\n\r\n10\r\n{"))}},
        "lost");
    add(NSURLErrorBadServerResponse, {{"not valid HTTP", atServer(saying("220 ready\r\n"))}});
    add(NSURLErrorDataLengthExceedsMaximum,
        {{"body without end", atServer(sayingForever(okay + "\r\n", megabyte))},
         {"header without end", atServer(sayingForever(okay, "X-More: and more\r\n"))},
         {"header line without end", atServer(sayingForever(okay + "X-Long: ", megabyte))},
         {"chunk extension without end",
          atServer(sayingForever(okay + "Transfer-Encoding: chunked\r\n\r\n1;more=", megabyte))},
         {"empty compressed blocks without end",
          atServer(sayingForever("HTTP/1.1 200 OK\r\n" + compressed + "\r\n\x78\x9C", emptyBlocks))},
         {"compressed bomb", atServer(answering(compressedZeros(), compressed))}},
        "too large");
    add(NSURLErrorCannotDecodeContentData, {{"compressed", atServer(answering("not deflated", compressed))}});

    add(NSURLErrorSecureConnectionFailed,
        {{"TLS 1.1", presenting({.isTLS11Only = true})},
         {"no TLS",
          atServer([](Connection& connection) { ::send(connection.descriptor, "220 ready\r\n", 11, 0); })}},
        "secure connection");
    add(NSURLErrorServerCertificateUntrusted, {{"self-signed", presenting({.issuer = nullptr})}});
    add(NSURLErrorServerCertificateHasUnknownRoot,
        {{"unknown authority", presenting({.issuer = &stranger})}});
    add(NSURLErrorServerCertificateHasBadDate,
        {{"expired", presenting({.validFrom = -2h, .validUntil = -1h})}});
    add(NSURLErrorServerCertificateNotYetValid,
        {{"not yet valid", presenting({.validFrom = 1h, .validUntil = 2h})}});
    add(NSURLErrorServerCertificateUntrusted,
        {{"another host", presenting({.names = {"DNS:other.example"}})}}, "127.0.0.1");

    add(AFHTTPSessionErrorUnacceptableStatus, {{"401", atServer(answering("{}", kJSON, 401))}});
    add(AFHTTPSessionErrorUnacceptableStatus,
        {{"redirect", atServer(answering("", "Location: /elsewhere\r\n", 302))}}, "302");
    add(AFHTTPSessionErrorUnacceptableContentType,
        {{"content type", atServer(answering("{}", "Content-Type: text/html\r\n"))}});
    add(AFHTTPSessionErrorCannotDecodeBody, {{"JSON", atServer(answering("<p>"))}});
    return faults;
}

}  // namespace zembra::test
