// The documents' recipes at work, against a sandbox; the blocks are those that the documents show.

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>

#include <ZembraSandbox/SandboxServer.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DocumentBlocks.cpp"
#include "support/HangingResolver.h"
#include "support/SandboxManager.h"

namespace zembra::test {
namespace {

using namespace std::literals;
using namespace testing;

MainQueue& queue() {
    return MainQueue::shared();
}

using RecipeTest = SandboxTest;

TEST_F(RecipeTest, AFutureWaitsOnAnotherThread) {
    bool isDone = false;
    std::jthread waiter([&] {
        EXPECT_TRUE(document_docs_waiting::registration().get().success);
        queue().post([&] { isDone = true; });
    });
    EXPECT_TRUE(queue().runUntil([&] { return isDone; }, 30s));
    document_docs_waiting::PublishedToken token;
    token.publish();
    EXPECT_EQ(token.get(), manager->token());
}

TEST_F(RecipeTest, CoroutinesWaitOnTheMainQueue) {
    std::vector<Value> tokens;
    const auto startUp = [&](const char* refreshToken) {
        document_docs_waiting::startUp(refreshToken, [&](Value token) { tokens.push_back(token); });
    };
    startUp("sandbox.member");
    startUp("sandbox.expired");
    EXPECT_TRUE(queue().runUntil([&] { return tokens.size() == 2; }, 30s));
    EXPECT_TRUE(std::ranges::any_of(tokens, &Value::isString));
    EXPECT_TRUE(std::ranges::any_of(tokens, &Value::isNothing));
    setHostBundle("", "com.example.host");
    startUp("sandbox.member");
    EXPECT_EQ(tokens.size(), 3u) << "without waiting";
}

TEST_F(RecipeTest, WhatIsGoneOrShutDownHearsNothingOrTheEnd) {
    auto screen = std::make_shared<document_docs_waiting::Screen>();
    document_docs_waiting::showAccount(screen);
    EXPECT_TRUE(queue().runUntil([&] { return screen->title == "Welcome"; }, 30s));
    const std::weak_ptr weak = screen;
    document_docs_waiting::showAccount(screen);
    screen.reset();
    EXPECT_TRUE(weak.expired()) << "the request does not hold it";

    NSErrorPtr ended;
    setHostBundle("sandbox.silent", "com.example.host");
    ZMBApplication::configureApplication([&](bool, const NSErrorPtr& error) { ended = error; });
    document_docs_waiting::shutDown();
    EXPECT_FALSE(queue().runUntil([] { return false; }, 30s)) << "stopped";
    EXPECT_TRUE(queue().runUntil([&] { return ended != nullptr; }, 30s));
    EXPECT_EQ(ended->userInfo()[NSUnderlyingErrorKey].as<NSError>()->code(), NSURLErrorCancelled);
}

TEST_F(RecipeTest, ExceptionsLeaveTheQueueUsable) {
    queue().post([] { throw std::runtime_error("odd"); });
    bool isRun = false;
    queue().post([&] { isRun = true; });
    internal::CaptureStderr();
    document_docs_waiting::drainAll();
    EXPECT_EQ(internal::GetCapturedStderr(), "a callback failed: odd\n");
    EXPECT_TRUE(isRun);
}

/// The page's manager, at the sandbox.
class LoggingManager : public document_docs_integration::LoggingManager {
public:
    static std::string cmsAPIHost() { return SandboxManager::cmsAPIHost(); }
};

/// What a host that does as the README's prints for its registration, or for what `start` starts.
std::string printed(std::function<void(std::function<void(const NSErrorPtr&)>)> start = [](auto failed) {
    ZMBApplication::configureApplication([failed](bool, const NSErrorPtr& error) { failed(error); });
}) {
    std::ostringstream text;
    if (const auto info = NSBundle::mainBundle()->infoDictionaryError()) text << *info << '\n';
    start([&](const NSErrorPtr& error) {
        if (error) text << *error << '\n';
        queue().stop();
    });
    queue().runFor(30s);
    return text.str();
}

TEST(LoggingRecipe, TellsTheStatusBehindCodeThree) {
    const sandbox::SandboxServer server;
    SandboxManager::address = server.baseAddress();
    ZMBSDKAuthManager::sharedManager<LoggingManager>()->authClient()->addTrustedCertificateAuthority(
        server.certificateAuthority());
    setHostBundle("sandbox.refused", "com.example.host");
    internal::CaptureStderr();
    EXPECT_EQ(printed(), "ZMBSDKErrorDomainAuth 3, \"error message\": \"internal_error\"\n");
    EXPECT_EQ(internal::GetCapturedStderr(), "app/token: status 403\n");
    EXPECT_THAT(server.exchanges().back().header("X-SDK-Version").value_or(""), StartsWith("iOS v"))
        << "set up";
}

/// The text block under a heading of the page on first mistakes, as a regular expression: … stands for any
/// text.
std::regex documented(const std::string& heading) {
    std::ifstream file(ZEMBRA_FIRST_MISTAKES);
    const std::string page{std::istreambuf_iterator<char>(file), {}}, fence = "```text\n";
    const std::size_t start = page.find(fence, page.find("\n## " + heading + "\n")) + fence.size();
    const std::string lines = page.substr(start, page.find("```", start) - start);
    const std::string literal = std::regex_replace(lines, std::regex(R"([.*+?^${}()|\[\]\\])"), R"(\$&)");
    return std::regex(std::regex_replace(literal, std::regex("…"), "[^\n]*"));
}

TEST(FirstMistakes, PrintWhatThePageShows) {
    const sandbox::SandboxServer server;
    const auto manager = ZMBSDKAuthManager::sharedManager();
    const auto client = [](const std::string& address) {
        return std::make_shared<AFHTTPSessionManager>(NSURL::URLWithString(address));
    };
    const auto refreshed = [&](auto failed) { manager->refreshMemberToken("a", nullptr, failed); };
    const auto expectPrinted = [](const char* heading, const std::string& text) {
        EXPECT_TRUE(std::regex_match(text, documented(heading))) << heading << ":\n" << text;
    };
    NSBundle::setMainBundle(NSBundle::bundleWithInfoFile("/nonexistent/host.Info.plist"));
    expectPrinted("No Info.plist", printed());
    setHostBundle("", "com.example.host");
    expectPrinted("No client identifier", printed());
    setHostBundle("sandbox.demo", "com.example.host");
    expectPrinted("Refreshing before registering", printed(refreshed));
    manager->setAuthClient(client("https://"s + kUnknownHost + "/api/v1/"));
    expectPrinted("The placeholder endpoint",
                  std::regex_replace(printed(), std::regex(kUnknownHost), "api.zembra.example"));
    manager->setAuthClient(client(server.baseAddress()));
    expectPrinted("The server's certificate is not trusted", printed());
}

}  // namespace
}  // namespace zembra::test
