#pragma once

#include <ostream>
#include <string_view>

#include <gmock/gmock.h>

#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>

namespace zembra {

/// How gtest shows an error in a failure.
inline void PrintTo(const NSErrorPtr& error, std::ostream* stream) {
    if (error)
        *stream << *error;
    else
        *stream << "no error";
}

}  // namespace zembra

namespace zembra::test {

MATCHER_P2(IsError, domain, code, "") {
    const NSErrorPtr error = arg;
    return error && error->domain() == domain && error->code() == code;
}

/// An SDK error with a message: its key where the error's class has no texts.
MATCHER_P2(IsAuthError, code, message, "") {
    const NSErrorPtr error = arg;
    return error && error->domain() == ZMBSDKErrorDomainAuth && error->code() == code &&
           error->userInfo()[kZMBSDKErrorInfoKey] == Value(message);
}

}  // namespace zembra::test
