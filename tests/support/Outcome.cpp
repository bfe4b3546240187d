#include "support/Outcome.h"

#include <chrono>

#include <curl/curl.h>

#include <ZembraPlatform/MainQueue.h>

#include "support/TLSServer.h"

namespace zembra::test {

std::unique_ptr<AFHTTPSessionManager> clientOf(const std::string& address) {
    auto client = std::make_unique<AFHTTPSessionManager>(NSURL::URLWithString(address));
    client->addTrustedCertificateAuthority(TLSServer::certificateAuthority());
    client->requestSerializer().setTimeoutInterval(std::chrono::seconds(20));
    return client;
}

bool keepsConnections() {
    return ::curl_version_info(CURLVERSION_NOW)->version_num >= 0x080100;
}

OutcomePtr startPOST(AFHTTPSessionManager& client, std::string_view path, const Value& parameters) {
    auto outcome = std::make_shared<Outcome>();
    client.POST(
        path, parameters, nullptr,
        [outcome](const auto&, const Value& object) {
            ++outcome->callbacks;
            outcome->object = object;
        },
        [outcome](const auto&, const NSErrorPtr& error) {
            ++outcome->callbacks;
            outcome->error = error;
        });
    return outcome;
}

const Outcome& await(const OutcomePtr& outcome) {
    using namespace std::chrono_literals;
    [[maybe_unused]] const bool came =
        MainQueue::shared().runUntil([&] { return outcome->callbacks > 0; }, 30s);
    return *outcome;
}

Outcome performPOST(AFHTTPSessionManager& client, std::string_view path, const Value& parameters) {
    return await(startPOST(client, path, parameters));
}

}  // namespace zembra::test
