#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <ZembraPlatform/AFHTTPSessionManager.h>

namespace zembra::test {

/// An HTTP client that keeps the requests instead of sending them; a test answers them when it wants to.
class RecordingClient : public AFHTTPSessionManager {
public:
    struct Request {
        std::string path;
        Value parameters;
        NSHTTPURLResponse::HeaderFields headers;  // as they stood when the request was made
        bool hasProgress;
        Success success;
        Failure failure;

        void answer(const Value& response) const { success(nullptr, response); }
        void fail(const NSErrorPtr& error) const { failure(nullptr, error); }
    };

    RecordingClient() : AFHTTPSessionManager(NSURL::URLWithString("https://recording.example/api/v1/")) {}

    Task POST(std::string_view path, const Value& parameters, Progress progress, Success success,
              Failure failure) override {
        requests.push_back({std::string(path), parameters, requestSerializer().HTTPRequestHeaders(),
                            progress != nullptr, std::move(success), std::move(failure)});
        return nullptr;
    }

    std::vector<Request> requests;
};

}  // namespace zembra::test
