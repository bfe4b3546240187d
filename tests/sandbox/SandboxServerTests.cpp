#include <chrono>
#include <csignal>
#include <thread>

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
using testing::MatchesRegex;
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
    ASSERT_EQ(first.code, CURLE_OK);
    EXPECT_EQ(first.status, 200);
    EXPECT_EQ(first.contentType, "application/json");
    const json one = json::parse(first.body);
    const json two = json::parse(second.body);
    EXPECT_EQ(one["account_id"], two["account_id"]) << "it belongs to the client identifier";
    EXPECT_NE(one["account_id"], json::parse(registerClient("another-client").body)["account_id"]);
    EXPECT_NE(one["token"], two["token"]) << "it is new each time";
}

TEST_F(SandboxServerTest, RehearsesEveryOutcome) {
    struct Expectation {
        std::string_view value;
        int status;
        std::string body;
        CURLcode code = CURLE_OK;
    };
    const std::string token = R"("token": "(app|member)-[0-9a-f]+")";
    const std::string account = R"("account_id": "account-[0-9a-f]+")";
    const std::string refused = R"(\{"error": "[a-z_]+", "message": ".+"})";
    const auto check = [](std::span<const Outcome> outcomes, const std::vector<Expectation>& expectations,
                          const auto& exchange) {
        EXPECT_EQ(outcomes.size(), expectations.size()) << "each has its line here";
        for (const Expectation& expected : expectations) {
            SCOPED_TRACE(expected.value);
            EXPECT_EQ(outcomeOf(expected.value, outcomes).value, expected.value);
            const Reply reply =
                exchange(std::string(expected.value), expected.value == "sandbox.silent" ? 300 : 20000);
            EXPECT_EQ(reply.code, expected.code) << curl_easy_strerror(reply.code);
            EXPECT_EQ(reply.status, expected.status);
            EXPECT_THAT(reply.body, MatchesRegex(expected.body));
            if (expected.status != 0) {
                const bool isWrong = expected.value == "sandbox.wrong-content-type";
                EXPECT_EQ(reply.contentType, isWrong ? "text/plain" : "application/json");
            }
            if (expected.value == "sandbox.slow") {
                EXPECT_GE(reply.seconds, 1.4);
            }
        }
    };
    const auto withCommon = [&](std::vector<Expectation> own, const std::string& object) {
        const std::vector<Expectation> common{
            {"sandbox.unauthorized", 401, refused},
            {"sandbox.refused", 403, refused},
            {"sandbox.broken", 500, refused},
            {"sandbox.silent", 0, "", CURLE_OPERATION_TIMEDOUT},
            {"sandbox.slow", 200, object},
            {"sandbox.empty-body", 200, ""},
            {"sandbox.array", 200, R"(\[)" + object + "]"},
            {"sandbox.string", 200, R"("token")"},
            {"sandbox.number", 200, "42"},
            {"sandbox.not-json", 200, "<html>Not JSON</html>"},
            {"sandbox.wrong-content-type", 200, object},
            {"sandbox.truncated", 200, R"(\{"token": "(app|member)-[0-9a-f]+)", CURLE_PARTIAL_FILE},
            {"sandbox.reset", 0, "", CURLE_RECV_ERROR},
        };
        own.insert(own.end(), common.begin(), common.end());
        return own;
    };
    const std::string registered = R"(\{)" + token + ", " + account + "}";
    check(clientIdentifierOutcomes(),
          withCommon({{"sandbox.demo", 200, registered},
                      {"sandbox.forgotten", 200, registered},
                      {"sandbox.no-token", 200, R"(\{)" + account + "}"},
                      {"sandbox.no-account-id", 200, R"(\{)" + token + "}"},
                      {"sandbox.null-token", 200, R"(\{"token": null, )" + account + "}"},
                      {"sandbox.empty-token", 200, R"(\{"token": "", )" + account + "}"}},
                     registered),
          [&](const std::string& value, long timeout) { return registerClient(value, timeout); });
    const std::string refreshed = R"(\{)" + token + "}";
    check(refreshTokenOutcomes(),
          withCommon({{"sandbox.unknown", 400, refused},
                      {"sandbox.member", 200, refreshed},
                      {"sandbox.expired", 401, refused},
                      {"sandbox.no-token", 200, R"(\{"expires_in": 3600})"},
                      {"sandbox.null-token", 200, R"(\{"token": null})"},
                      {"sandbox.empty-token", 200, R"(\{"token": ""})"}},
                     refreshed),
          [&](const std::string& value, long timeout) { return refresh(value, timeout); });
}

