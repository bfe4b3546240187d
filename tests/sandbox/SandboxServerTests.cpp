#include <chrono>
#include <csignal>
#include <map>
#include <thread>

#include <ZembraSandbox/Certificates.h>
#include <ZembraSandbox/SandboxServer.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <unistd.h>

#include "ZembraSandbox/Outcomes.h"
#include "sandbox/Peer.h"

namespace zembra::sandbox {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

std::string percentEncoded(std::string_view text) {
    std::string result;
    for (const char character : text) {
        char code[4];
        std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(character));
        result += code;
    }
    return result;
}

class SandboxServerTest : public testing::Test {
protected:
    Reply post(const std::string& path, const std::string& form, std::vector<std::string> headers = {},
               long timeoutMilliseconds = 20000) {
        return send({.url = server_.baseAddress() + path,
                     .authority = server_.certificateAuthority(),
                     .form = form,
                     .headers = std::move(headers),
                     .timeoutMilliseconds = timeoutMilliseconds});
    }
    Reply registerClient(const std::string& client, long timeoutMilliseconds = 20000) {
        return post("app/token", "client_id=" + client + "&signature=com.example.host", {},
                    timeoutMilliseconds);
    }
    Reply refresh(const std::string& encodedToken, long timeoutMilliseconds = 20000) {
        return post("app/members/token", "refresh_token=" + encodedToken, {bearer()}, timeoutMilliseconds);
    }
    std::string appToken(const std::string& client = "sandbox.demo") {
        return json::parse(registerClient(client).body)["token"];
    }
    std::string bearer() {
        if (bearer_.empty()) bearer_ = "Authorization: Bearer " + appToken();
        return bearer_;
    }
    Exchange last() { return server_.exchanges().back(); }

    SandboxServer server_;
    std::string bearer_;
};

TEST_F(SandboxServerTest, RegistersClients) {
    const Reply first = registerClient("some-client");
    const Reply second = registerClient("some-client");
    const json one = json::parse(first.body);
    const json two = json::parse(second.body);
    EXPECT_EQ(one["account_id"], two["account_id"]) << "it belongs to the client identifier";
    EXPECT_NE(one["account_id"], json::parse(registerClient("another-client").body)["account_id"]);
    EXPECT_NE(one["token"], two["token"]) << "it is new each time";
}

/// `text` with `by` in place of `start` and the hexadecimal digits behind it.
std::string replaced(std::string text, const std::string& start, const std::string& by) {
    const std::size_t at = text.find(start);
    if (at == std::string::npos) return text;
    return text.replace(at, text.find_first_not_of("0123456789abcdef", at + start.size()) - at, by);
}

TEST_F(SandboxServerTest, RehearsesTheOutcomesOfItsTables) {
    const auto check = [](std::span<const Outcome> outcomes, const std::string& object,
                          const auto& exchange) {
        for (const Outcome& outcome : outcomes) {
            SCOPED_TRACE(outcome.value);
            const Delivery delivery = outcome.delivery;
            const Reply reply =
                exchange(std::string(outcome.value), delivery == Delivery::never ? 300 : 20000);
            const std::map<Delivery, CURLcode> codes{{Delivery::never, CURLE_OPERATION_TIMEDOUT},
                                                     {Delivery::truncated, CURLE_PARTIAL_FILE},
                                                     {Delivery::reset, CURLE_RECV_ERROR}};
            EXPECT_EQ(reply.code, codes.contains(delivery) ? codes.at(delivery) : CURLE_OK);
            EXPECT_EQ(reply.status, outcome.status);
            EXPECT_EQ(reply.contentType, outcome.status == 0 ? "" : outcome.contentType);
            EXPECT_GE(reply.seconds, delivery == Delivery::late ? 1.4 : 0);
            const std::string body =
                replaced(replaced(replaced(reply.body, "app-", "%t"), "member-", "%t"), "account-", "%a");
            std::string expected = replaced(std::string(outcome.body), "%o", object);
            if (outcome.status == 0) expected.clear();
            if (delivery == Delivery::truncated) expected.resize(body.size());
            EXPECT_EQ(body, expected);
            EXPECT_EQ(body.empty(), outcome.status == 0 || outcome.body.empty());
        }
    };
    check(clientIdentifierOutcomes(), R"({"token": "%t", "account_id": "%a"})",
          [&](const std::string& value, long timeout) { return registerClient(value, timeout); });
    check(refreshTokenOutcomes(), R"({"token": "%t"})",
          [&](const std::string& value, long timeout) { return refresh(value, timeout); });
}

