// The documents' blocks compile; what their page on first mistakes shows is what is printed.

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include <ZembraSandbox/SandboxServer.h>
#include <gtest/gtest.h>

#include "DocumentBlocks.cpp"
#include "support/HangingResolver.h"
#include "support/SandboxManager.h"

namespace zembra::test {
namespace {

using namespace std::literals;

/// What a host that does as the README's prints for its registration, or for what `start` starts.
std::string printed(std::function<void(std::function<void(const NSErrorPtr&)>)> start = [](auto failed) {
    ZMBApplication::configureApplication([failed](bool, const NSErrorPtr& error) { failed(error); });
}) {
    std::ostringstream text;
    if (const auto info = NSBundle::mainBundle()->infoDictionaryError()) text << *info << '\n';
    start([&](const NSErrorPtr& error) {
        if (error) text << *error << '\n';
        MainQueue::shared().stop();
    });
    MainQueue::shared().runFor(30s);
    return text.str();
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
