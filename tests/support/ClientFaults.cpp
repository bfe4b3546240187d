#include "support/ClientFaults.h"

#include <chrono>
#include <cstdlib>
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

/// To a host beyond the proxy at `address`, which the environment names meanwhile.
Provoke byProxy(std::string address) {
    return [=] {
        ::setenv("https_proxy", address.c_str(), 1);
        const NSErrorPtr error = atAddress("https://api.example/")();
        ::unsetenv("https_proxy");
        return error;
    };
}

/// A proxy over TLS, whose certificate an added authority issued.
Provoke atProxy(Script script) {
    return [=] {
        const TLSServer proxy(script);
        return byProxy(proxy.address())();
    };
}

/// A gzip file.
std::string gzip(const std::string& text) {
    constexpr int kGzipWindow = 15 + 16;
    z_stream stream{};
    ::deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, kGzipWindow, 8, Z_DEFAULT_STRATEGY);
    std::vector<Bytef> in(text.begin(), text.end()), out(::deflateBound(&stream, text.size()));
    stream.next_in = in.data();
    stream.avail_in = static_cast<uInt>(in.size());
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    ::deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    ::deflateEnd(&stream);
    return {out.begin(), out.end()};
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
    add(NSURLErrorCannotConnectToHost, {{"127.0.0.1", atAddress(refusingAddress())},
                                        {"api.example", byProxy("foo://user:"s + kSecret + "@127.0.0.1:1")}});
    add(NSURLErrorCannotConnectToHost,
        {{"a name and a password", atProxy(answering("", "Proxy-Authenticate: Basic\r\n", 407))},
         {"403", atProxy(answering("", "", 403))}});
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
         {"header cut after a line", atServer(saying("HTTP/1.1 401 No\r\n"))},
         {"header cut in a line", atServer(saying(okay + "Content-Len"))},
         {"no length and half a body", atServer(saying(okay + "\r\n{\"a\":"))},
         {"no length and no end of TLS", atServer(saying(okay + "\r\n1"))},
         {"truncated body", atServer(saying(okay + "Content-Length: 100\r\n\r\n{"))},
         {"truncated chunks", atServer(saying(okay + "Transfer-Encoding: chunked\r\n\r\n10\r\n{"))}},
        "lost");
    const std::string chunks = okay + "Transfer-Encoding: chunked\r\n\r\n";
    add(NSURLErrorBadServerResponse,
        {{"another protocol", atServer(saying("220 ready\r\n"))},
         {"two lengths", atServer(saying(okay + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{} "))},
         {"two encodings",
          atServer(saying(okay + "Transfer-Encoding: gzip, chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n"))},
         {"folded start", atServer(saying("HTTP/1.1 200 OK\r\n X: y\r\nContent-Length: 0\r\n\r\n"))},
         {"zero byte", atServer(saying(okay + "X: a" + '\0' + "b\r\nContent-Length: 0\r\n\r\n"))},
         {"wrong chunk size", atServer(saying(chunks + "ZZ\r\n"))},
         {"huge chunk size", atServer(saying(chunks + "ffffffffffffffff\r\n"))},
         {"wrong chunk end", atServer(saying(chunks + "2\r\n{}xx0\r\n\r\n"))},
         {"zero byte in a trailer", atServer(saying(chunks + "2\r\n{}\r\n0\r\nX: a" + '\0' + "b\r\n\r\n"))},
         {"no field in a trailer", atServer(saying(chunks + "2\r\n{}\r\n0\r\nX\r\n\r\n"))}},
        "not valid HTTP");
    add(NSURLErrorDataLengthExceedsMaximum,
        {{"body without end", atServer(sayingForever(okay + "\r\n", megabyte))},
         {"header without end", atServer(sayingForever(okay, "X-More: and more\r\n"))},
         {"header line without end", atServer(sayingForever(okay + "X-Long: ", megabyte))},
         {"status line without end", atServer(sayingForever("HTTP/1.1 200 ", megabyte))},
         {"chunk extension without end",
          atServer(sayingForever(okay + "Transfer-Encoding: chunked\r\n\r\n1;more=", megabyte))},
         {"empty compressed blocks without end",
          atServer(sayingForever("HTTP/1.1 200 OK\r\n" + compressed + "\r\n\x78\x9C", emptyBlocks))},
         {"compressed bomb", atServer(answering(compressedZeros(), compressed))}},
        "too large");
    const std::string gzipped = kJSON + "Content-Encoding: gzip\r\n"s;
    add(NSURLErrorCannotDecodeContentData,
        {{"not deflated", atServer(answering("not deflated", compressed))},
         {"two members", atServer(answering(gzip("{") + gzip("}"), gzipped))},
         {"unknown encoding", atServer(answering("{}", kJSON + "Content-Encoding: x\r\n"s))}},
        "compressed");

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