TEST_F(SandboxServerTest, RefusesWhatIsNotExactlyRight) {
    struct Refusal {
        std::string path;
        std::string form;
        int status;
        std::string message;
        std::string method = "POST";
        std::vector<std::string> headers = {};
    };
    const std::string good = "client_id=a&signature=b";
    const std::string multipart = "--x\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nb\r\n--x--\r\n";
    const std::string form = "Content-Type: application/x-www-form-urlencoded";
    const std::vector<Refusal> refusals{
        {"", good, 404, "nothing at this path"},
        {"app/token/", good, 404, "nothing at this path"},
        {"app%2Ftoken", good, 404, "nothing at this path"},
        {"app/token", "", 405, "POST only", "GET"},
        {"app/token", good, 405, "POST only", "GET"},
        {"app/token", good, 405, "POST only", "PUT"},
        {"app/members/token", "", 405, "POST only", "DELETE"},
        {"app/token", good, 400, "not well-formed HTTP", "FETCH"},
        {"app/token?client_id=a", good, 400, "query"},
        {"app/token", good, 400, "content type", "POST", {"Content-Type: application/json"}},
        {"app/token", good, 400, "content type", "POST", {"Content-Type:"}},
        {"app/token", good, 400, "content type", "POST", {form, form}},
        {"app/token",
         multipart,
         400,
         "content type",
         "POST",
         {"Content-Type: multipart/form-data; boundary=x"}},
        {"app/token", "", 400, "client_id is missing"},
        {"app/token", "client_id=a", 400, "signature is missing"},
        {"app/token", "client_id=&signature=b", 400, "client_id is empty"},
        {"app/token", good + "&client_id=a", 400, "client_id is repeated"},
        {"app/token", good + "&more=c", 400, "unknown parameter"},
        {"app/token", good + "&", 400, "well-formed form"},
        {"app/token", "client_id=a&&signature=b", 400, "well-formed form"},
        {"app/token", "client_id=a&=b", 400, "well-formed form"},
        {"app/token", "client_id=a&signature", 400, "well-formed form"},
        {"app/token", "client_id=a%&signature=b", 400, "well-formed form"},
        {"app/token", "client_id=a&signature=b%4", 400, "well-formed form"},
        {"app/token", "client_id=a%g0&signature=b", 400, "well-formed form"},
        {"app/token", "client_id=a b&signature=b", 400, "well-formed form"},
        {"app/token", "client_id=a&signature=\xC3\xA4", 400, "well-formed form"},
        {"app/token", "client_id=a&signature=b\n", 400, "well-formed form"},
        {"app/members/token", "", 400, "refresh_token is missing", "POST", {bearer()}},
        {"app/members/token", "refresh_token=", 400, "unknown", "POST", {bearer()}},
        {"app/token", std::string(17 << 20, 'x'), 413, "too large"},
    };
    for (const Refusal& expected : refusals) {
        SCOPED_TRACE(expected.method + " " + expected.path + " " + expected.form.substr(0, 100));
        const std::size_t before = server_.exchangeCount();
        const Reply reply = send({.url = server_.baseAddress("localhost") + expected.path,
                                  .authority = server_.certificateAuthority(),
                                  .form = expected.form,
                                  .method = expected.method,
                                  .headers = expected.headers});
        EXPECT_EQ(reply.status, expected.status);
        EXPECT_EQ(reply.contentType, "application/json");
        const json body = json::parse(reply.body, nullptr, false);
        ASSERT_TRUE(body.is_object()) << reply.body;
        EXPECT_TRUE(body["error"].is_string());
        EXPECT_THAT(body.value("message", ""), HasSubstr(expected.message));
        EXPECT_EQ(reply.headers.find("Allow: POST") != std::string::npos, expected.status == 405);
        EXPECT_EQ(server_.exchangeCount(), before + 1);
        EXPECT_EQ(last().status, expected.status);
    }
}

