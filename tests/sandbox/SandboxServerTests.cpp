// The sandbox server: what it answers, logs and survives, seen by libcurl.

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
using namespace testing;
using nlohmann::json;

using Headers = std::vector<std::string>;

class SandboxServerTest : public Test {
protected:
    Reply post(const std::string& path, const std::string& form, const Headers& headers = {},
               const char* method = "POST") {
        const long timeout = form.find("sandbox.silent") == std::string::npos ? 20000 : 300;
        const std::string& authority = server_.certificateAuthority();
        return send(server_.baseAddress("localhost") + path, authority, form, headers, method, timeout);
    }
    Reply registerClient(const std::string& client) {
        return post("app/token", "signature=b&client_id=" + client);
    }
    Reply refresh(const std::string& token, const Headers& headers) {
        return post("app/members/token", "refresh_token=" + token, headers);
    }
    std::string bearer(const std::string& client = "sandbox.demo") {
        return "Authorization: Bearer " + std::string(json::parse(registerClient(client).body)["token"]);
    }
    Exchange last() { return server_.exchanges().back(); }

    SandboxServer server_;
};

TEST_F(SandboxServerTest, RehearsesTheOutcomesOfItsTables) {
    const auto check = [&](const Outcome& outcome, const Reply& reply) {
        SCOPED_TRACE(outcome.value);
        // Of a body and a TLS connection that both end early, libcurl 7.88 reports the first, 8.14 the second.
        const std::map<Delivery, Matcher<CURLcode>> failures{
            {Delivery::never, CURLE_OPERATION_TIMEDOUT},
            {Delivery::truncated, AnyOf(CURLE_PARTIAL_FILE, CURLE_RECV_ERROR)},
            {Delivery::reset, CURLE_RECV_ERROR}};
        const auto failure = failures.find(outcome.delivery);
        EXPECT_THAT(reply.code, failure == failures.end() ? Matcher<CURLcode>(CURLE_OK) : failure->second);
        EXPECT_EQ(reply.status, outcome.status);
        EXPECT_GE(reply.seconds, outcome.delivery == Delivery::late ? 1.4 : 0);
        const std::string answer = last().answer, type(outcome.contentType);
        EXPECT_EQ(reply.body, answer.substr(0, answer.size() / (outcome.delivery == Delivery::truncated ? 2 : 1)));
        EXPECT_EQ(answer.empty(), outcome.status == 0 || outcome.body.empty());
        EXPECT_THAT(answer, Not(HasSubstr("%")));
        EXPECT_EQ(reply.headers.find("Content-Type: " + type + "\r\n") != std::string::npos,
                  outcome.status != 0);
    };
    for (const Outcome& outcome : clientIdentifierOutcomes())
        check(outcome, registerClient(std::string(outcome.value)));
    const std::string authorization = bearer();
    for (const Outcome& outcome : refreshTokenOutcomes())
        check(outcome, refresh(std::string(outcome.value), {authorization}));
}

TEST_F(SandboxServerTest, RefusesWhatIsNotExactlyRight) {
    const auto refuses = [this](int status, const char* message, const std::string& path,
                                const std::string& form, const Headers& headers = {},
                                const char* method = "POST") {
        SCOPED_TRACE(method + (" " + path) + " " + form.substr(0, 100) + " " + PrintToString(headers));
        const Reply reply = post(path, form, headers, method);
        EXPECT_EQ(reply.status, status);
        EXPECT_EQ(last().status, status);
        EXPECT_THAT(reply.headers, HasSubstr("Content-Type: application/json\r\n"));
        EXPECT_EQ(reply.headers.find("Allow: POST") != std::string::npos, status == 405);
        EXPECT_EQ(reply.headers.find("WWW-Authenticate: Bearer") != std::string::npos, status == 401);
        const json body = json::parse(reply.body);
        EXPECT_TRUE(body["error"].is_string());
        EXPECT_THAT(std::string(body["message"]), HasSubstr(message));
    };
    const std::string app = "app/token", member = "app/members/token", form = "client_id=a&signature=b";
    for (const char* path : {"", "app/token/", "app%2Ftoken"})
        refuses(404, "nothing at this path", path, form);
    refuses(405, "POST only", app, form, {}, "GET");
    refuses(405, "POST only", app, form, {}, "PUT");
    refuses(405, "POST only", member, "", {}, "DELETE");
    refuses(400, "not well-formed HTTP", app, form, {}, "FETCH");
    refuses(400, "query", app + "?client_id=a", form);
    refuses(413, "too large", app, std::string(17 << 20, 'x'));
    const std::string type = "Content-Type: application/x-www-form-urlencoded";
    const std::string part = "--x\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nb\r\n--x--\r\n";
    refuses(400, "content type", app, form, {"Content-Type: application/json"});
    refuses(400, "content type", app, form, {"Content-Type:"});
    refuses(400, "content type", app, form, {type, type});
    refuses(400, "content type", app, part, {"Content-Type: multipart/form-data; boundary=x"});
    refuses(400, "client_id is missing", app, "");
    refuses(400, "client_id is empty", app, "client_id=&signature=b");
    refuses(400, "client_id is repeated", app, "client_id=a&signature=b&client_id=a");
    refuses(400, "signature is missing", app, "client_id=a");
    refuses(400, "unknown parameter", app, "client_id=a&signature=b&more=c");
    refuses(400, "refresh_token is missing", member, "", {bearer()});
    refuses(400, "unknown", member, "refresh_token=", {bearer()});
    for (const char* broken :
         {"client_id=a&", "client_id=a&&signature=b", "client_id=a&=b", "client_id=a&signature",
          "client_id=a%&signature=b", "client_id=a&signature=b%4", "client_id=a%g0&signature=b",
          "client_id=a b&signature=b", "client_id=a&signature=\xC3\xA4", "client_id=a&signature=b\n"})
        refuses(400, "well-formed form", app, broken);

    const std::string first = bearer(), token = first.substr(first.rfind(' '));
    const std::string memberToken = json::parse(refresh("sandbox.member", {first}).body)["token"];
    const std::string scheme = "Authorization: Bearer", good = "refresh_token=sandbox.member";
    refuses(401, "app token in force", member, good);
    refuses(401, "app token in force", member, good, {first, first});
    for (const std::string& header :
         {scheme + " app-0", scheme + ";", "Authorization:" + token, scheme + " " + token, first + "0",
          scheme + " " + memberToken, bearer("sandbox.forgotten")})
        refuses(401, "app token in force", member, good, {header});
}

