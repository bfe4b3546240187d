// What an exchange takes from the process's environment, and that it writes no file. This program puts its
// own version of getenv in place.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <set>
#include <string>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <ZembraCoreSDK/ZMBApplication.h>

#include <ZembraPlatform/MainQueue.h>

#include "support/ErrorMatchers.h"
#include "support/HostBundle.h"
#include "support/SandboxManager.h"

namespace {

std::atomic<std::size_t> askedCount = 0;
char asked[64][64];  // no constructor: the first calls come before any

}  // namespace

extern "C" __attribute__((visibility("default"))) char* getenv(const char* name) noexcept {
    static const auto original = reinterpret_cast<char* (*)(const char*)>(::dlsym(RTLD_NEXT, "getenv"));
    if (const std::size_t index = askedCount++; index < std::size(asked))
        std::snprintf(asked[index], sizeof asked[index], "%s", name);
    return original(name);
}

namespace zembra::test {
namespace {

TEST(EnvironmentTest, AnExchangeReadsListedVariablesAndWritesNoFile) {
    const sandbox::SandboxServer server;
    const auto manager = sharedManagerAt(server.baseAddress(), server.certificateAuthority());
    setHostBundle("sandbox.unauthorized", "com.example.host");

    // Writing to a regular file would end the process: SIGXFSZ.
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit nothing{0, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &nothing), 0);
    askedCount = 0;
    NSErrorPtr error;
    ZMBApplication::configureApplication([&](bool, const NSErrorPtr& received) { error = received; });
    const bool hasCome =
        MainQueue::shared().runUntil([&] { return error != nullptr; }, std::chrono::seconds(30));
    const std::set<std::string> names(asked, asked + std::min(askedCount.load(), std::size(asked)));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);

    EXPECT_TRUE(hasCome);
    EXPECT_THAT(error, IsAuthError(2, "app_unauthorized_error"));
    const std::set<std::string> listed = {"LANGUAGE",  "LC_ALL",        "LC_MESSAGES",
                                          "LANG",      "https_proxy",   "HTTPS_PROXY",
                                          "all_proxy", "ALL_PROXY",     "no_proxy",
                                          "NO_PROXY",  "SSLKEYLOGFILE", "SIMDJSON_FORCE_IMPLEMENTATION"};
    EXPECT_TRUE(std::ranges::includes(listed, names)) << ::testing::PrintToString(names);
    EXPECT_TRUE(names.contains("https_proxy")) << "the record is of the exchange";
}

}  // namespace
}  // namespace zembra::test
