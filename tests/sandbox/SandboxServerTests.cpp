#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
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
using testing::Pair;


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

}  // namespace
}  // namespace zembra::sandbox
