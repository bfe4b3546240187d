// The answer of a hostile server: a value, or an error of which the SDK makes one for the caller. The first
// line of the input is the status, the lines up to an empty one are header fields, the rest is the body.

#include <charconv>
#include <memory>
#include <string>
#include <utility>

#include <ZembraCoreSDK/NSError+ZMBUtility.h>
#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>

#include "Fuzz.h"

using namespace zembra;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const AFHTTPResponseSerializer reader;
    std::string_view rest = fuzz::textOf(data, size);

    const std::string_view statusLine = fuzz::cutLine(rest);
    NSInteger status = 200;
    std::from_chars(statusLine.data(), statusLine.data() + statusLine.size(), status);
    NSHTTPURLResponse::HeaderFields fields;
    for (std::string_view line; !(line = fuzz::cutLine(rest)).empty();) {
        const std::size_t colon = line.find(':');
        if (colon != std::string_view::npos) fields.emplace(line.substr(0, colon), line.substr(colon + 1));
    }
    const std::string_view body = rest;
    const auto response = std::make_shared<NSHTTPURLResponse>(
        NSURL::URLWithString("https://api.zembra.example/"), status, std::move(fields));

    NSErrorPtr error;
    const Value object = reader.responseObjectForResponse(response, std::string(body), &error);
    if (!error) {
        FUZZ_ASSERT(status >= 200 && status <= 299);
        FUZZ_ASSERT(object.isNothing() == body.empty());
        return 0;
    }
    FUZZ_ASSERT(object.isNothing());
    FUZZ_ASSERT(error->domain() == AFHTTPSessionErrorDomain);
    const NSErrorPtr told = ZMBAuthError(error);
    FUZZ_ASSERT(told);
    if (error->code() == AFHTTPSessionErrorCannotDecodeBody) {
        FUZZ_ASSERT(told == error->userInfo()[NSUnderlyingErrorKey].as<NSError>());
        return 0;
    }
    const auto carried = error->userInfo()[AFNetworkingOperationFailingURLResponseErrorKey];
    FUZZ_ASSERT(carried.as<NSHTTPURLResponse>() == response);
    FUZZ_ASSERT(told->domain() == ZMBSDKErrorDomainAuth);
    FUZZ_ASSERT(told->code() == (status == 401 ? ZMBSDKErrorUnauthorized : ZMBSDKErrorServerSide));
    return 0;
}
