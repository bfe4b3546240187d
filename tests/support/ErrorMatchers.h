#pragma once

#include <gmock/gmock.h>

#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>

namespace zembra::test {

MATCHER_P2(IsError, domain, code, "") {
    return arg && arg->domain() == domain && arg->code() == code;
}

/// An SDK error with a message: its key where the error's class has no texts.
MATCHER_P2(IsAuthError, code, message, "") {
    return ExplainMatchResult(IsError(ZMBSDKErrorDomainAuth, code), arg, result_listener) &&
           arg->userInfo()[kZMBSDKErrorInfoKey] == Value(message);
}

}  // namespace zembra::test
