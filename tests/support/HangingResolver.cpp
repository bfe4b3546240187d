#include "support/HangingResolver.h"

#include <chrono>
#include <string_view>
#include <thread>

#include <dlfcn.h>
#include <netdb.h>

/// Stands in for the C library's function in this program, libcurl's calls included.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* node, const char* service,
                                                                  const addrinfo* hints, addrinfo** result) {
    using zembra::test::kHangingHost;
    using Function = int(const char*, const char*, const addrinfo*, addrinfo**);
    static auto* const next = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    const std::string_view name = node ? node : "";
    if (name == zembra::test::kUnknownHost) return EAI_NONAME;
    if (name == kHangingHost) {
        std::this_thread::sleep_for(std::chrono::seconds(zembra::test::kResolverHang));
        return EAI_AGAIN;
    }
    return next(name == zembra::test::kLocalHost ? "127.0.0.1" : node, service, hints, result);
}
