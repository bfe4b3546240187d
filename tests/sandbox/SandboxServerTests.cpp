// The sandbox server: what it refuses, logs and survives, seen by libcurl. What it rehearses, the SDK's tests
// and the examples show.

#include <csignal>
#include <thread>

#include <ZembraSandbox/Certificates.h>
#include <ZembraSandbox/SandboxServer.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <unistd.h>

#include "sandbox/Peer.h"

namespace zembra::sandbox {
namespace {

using namespace std::chrono_literals;
using namespace testing;
using nlohmann::json;

using Headers = std::vector<std::string>;

const std::string kApp = "app/token", kMember = "app/members/token";

class SandboxServerTest : public Test {
protected:
    Reply post(const std::string& path, const std::string& form, const Headers& headers = {},
               const char* method = "POST") {
        return send(server_.baseAddress("localhost") + path, server_.certificateAuthority(), form, headers,
                    method);
    }
    json registered(const std::string& client = "sandbox.demo") {
        return json::parse(post(kApp, "signature=b&client_id=" + client).body);
    }
    static std::string bearer(const json& answer) {
        return "Authorization: Bearer " + std::string(answer["token"]);
    }
    Exchange last() { return server_.exchanges().back(); }

    SandboxServer server_;
};

TEST_F(SandboxServerTest, RefusesWhatIsNotExactlyRight) {
    const json first = registered();
    const std::string good = "client_id=a&signature=b", member = "refresh_token=sandbox.member";
    const std::string own = bearer(first), bare = "Authorization: " + std::string(first["token"]);
    const std::string ofMember = bearer(json::parse(post(kMember, member, {own}).body));
    const std::string forgotten = bearer(registered("sandbox.forgotten"));
    const std::string form = "Content-Type: application/x-www-form-urlencoded";
    const std::string multipart = "Content-Type: multipart/form-data; boundary=x";
    const std::string part = "--x\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nb\r\n--x--\r\n";
    const struct {
        int status;
        const char* message;
        std::string path;
        std::vector<std::string> forms;
        std::vector<Headers> headers = {{}};
        const char* method = "POST";
    } cases[] = {
        {404, "nothing at this path", "", {good}},
        {404, "nothing at this path", "app%2Ftoken", {good}},
        {405, "POST only", kApp, {good}, {{}}, "GET"},
        {405, "POST only", kMember, {""}, {{}}, "DELETE"},
        {400, "not well-formed HTTP", kApp, {good}, {{}}, "FETCH"},
        {400, "query", kApp + "?client_id=a", {good}},
        {413, "too large", kApp, {std::string(17 << 20, 'x')}},
        {400, "content type", kApp, {good}, {{"Content-Type: text/json"}, {"Content-Type:"}, {form, form}}},
        {400, "content type", kApp, {part}, {{multipart}}},
        {400, "client_id is missing", kApp, {""}},
        {400, "client_id is empty", kApp, {"client_id=&signature=b"}},
        {400, "client_id is repeated", kApp, {good + "&client_id=a"}},
        {400, "unknown parameter", kApp, {good + "&more=c"}},
        {400, "unknown", kMember, {"refresh_token="}, {{own}}},
        {400, "well-formed form", kApp, {good + "&", "client_id=a&=b", "client_id=a&signature", good + "%4"}},
        {400, "well-formed form", kApp, {good + "%4g", good + " ", good + "\x7F"}},
        {401,
         "token in force",
         kMember,
         {member},
         {{}, {own, own}, {bare}, {own + "0"}, {ofMember}, {forgotten}}},
    };
    for (const auto& [status, message, path, bodies, headerLists, method] : cases) {
        for (const std::string& body : bodies) {
            for (const Headers& headers : headerLists) {
                SCOPED_TRACE(method + (" " + path) + " " + body.substr(0, 100) + " " +
                             PrintToString(headers));
                const Reply reply = post(path, body, headers, method);
                EXPECT_EQ(reply.status, status);
                EXPECT_THAT(reply.headers, HasSubstr("Content-Type: application/json\r\n"));
                EXPECT_EQ(reply.headers.find("Allow: POST") != std::string::npos, status == 405);
                EXPECT_EQ(reply.headers.find("WWW-Authenticate: Bearer") != std::string::npos, status == 401);
                EXPECT_THAT(std::string(json::parse(reply.body)["message"]), HasSubstr(message));
            }
        }
    }
}

TEST_F(SandboxServerTest, RegistersClientsAndRefreshesWithEveryAppToken) {
    const json one = registered("a"), again = registered("a");
    EXPECT_EQ(one["account_id"], again["account_id"]) << "it belongs to the client identifier";
    EXPECT_NE(one["account_id"], registered("b")["account_id"]);
    EXPECT_NE(one["token"], again["token"]) << "it is new each time";
    server_.acceptRefreshToken("");
    for (const json& answer : {again, one, one})
        EXPECT_EQ(post(kMember, "refresh_token=", {bearer(answer)}).status, 200);
}

TEST_F(SandboxServerTest, LogsExchangesAsTheyWereAndPrintsNoSecret) {
    const auto prints = [this](auto... texts) {
        EXPECT_THAT(last().line, AllOf(HasSubstr(texts)..., Not(HasSubstr("secret"))));
    };
    const Reply reply = post(kApp, "signature=&client_id=a+b%2Bc%0a%C3%bc");
    const std::string authorization = bearer(json::parse(reply.body));
    EXPECT_EQ(last().parameters, (Fields{{"signature", ""}, {"client_id", "a b+c\n\u00fc"}}));
    EXPECT_EQ(last().header("content-length"), "37");
    EXPECT_EQ(last().header("REMOTE_ADDR"), std::nullopt);
    EXPECT_EQ(last().answer, reply.body);
    prints("POST /api/v1/app/token | ",
           "Host: localhost:", R"(signature=, client_id=a b+c\x0a\xc3\xbc | 200 {"token": "****", )");

    server_.acceptRefreshToken({"\0secret", 7});
    post(kMember, "refresh_token=%00secret", {authorization, "X-SDK-Version: iOS v1 Core"});
    EXPECT_EQ(last().parameter("refresh_token"), std::string("\0secret", 7));
    prints("Authorization: ****", "X-SDK-Version: iOS v1 Core",
           R"(refresh_token=**** | 200 {"token": "****"})");
    post(kMember, "refresh_token=sandbox.expired");
    prints("refresh_token=sandbox.expired");  // which everybody knows

    post(kApp + "?token=secret", "secret=secret", {"Cookie: secret", "X-Token: secret", "Host: secret"});
    EXPECT_EQ(last().target, "/api/v1/app/token?token=secret");
    prints("/api/v1/app/token?**** | ");
    post("app/secret", "", {}, "FETCH-secret");
    prints("**** **** | ");
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
            const Reply reply = send(server.baseAddress() + kApp, server.certificateAuthority(), form);
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
