// Ways in which a request fails, over real TLS on the loopback interface, and what its error then says.

#include <cstdlib>
#include <fstream>

#include <gmock/gmock.h>
#include <zlib.h>

#include <ZembraPlatform/NSJSONSerialization.h>

#include "support/HangingResolver.h"
#include "support/POSTResult.h"
#include "support/TLSServer.h"

namespace zembra::test {
namespace {

using namespace testing;

/// Part of every request here, and of no error.
const std::string kSecret = "c0ffee-s3cret";

/// Makes a fault happen.
using Provoke = std::function<NSErrorPtr()>;

Provoke at(std::string address, std::string path = "token", std::string authorities = "") {
    return [=] {
        const auto client = clientOf(address);
        client->requestSerializer().setValue("Bearer " + kSecret, "Authorization");
        if (!authorities.empty()) client->addTrustedCertificateAuthorityFile(authorities);
        return performPOST(*client, path, Value::dictionary({{"refresh_token", kSecret}})).error;
    };
}

Provoke atServer(Script script, TLSServerOptions options = {}) {
    return [=] {
        const TLSServer server(script, options);
        return at(server.address())();
    };
}

/// At a server with another certificate or another idea of TLS.
Provoke presenting(TLSServerOptions options) {
    return atServer(answering(), std::move(options));
}

/// At a server that writes this to every request, and then `more` without end.
Provoke told(std::string text, std::string more = "") {
    return atServer([=](Connection& connection) {
        bool goesOn = !connection.readRequest().empty() && connection.write(text) && !more.empty();
        while (goesOn)
            goesOn = connection.write(more);
    });
}

/// To a host beyond the proxy at `address`, which the environment names meanwhile.
Provoke byProxy(std::string address) {
    return [=] {
        ::setenv("https_proxy", address.c_str(), 1);
        const NSErrorPtr error = at("https://api.example/")();
        ::unsetenv("https_proxy");
        return error;
    };
}

/// A proxy over TLS, whose certificate an added authority issued, refuses.
Provoke refusedByProxy(int status) {
    return [=] {
        const TLSServer proxy(answering("", "Proxy-Authenticate: Basic\r\n", status));
        return byProxy(proxy.address())();
    };
}

/// More than an answer may have, in some kilobytes.
std::string compressedZeros() {
    const std::vector<Bytef> zeros(std::size_t{17} << 20);
    std::string compressed(std::size_t{1} << 20, '\0');
    uLongf size = compressed.size();
    ::compress(reinterpret_cast<Bytef*>(compressed.data()), &size, zeros.data(), zeros.size());
    return compressed.substr(0, size);
}

/// The system's policy shall not be what refuses old versions of TLS.
void permitOldTLS() {
    const std::string policy = TempDir() + "AFHTTPSessionManagerFaultTests.cnf";
    std::ofstream(policy) << "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\n"
                             "MinProtocol = TLSv1\nCipherString = DEFAULT@SECLEVEL=0\n";
    ::setenv("OPENSSL_CONF", policy.c_str(), 1);
}

TEST(AFHTTPSessionManagerTest, EveryFaultHasItsErrorAndNoneTellsASecret) {
    permitOldTLS();
    const auto stranger = sandbox::makeCertificate({.commonName = "Stranger", .isAuthority = true});
    const std::string okay = "HTTP/1.1 200 OK\r\n"s + kJSON;
    const std::string chunks = okay + "Transfer-Encoding: chunked\r\n\r\n";
    const std::string deflate = kJSON + "Content-Encoding: deflate\r\n"s;
    const std::string megabyte(1 << 20, ' ');
    std::string emptyBlocks;  // of deflate: stored, with no byte in them
    while (emptyBlocks.size() < megabyte.size())
        emptyBlocks.append("\0\0\0\xFF\xFF", 5);

    /// An error, a part of its text, and the faults that have both.
    const struct {
        NSInteger code;
        std::string text;
        std::vector<std::pair<const char*, Provoke>> faults;
    } rows[] = {
        {NSURLErrorBadURL,
         "URL",
         {{"not a URL", at("https://127.0.0.1/", "a\nb")},
          {"base is not a URL", at("api/v1/")},
          {"a user in the URL", at("https://me:" + kSecret + "@127.0.0.1/")}}},
        {NSURLErrorUnsupportedURL, "https", {{"not https", at("http://127.0.0.1/")}}},
        {NSURLErrorSecureConnectionFailed,
         "/nonexistent/ca.pem cannot be read: No such file",
         {{"missing authorities", at("https://127.0.0.1/", "token", "/nonexistent/ca.pem")}}},
        {NSURLErrorSecureConnectionFailed,
         "/proc/self/status",
         {{"unusable authorities", at("https://127.0.0.1/", "token", "/proc/self/status")}}},
        {NSURLErrorCannotFindHost, kUnknownHost, {{"no host", at("https://"s + kUnknownHost + '/')}}},
        {NSURLErrorCannotFindHost, "proxy", {{"no proxy", byProxy("http://"s + kUnknownHost)}}},
        {NSURLErrorCannotConnectToHost, "refused", {{"nothing there", at(TLSServer().address())}}},
        {NSURLErrorCannotConnectToHost,
         "api.example",
         {{"a proxy of no kind", byProxy("foo://user:" + kSecret + "@127.0.0.1:1")}}},
        {NSURLErrorCannotConnectToHost, "a name and a password", {{"proxy's 407", refusedByProxy(407)}}},
        {NSURLErrorCannotConnectToHost, "403", {{"proxy's 403", refusedByProxy(403)}}},
        {NSURLErrorNetworkConnectionLost,
         "was lost",
         {{"no length and half a body", told(okay + "\r\n{\"a\":")},
          {"no length and no end of TLS", told(okay + "\r\n1")},
          {"header cut in a line", told(okay + "Content-Len")},
          {"truncated body", told(okay + "Content-Length: 100\r\n\r\n{")},
          {"truncated chunks", told(chunks + "10\r\n{")},
          // TLS 1.3 refuses a client only after what it takes for a connection.
          {"client certificate, TLS 1.3",
           presenting({.version = TLS1_3_VERSION, .asksForCertificate = true})}}},
        {NSURLErrorBadServerResponse,
         "not valid HTTP",
         {{"another protocol", told("220 ready\r\n")},
          {"two lengths", told(okay + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{} ")},
          {"two encodings", told(okay + "Transfer-Encoding: gzip, chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n")},
          {"wrong chunk size", told(chunks + "ZZ\r\n")},
          {"huge chunk size", told(chunks + "ffffffffffffffff\r\n")},
          {"wrong chunk end", told(chunks + "2\r\n{}xx0\r\n\r\n")},
          {"no field in a trailer", told(chunks + "2\r\n{}\r\n0\r\nX\r\n\r\n")}}},
        {NSURLErrorDataLengthExceedsMaximum,
         "too large",
         {{"body without end", told(okay + "\r\n", megabyte)},
          {"header without end", told(okay, "X-More: and more\r\n")},
          {"header line without end", told(okay + "X-Long: ", megabyte)},
          {"status line without end", told("HTTP/1.1 200 ", megabyte)},
          {"chunk extension without end", told(chunks + "1;more=", megabyte)},
          {"empty compressed blocks without end",
           told("HTTP/1.1 200 OK\r\n" + deflate + "\r\n\x78\x9C", emptyBlocks)},
          {"compressed bomb", atServer(answering(compressedZeros(), deflate))}}},
        {NSURLErrorCannotDecodeContentData,
         "compressed",
         {{"not deflated", atServer(answering("not deflated", deflate))},
          {"unknown encoding", atServer(answering("{}", kJSON + "Content-Encoding: x\r\n"s))}}},
        {NSURLErrorSecureConnectionFailed,
         "secure connection",
         {{"TLS 1.1", presenting({.version = TLS1_1_VERSION})},
          {"no TLS",
           atServer([](Connection& connection) { ::send(connection.descriptor, "220 ready\r\n", 11, 0); })},
          {"client certificate, TLS 1.2",
           presenting({.version = TLS1_2_VERSION, .asksForCertificate = true})}}},
        {NSURLErrorServerCertificateUntrusted,
         "self-signed and not trusted",
         {{"self-signed", presenting({.issuer = nullptr})}}},
        {NSURLErrorServerCertificateHasUnknownRoot,
         "the given text).",
         {{"unknown authority", presenting({.issuer = &stranger})}}},
        {NSURLErrorServerCertificateHasBadDate,
         "expired",
         {{"expired", presenting({.validFrom = -2h, .validUntil = -1h})}}},
        {NSURLErrorServerCertificateNotYetValid,
         "not yet valid",
         {{"not yet valid", presenting({.validFrom = 1h, .validUntil = 2h})}}},
        {NSURLErrorServerCertificateUntrusted,
         "was made for another host",
         {{"another host", presenting({.names = {"DNS:other.example"}})}}},
        {AFHTTPSessionErrorUnacceptableStatus,
         "302",
         {{"redirect", atServer(answering("", "Location: /elsewhere\r\n", 302))}}},
        {AFHTTPSessionErrorUnacceptableContentType,
         "content type",
         {{"two content types", atServer(answering("{}", kJSON + "Content-Type: a/b\r\n"s))}}},
    };
    for (const auto& [code, text, faults] : rows) {
        for (const auto& [name, provoke] : faults) {
            SCOPED_TRACE(name);
            const NSErrorPtr error = provoke();
            ASSERT_TRUE(error);
            EXPECT_EQ(error->domain(), code < 0 ? NSURLErrorDomain : AFHTTPSessionErrorDomain);
            EXPECT_EQ(error->code(), code) << *error;
            EXPECT_THAT(PrintToString(*error) + NSJSONSerialization::dataWithJSONObject(error->userInfo()),
                        AllOf(HasSubstr(text), Not(HasSubstr(kSecret))));
            const Value& response = error->userInfo()[AFNetworkingOperationFailingURLResponseErrorKey];
            if (const auto answer = response.as<NSHTTPURLResponse>()) {
                EXPECT_THAT(answer->URL().absoluteString(), EndsWith("/token"));
            }
        }
    }
}

TEST(AFHTTPSessionManagerTest, ARefusedHeaderIsNamedAndNothingIsSent) {
    const TLSServer server;
    const auto client = clientOf(server.address());
    const auto causeOfRefusal = [&](const std::string& name, const std::string& value) {
        client->requestSerializer().setValue(value, name);
        const POSTResult result = performPOST(*client);
        client->requestSerializer().setValue(std::nullopt, name);
        EXPECT_TRUE(result.isFailure(AFHTTPSessionErrorHeaderRefused, AFHTTPSessionErrorDomain)) << name;
        EXPECT_THAT(result.error->localizedDescription(), Not(HasSubstr(kSecret)));
        const auto cause = result.error->userInfo()[NSUnderlyingErrorKey].as<NSError>();
        EXPECT_EQ(cause->code(), AFHTTPSessionErrorInvalidHeader);
        return cause->localizedDescription();
    };
    const auto isFitForALog = AllOf(Not(HasSubstr(kSecret)), Each(Ge(' ')), SizeIs(Lt(200)));
    for (const char control : "\r\n\t\x1F\x7F")  // and a zero byte
        EXPECT_THAT(causeOfRefusal("X-Token", kSecret + control),
                    AllOf(HasSubstr("value"), HasSubstr("X-Token"), isFitForALog));
    for (const std::string& name : {""s, "X Y"s, "X:Y"s, "X\r\nY"s, "X\x7F"s, std::string(1000, ' ')})
        EXPECT_THAT(causeOfRefusal(name, kSecret), AllOf(HasSubstr("name"), isFitForALog));
    EXPECT_THAT(causeOfRefusal("X\xC3\xA9", kSecret), HasSubstr("name"));
    EXPECT_EQ(server.connectionCount(), 0);
    client->requestSerializer().setValue("h\xC3\xA9", "X-Token");
    EXPECT_TRUE(performPOST(*client).isSuccess());
}

}  // namespace
}  // namespace zembra::test