TEST_F(SandboxServerTest, RegistersClientsAndRefreshesWithEveryAppToken) {
    const json one = json::parse(registerClient("a").body), again = json::parse(registerClient("a").body);
    EXPECT_EQ(one["account_id"], again["account_id"]) << "it belongs to the client identifier";
    EXPECT_NE(one["account_id"], json::parse(registerClient("b").body)["account_id"]);
    EXPECT_NE(one["token"], again["token"]) << "it is new each time";
    server_.acceptRefreshToken("");
    for (const json& token : {again["token"], one["token"], one["token"]})
        EXPECT_EQ(refresh("", {"Authorization: Bearer " + std::string(token)}).status, 200);
}

TEST_F(SandboxServerTest, LogsExchangesAsTheyWereAndPrintsNoSecret) {
    const Reply registered = post("app/token", "signature=&client_id=a+b%2Bc%0a%C3%bc");
    const std::string token = json::parse(registered.body)["token"];
    EXPECT_EQ(last().parameters, (Fields{{"signature", ""}, {"client_id", "a b+c\n\u00fc"}}));
    EXPECT_EQ(last().parameter("no such"), std::nullopt);
    EXPECT_EQ(last().header("content-length"), "37");
    EXPECT_EQ(last().header("REMOTE_ADDR"), std::nullopt);
    EXPECT_EQ(last().answer, registered.body);
    EXPECT_THAT(
        last().line,
        AllOf(HasSubstr("POST /api/v1/app/token"), HasSubstr(R"(signature=, client_id=a b+c\x0a\xc3\xbc)"),
              HasSubstr(R"(200 {"token": "****", "account_id": "account-)"), Not(HasSubstr(token))));

    server_.acceptRefreshToken({"\0secret", 7});
    refresh("%00secret",
            {"Authorization: Bearer " + token, "X-Api-Key: secret", "X-SDK-Version: iOS v1 Core"});
    EXPECT_EQ(last().parameter("refresh_token"), std::string("\0secret", 7));
    EXPECT_EQ(last().header("authorization"), "Bearer " + token);
    EXPECT_THAT(last().line, AllOf(HasSubstr("Authorization: ****"), HasSubstr("X-SDK-Version: iOS v1 Core"),
                                   HasSubstr(R"(refresh_token=**** | 200 {"token": "****"})"),
                                   Not(HasSubstr(token)), Not(HasSubstr("secret"))));

    const Headers secrets{"Cookie: secret", "X-Token: secret", "X-Own: secret", "Host: secret"};
    post("app/token?token=secret", "secret=secret", secrets);
    EXPECT_EQ(last().target, "/api/v1/app/token?token=secret");
    EXPECT_THAT(last().line, AllOf(HasSubstr("/api/v1/app/token?**** | "), HasSubstr("Host: ****"),
                                   HasSubstr("****=****"), Not(HasSubstr("secret"))));
    post("app/secret", "");
    EXPECT_THAT(last().line, AllOf(StartsWith("POST **** | "), HasSubstr("Host: localhost:")));
    post("", "", {}, "FETCH-secret");
    EXPECT_THAT(last().line, Not(HasSubstr("secret")));
    refresh("sandbox.expired", {});
    EXPECT_THAT(last().line, HasSubstr("refresh_token=sandbox.expired")) << "no secret";
}

TEST(SandboxServerLifeTest, SilentConnectionsNeitherStarveItNorKeepItFromStopping) {
    SandboxServer server;
    EXPECT_FALSE(server.waitForExchanges(1, 0ms));
    const sockaddr_in address{AF_INET, htons(server.port()), {htonl(INADDR_LOOPBACK)}, {}};
    std::vector<int> silent(200);
    for (int& connection : silent) {
        connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    // Then requests that are never answered.
    std::vector<std::jthread> clients;
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back([&, form = "client_id=sandbox.silent&signature=a"] {
            const Reply reply = send(server.baseAddress() + "app/token", server.certificateAuthority(), form);
            EXPECT_THAT(reply.code, AllOf(Ne(CURLE_OK), Ne(CURLE_OPERATION_TIMEDOUT)));
        });
    }
    EXPECT_TRUE(server.waitForExchanges(8, 15s));
    const auto start = std::chrono::steady_clock::now();
    server.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    for (const int connection : silent)
        close(connection);
    server.stop();
    EXPECT_EQ(server.exchanges().size(), 8u);
    EXPECT_EQ(server.exchangeCount(), 8u);
    EXPECT_EQ(send(server.baseAddress(), "", "").code, CURLE_COULDNT_CONNECT);
}

TEST(SandboxServerLifeTest, LeavesTheProcessAsItWas) {
    void (*const own)(int) = [](int) {};
    std::signal(SIGPIPE, own);
    sigset_t before, after;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    const SandboxServer server;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), own);
    for (int signal = 1; signal < SIGRTMIN; ++signal)
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
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