TEST_F(SandboxServerTest, RefusesWhatIsNotExactlyRight) {
    struct Request {
        std::string path = "app/token";
        std::string form = "client_id=a&signature=b";
        std::string method = "POST";
        std::vector<std::string> headers = {};
    };
    const auto refuses = [this](const Request& request, int status, const std::string& message) {
        SCOPED_TRACE(request.method + " " + request.path + " " + request.form.substr(0, 100));
        const std::size_t before = server_.exchangeCount();
        const Reply reply = send({.url = server_.baseAddress("localhost") + request.path,
                                  .authority = server_.certificateAuthority(),
                                  .form = request.form,
                                  .method = request.method,
                                  .headers = request.headers});
        EXPECT_EQ(reply.status, status);
        EXPECT_EQ(reply.contentType, "application/json");
        const json body = json::parse(reply.body, nullptr, false);
        ASSERT_TRUE(body.is_object()) << reply.body;
        EXPECT_TRUE(body["error"].is_string());
        EXPECT_THAT(body.value("message", ""), HasSubstr(message));
        EXPECT_EQ(reply.headers.find("Allow: POST") != std::string::npos, status == 405);
        EXPECT_EQ(server_.exchangeCount(), before + 1);
        EXPECT_EQ(last().status, status);
    };
    for (const char* path : {"", "app/token/", "app%2Ftoken"})
        refuses({.path = path}, 404, "nothing at this path");
    for (const char* method : {"GET", "PUT"})
        refuses({.method = method}, 405, "POST only");
    refuses({.path = "app/members/token", .method = "DELETE"}, 405, "POST only");
    refuses({.method = "FETCH"}, 400, "not well-formed HTTP");
    refuses({.path = "app/token?client_id=a"}, 400, "query");
    const std::string type = "Content-Type: application/x-www-form-urlencoded";
    for (const char* header : {"Content-Type: application/json", "Content-Type:", type.c_str()})
        refuses({.headers = {header, header}}, 400, "content type");
    const std::string multipart = "--x\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nb\r\n--x--\r\n";
    refuses({.form = multipart, .headers = {"Content-Type: multipart/form-data; boundary=x"}}, 400,
            "content type");
    for (const auto& [form, message] : std::initializer_list<std::pair<const char*, const char*>>{
             {"", "client_id is missing"},
             {"client_id=a", "signature is missing"},
             {"client_id=&signature=b", "client_id is empty"},
             {"client_id=a&signature=b&client_id=a", "client_id is repeated"},
             {"client_id=a&signature=b&more=c", "unknown parameter"}})
        refuses({.form = form}, 400, message);
    for (const char* form :
         {"client_id=a&", "client_id=a&&signature=b", "client_id=a&=b", "client_id=a&signature",
          "client_id=a%&signature=b", "client_id=a&signature=b%4", "client_id=a%g0&signature=b",
          "client_id=a b&signature=b", "client_id=a&signature=\xC3\xA4", "client_id=a&signature=b\n"})
        refuses({.form = form}, 400, "well-formed form");
    refuses({"app/members/token", "", "POST", {bearer()}}, 400, "refresh_token is missing");
    refuses({"app/members/token", "refresh_token=", "POST", {bearer()}}, 400, "unknown");
    refuses({.form = std::string(17 << 20, 'x')}, 413, "too large");
}

TEST_F(SandboxServerTest, TakesAnyBytesAsAValue) {
    std::string allBytes;
    for (int byte = 0; byte < 1 << 20; ++byte)
        allBytes += static_cast<char>(byte);
    for (const std::string& value : {allBytes, std::string()}) {
        server_.acceptRefreshToken(value);
        EXPECT_EQ(refresh(percentEncoded(value)).status, 200);
        EXPECT_TRUE(last().parameters == (Fields{{"refresh_token", value}})) << last();
    }
    EXPECT_EQ(post("app/token", "signature=&client_id=a+b%2Bc%20d%3d").status, 200)
        << "any order, an empty signature";
    EXPECT_EQ(last().parameter("client_id"), "a b+c d=");
}

TEST_F(SandboxServerTest, RefreshesOnlyWithAnAppTokenInForce) {
    const std::string first = appToken();
    const std::string second = appToken();
    const auto refreshWith = [&](std::vector<std::string> headers) {
        return post("app/members/token", "refresh_token=sandbox.member", std::move(headers));
    };
    for (const std::string& token : {second, first, first}) {
        EXPECT_EQ(refreshWith({"Authorization: Bearer " + token}).status, 200);
    }
    const std::string memberToken = json::parse(refresh("sandbox.member").body)["token"];
    for (const std::vector<std::string>& headers : std::vector<std::vector<std::string>>{
             {},
             {"Authorization: Bearer app-0"},
             {"Authorization: Bearer;"},
             {"Authorization: " + first},
             {"Authorization: Bearer  " + first},
             {"Authorization: Bearer " + first + "0"},
             {"Authorization: Bearer " + memberToken},
             {"Authorization: Bearer " + first, "Authorization: Bearer " + first},
             {"Authorization: Bearer " + appToken("sandbox.forgotten")}}) {
        const Reply reply = refreshWith(headers);
        EXPECT_EQ(reply.status, 401) << testing::PrintToString(headers);
        EXPECT_THAT(reply.headers, HasSubstr("WWW-Authenticate: Bearer"));
    }
}

