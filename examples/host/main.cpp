// A complete host application: registers with the platform, refreshes a member's token, and rehearses what
// can fail. It brings its own server along (the sandbox), so it runs without a network.

#include <chrono>
#include <exception>
#include <functional>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSJSONSerialization.h>

#include "../SandboxHost.h"

using namespace std::chrono_literals;
using namespace zembra;

namespace {

/// How one exchange ended.
struct Ending {
    bool success = false;
    NSErrorPtr error;
    Value memberToken;
};

/// Starts an exchange, which hands how it ended to the function it is given, and drains the main queue until
/// it does.
Ending waitFor(const std::function<void(std::function<void(Ending)>)>& start) {
    std::optional<Ending> ending;
    start([&](Ending received) { ending = std::move(received); });
    if (!MainQueue::shared().runUntil([&] { return ending.has_value(); }, 30s))
        throw std::runtime_error("no callback came");
    return *std::move(ending);
}

Ending registerHost() {
    return waitFor([](auto done) {
        ZMBApplication::configureApplication([done](bool success, const NSErrorPtr& error) {
            done({success, error, {}});
        });
    });
}

Ending refreshMember(const std::string& refreshToken) {
    return waitFor([&](auto done) {
        ZMBSDKAuthManager::sharedManager()->refreshMemberToken(
            refreshToken,
            [done](const Value& memberToken) {
                done({true, nullptr, memberToken});
            },
            [done](const NSErrorPtr& error) {
                done({false, error, {}});
            });
    });
}

/// A token is a secret: what is shown is whether there is one.
const char* presence(const Value& token) {
    return token.isNothing() ? "absent" : "present";
}

void print(const std::string& what, const Ending& ending) {
    constexpr std::size_t kColumn = 28;
    std::cout << "  " << what << std::string(what.size() < kColumn ? kColumn - what.size() : 1, ' ');
    if (ending.success) {
        std::cout << "ok\n";
    } else if (!ending.error) {
        std::cout << "failed without an error\n";
    } else {
        std::cout << *ending.error << '\n';
    }
}

int failures = 0;

/// Prints how an exchange ended and counts it where it was to end otherwise: with success, or an error of
/// this domain and code.
void expect(const std::string& what, const Ending& ending, std::optional<NSInteger> code,
            const std::string& domain = ZMBSDKErrorDomainAuth) {
    print(what, ending);
    const bool isExpected =
        code ? ending.error && ending.error->domain() == domain && ending.error->code() == *code
             : ending.success;
    if (!isExpected) {
        std::cerr << "zembra-host: " << what << ": not as expected\n";
        ++failures;
    }
}

void setClientId(const Value& clientId) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{ZMBSDKClientIDKey, clientId}, {ZMBSDKBundleIdentifierKey, "com.example.host"}})));
}

int run() {
    const examples::SandboxHost sandbox;
    const auto manager = ZMBSDKAuthManager::sharedManager();

    std::cout << "Registering at " << sandbox.address() << '\n';
    expect("registration", registerHost(), std::nullopt);
    std::cout << "  account identifier          " << manager->accountId().text() << '\n'
              << "  app token                   " << presence(manager->token()) << '\n'
              << "  device                      "
              << hardwareString(UIDevice::currentDevice()).value_or("(null)") << ", "
              << platfromString(UIDevice::currentDevice()) << '\n';

    std::cout << "Refreshing a member's token\n";
    const Ending refreshed = refreshMember("sandbox.member");
    expect("refresh", refreshed, std::nullopt);
    std::cout << "  member token                " << presence(refreshed.memberToken) << '\n';
    expect("unknown member", refreshMember("no such refresh token"), ZMBSDKErrorServerSide);
    expect("expired member", refreshMember("sandbox.expired"), ZMBSDKErrorUnauthorized);

    std::cout << "Rehearsing failures of the registration\n";
    setClientId({});
    expect("no client identifier", registerHost(), ZMBSDKErrorWrongInformation);
    const struct {
        const char* clientId;
        ZMBSDKErrorCode code;
    } rehearsals[] = {
        {"sandbox.unauthorized", ZMBSDKErrorUnauthorized},
        {"sandbox.refused", ZMBSDKErrorServerSide},
        {"sandbox.broken", ZMBSDKErrorServerSide},
        {"sandbox.no-token", ZMBSDKErrorServerSide},
        {"sandbox.no-account-id", ZMBSDKErrorServerSide},
        {"sandbox.empty-body", ZMBSDKErrorServerSide},
        {"sandbox.wrong-content-type", ZMBSDKErrorServerSide},
        {"sandbox.array", ZMBSDKErrorServerSide},
        {"sandbox.truncated", ZMBSDKErrorNetwork},
        {"sandbox.reset", ZMBSDKErrorNetwork},
        {"sandbox.silent", ZMBSDKErrorNetwork},
    };
    for (const auto& [clientId, code] : rehearsals) {
        setClientId(clientId);
        expect(clientId, registerHost(), code);
    }
    // What the SDK has no error of its own for, it passes on: here the decoder's.
    setClientId("sandbox.not-json");
    expect("sandbox.not-json", registerHost(), NSJSONSerializationErrorMalformed,
           NSJSONSerializationErrorDomain);
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main() {
    try {
        return run();
    } catch (const std::exception& exception) {
        std::cerr << "zembra-host: " << exception.what() << '\n';
        return 1;
    }
}
