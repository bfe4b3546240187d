// How the HTTP client's answers are judged and decoded; on the client's I/O thread.

#include <algorithm>
#include <mutex>
#include <utility>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/NSJSONSerialization.h>

#include "http/HTTPText.h"

namespace zembra {

namespace {

/// A content type without its parameters: "text/html" of "text/html; charset=utf-8".
std::string_view withoutParameters(std::string_view contentType) noexcept {
    return trimmed(contentType.substr(0, contentType.find(';')));
}

NSErrorPtr unacceptable(AFHTTPSessionErrorCode code, const std::shared_ptr<NSHTTPURLResponse>& response,
                        std::string text) {
    return NSError::errorWithDomain(
        AFHTTPSessionErrorDomain, code,
        Value::dictionary({{NSLocalizedDescriptionKey, text},
                           {AFNetworkingOperationFailingURLResponseErrorKey, Value(response)}}));
}

}  // namespace

struct ZEMBRA_HIDDEN AFHTTPResponseSerializer::State {
    mutable std::mutex mutex;
    std::set<std::string> acceptableContentTypes = {"application/json", "text/json", "text/javascript"};
};

AFHTTPResponseSerializer::AFHTTPResponseSerializer() : state_(std::make_unique<State>()) {}
AFHTTPResponseSerializer::~AFHTTPResponseSerializer() = default;

void AFHTTPResponseSerializer::setAcceptableContentTypes(std::set<std::string> types) {
    const std::lock_guard lock(state_->mutex);
    state_->acceptableContentTypes = std::move(types);
}

std::set<std::string> AFHTTPResponseSerializer::acceptableContentTypes() const {
    const std::lock_guard lock(state_->mutex);
    return state_->acceptableContentTypes;
}

Value AFHTTPResponseSerializer::responseObjectForResponse(const std::shared_ptr<NSHTTPURLResponse>& response,
                                                          std::string body, NSErrorPtr* error) const {
    const NSInteger status = response->statusCode();
    if (status < 200 || status > 299) {
        *error = unacceptable(AFHTTPSessionErrorUnacceptableStatus, response,
                              "The server answered with status " + std::to_string(status) + ".");
        return {};
    }

    const auto& fields = response->allHeaderFields();
    const auto field = fields.find("Content-Type");
    const std::string_view type = field == fields.end() ? "" : withoutParameters(field->second);
    const auto matches = [type](std::string_view acceptable) { return equalsIgnoringCase(type, acceptable); };
    if ((!type.empty() || !body.empty()) && std::ranges::none_of(acceptableContentTypes(), matches)) {
        *error =
            unacceptable(AFHTTPSessionErrorUnacceptableContentType, response,
                         type.empty() ? "The server's answer states no content type."
                                      : "The content type of the server's answer is not an acceptable one.");
        return {};
    }

    if (body.empty()) return {};
    NSErrorPtr decoderError;
    Value object = NSJSONSerialization::JSONObjectWithData(std::move(body), &decoderError);
    if (decoderError) {
        *error = NSError::errorWithDomain(
            AFHTTPSessionErrorDomain, AFHTTPSessionErrorCannotDecodeBody,
            Value::dictionary({{NSLocalizedDescriptionKey, "The body of the server's answer is not JSON."},
                               {NSUnderlyingErrorKey, Value(decoderError)}}));
        return {};
    }
    return object;
}

}  // namespace zembra