TEST_F(SandboxServerTest, LogsExchangesAsTheyWereAndPrintsNoSecret) {
    const std::string token = appToken("a%0Ab");
    EXPECT_EQ(last().method, "POST");
    EXPECT_EQ(last().target, "/api/v1/app/token");
    EXPECT_EQ(last().parameter("client_id"), "a\nb");
    EXPECT_EQ(last().parameter("no such"), std::nullopt);
    EXPECT_EQ(last().header("content-length"), "42");
    EXPECT_EQ(last().header("REMOTE_ADDR"), std::nullopt);
    EXPECT_EQ(json::parse(last().answer)["token"], token);
    EXPECT_THAT(
        last().line,
        AllOf(HasSubstr("POST /api/v1/app/token"), HasSubstr("client_id=a\\x0ab, signature=com.example.host"),
              HasSubstr(R"(200 {"token": "****", "account_id": "account-)"), Not(HasSubstr(token))));

    server_.acceptRefreshToken("secret-token");
    const Reply reply =
        post("app/members/token", "refresh_token=secret-token",
             {"Authorization: Bearer " + token, "X-Api-Key: secret-key", "X-SDK-Version: iOS v1 Core"});
    EXPECT_EQ(last().header("authorization"), "Bearer " + token);
    EXPECT_EQ(last().parameter("refresh_token"), "secret-token");
    EXPECT_THAT(last().line,
                AllOf(HasSubstr("Authorization: ****"), HasSubstr("X-SDK-Version: iOS v1 Core"),
                      HasSubstr("refresh_token=****"), Not(HasSubstr(token)),
                      Not(HasSubstr(json::parse(reply.body)["token"])), Not(HasSubstr("secret"))));

    post("app/token?token=secret", "secret=secret", {"Cookie: secret"});
    EXPECT_EQ(last().target, "/api/v1/app/token?token=secret");
    EXPECT_THAT(last().line, AllOf(HasSubstr("/api/v1/app/token?****"), HasSubstr("secret=****"),
                                   Not(HasSubstr("=secret"))));
    refresh("sandbox.expired");
    EXPECT_THAT(last().line, HasSubstr("refresh_token=sandbox.expired")) << "no secret";
}

TEST(SandboxServerLifeTest, StopsWithinAMomentWhateverIsPending) {
    SandboxServer server;
    EXPECT_FALSE(server.waitForExchanges(1, 0ms));
    // A connection that never says anything, then requests that are never answered.
    const int mute = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(mute, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    std::vector<std::thread> clients;
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back([&] {
            const Reply reply = send({.url = server.baseAddress() + "app/token",
                                      .authority = server.certificateAuthority(),
                                      .form = "client_id=sandbox.silent&signature=a"});
            EXPECT_NE(reply.code, CURLE_OK);
            EXPECT_NE(reply.code, CURLE_OPERATION_TIMEDOUT);
        });
    }
    EXPECT_TRUE(server.waitForExchanges(8, 20s));
    const auto start = std::chrono::steady_clock::now();
    server.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    for (std::thread& client : clients)
        client.join();
    close(mute);

    server.stop();
    EXPECT_EQ(server.exchanges().size(), 8u);
    EXPECT_EQ(send({.url = server.baseAddress()}).code, CURLE_COULDNT_CONNECT);
}

TEST(SandboxServerLifeTest, LeavesTheProcessAsItWas) {
    struct sigaction before;
    struct sigaction after;
    sigset_t maskBefore;
    sigset_t maskAfter;
    sigaction(SIGPIPE, nullptr, &before);
    pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore);
    const SandboxServer server;
    sigaction(SIGPIPE, nullptr, &after);
    pthread_sigmask(SIG_SETMASK, nullptr, &maskAfter);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        EXPECT_EQ(sigismember(&maskAfter, signal), sigismember(&maskBefore, signal)) << signal;
    }
}

// How verifiers judge certificates of each profile, the HTTP client's table of faults shows.
TEST(Certificates, RefuseWhatCannotBeSaid) {
    const CertificateProfile nowhere{.commonName = "Server", .alternativeNames = {"IP:nowhere"}};
    EXPECT_THROW((void)makeCertificate(nowhere), std::runtime_error);
    const Certificate broken{"no certificate", "no key"};
    EXPECT_THROW((void)makeCertificate({.commonName = "Server"}, &broken), std::runtime_error);
}

}  // namespace
}  // namespace zembra::sandbox
