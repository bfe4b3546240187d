#pragma once

#include <functional>
#include <string>
#include <vector>

#include <ZembraPlatform/NSError.h>

namespace zembra::test {

/// One way in which a request of `AFHTTPSessionManager` can fail.
struct ClientFault {
    std::string name;
    std::string domain;
    NSInteger code;
    std::string textHolds;                ///< What the error's text names.
    std::function<NSErrorPtr()> provoke;  ///< Makes it happen, over real TLS on the loopback interface.
};

/// All of them. The program needs `HangingResolver.cpp`.
std::vector<ClientFault> clientFaults();

/// The parameter and the header value that every one of these requests carries: a secret.
inline constexpr char kSecret[] = "c0ffee-s3cret";

}  // namespace zembra::test