TEST_F(SandboxServerTest, TakesAnyBytesAsAValue) {
    std::string allBytes;
    for (int byte = 0; byte < 256; ++byte)
        allBytes += static_cast<char>(byte);
    for (const std::string& value : {allBytes, std::string("line\r\nbreaks\n"), std::string("\xFF\xC0\x80"),
                                     std::string(1 << 20, '\x01'), std::string()}) {
        server_.acceptRefreshToken(value);
        EXPECT_EQ(refresh(percentEncoded(value)).status, 200);
        EXPECT_TRUE(last().parameters == (Fields{{"refresh_token", value}})) << last();
    }
    EXPECT_EQ(registerClient("a+b%2Bc%20d%3d").status, 200);
    EXPECT_EQ(last().parameter("client_id"), "a b+c d=");
    EXPECT_EQ(post("app/token", "signature=&client_id=x").status, 200) << "any order, an empty signature";
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
    const Exchange registered = last();
    EXPECT_EQ(registered.method, "POST");
    EXPECT_EQ(registered.target, "/api/v1/app/token");
    EXPECT_EQ(registered.parameter("client_id"), "a\nb");
    EXPECT_EQ(registered.parameter("no such"), std::nullopt);
    EXPECT_EQ(registered.header("content-length"), "42");
    EXPECT_EQ(registered.header("REMOTE_ADDR"), std::nullopt);
    EXPECT_EQ(registered.status, 200);
    EXPECT_EQ(json::parse(registered.answer)["token"], token);
    EXPECT_THAT(
        testing::PrintToString(registered),
        AllOf(HasSubstr("POST /api/v1/app/token"), HasSubstr("client_id=a\\x0ab, signature=com.example.host"),
              HasSubstr(R"(200 {"token": "****", "account_id": "account-)"), Not(HasSubstr(token))));

    const std::string memberToken = [&] {
        server_.acceptRefreshToken("secret-refresh-token");
        const std::vector<std::string> headers{"Authorization: Bearer " + token, "X-Api-Key: secret-key",
                                               "X-SDK-Version: iOS v1 Core"};
        return json::parse(
            post("app/members/token", "refresh_token=secret-refresh-token", headers).body)["token"];
    }();
    EXPECT_EQ(last().header("authorization"), "Bearer " + token);
    EXPECT_EQ(last().header("X-Api-Key"), "secret-key");
    EXPECT_EQ(last().parameter("refresh_token"), "secret-refresh-token");
    EXPECT_THAT(last().line, AllOf(HasSubstr("Authorization: ****"), HasSubstr("X-SDK-Version: iOS v1 Core"),
                                   HasSubstr("refresh_token=****"), Not(HasSubstr(token)),
                                   Not(HasSubstr(memberToken)), Not(HasSubstr("secret"))));

    post("app/token?token=secret", "secret=secret", {"Cookie: secret"});
    EXPECT_EQ(last().target, "/api/v1/app/token?token=secret");
    EXPECT_THAT(last().line, AllOf(HasSubstr("/api/v1/app/token?****"), HasSubstr("secret=****")));
    EXPECT_THAT(last().line, Not(HasSubstr("=secret")));
    refresh("sandbox.expired");
    EXPECT_THAT(last().line, HasSubstr("refresh_token=sandbox.expired")) << "no secret";
}

TEST_F(SandboxServerTest, KeepsTheLatestExchangesAndWaitsForMore) {
    EXPECT_FALSE(server_.waitForExchanges(1, 0ms));
    std::thread client([&] { registerClient("a"); });
    EXPECT_TRUE(server_.waitForExchanges(1, 20s));
    client.join();
    EXPECT_EQ(server_.exchangeCount(), 1u);
    EXPECT_EQ(server_.exchanges().size(), 1u);
}

TEST(SandboxServerLifeTest, StopsWithinAMomentWhateverIsPending) {
    SandboxServer server;
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
    EXPECT_EQ(
        send({.url = server.baseAddress(), .authority = server.certificateAuthority(), .form = ""}).code,
        CURLE_COULDNT_CONNECT);
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

TEST(SandboxServerLifeTest, SaysWhyItCannotStart) {
    const SandboxServer server;
    try {
        const SandboxServer second({.port = server.port()});
        FAIL() << "two servers share a port";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr(std::to_string(server.port())), HasSubstr("in use")));
    }
}

TEST(SandboxServerLifeTest, TrustsNobodyElsesAuthority) {
    const SandboxServer server;
    const SandboxServer other;
    EXPECT_EQ(send({.url = server.baseAddress(), .authority = other.certificateAuthority(), .form = ""}).code,
              CURLE_PEER_FAILED_VERIFICATION);
}

}  // namespace
}  // namespace zembra::sandbox
