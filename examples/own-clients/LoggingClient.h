#pragma once

// A client that tells on std::cerr which HTTP status is behind a failure: a header to copy into a host.

#include <iostream>
#include <memory>
#include <string>

#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

class LoggingClient : public zembra::AFHTTPSessionManager {
public:
    using AFHTTPSessionManager::AFHTTPSessionManager;

    Task POST(std::string_view path, const zembra::Value& parameters, Progress progress, Success success,
              Failure failure) override {
        auto logged = [path = std::string(path), failure](const Task& task, const zembra::NSErrorPtr& error) {
            const zembra::Value& response =
                error->userInfo()[zembra::AFNetworkingOperationFailingURLResponseErrorKey];
            if (const auto answer = response.as<zembra::NSHTTPURLResponse>())
                std::cerr << path << ": status " << answer->statusCode() << '\n';
            failure(task, error);
        };
        return AFHTTPSessionManager::POST(path, parameters, progress, success, logged);
    }
};

/// Puts it in place before the SDK sets the client up. Call sharedManager<LoggingManager>() before anything
/// else of the SDK.
class LoggingManager : public zembra::ZMBSDKAuthManager {
    void setAuthClient(std::shared_ptr<zembra::AFHTTPSessionManager> client) override {
        ZMBSDKAuthManager::setAuthClient(client ? std::make_shared<LoggingClient>(client->baseURL())
                                                : nullptr);
    }
};
