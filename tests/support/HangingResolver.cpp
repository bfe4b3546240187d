#include "support/HangingResolver.h"

#include <chrono>
#include <string_view>
#include <thread>

#include <dlfcn.h>
#include <netdb.h>

/// Stands in for the C library's function in this program, libcurl's calls included.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* node, const char* service,
                                                                  const addrinfo* hints, addrinfo** result) {
    static const auto next = reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    const std::string_view name = node ? node : "";
    if (name == zembra::test::kUnknownHost) return EAI_NONAME;
    for (const auto& [host, addresses] : zembra::test::kHostsOfSeveralAddresses) {
        if (name != host) continue;
        for (const char* const address : addresses) {
            if (const int error = next(address, service, hints, result)) return error;
            while (*result)
                result = &(*result)->ai_next;
        }
        return 0;
    }
    if (name != zembra::test::kHangingHost) return next(node, service, hints, result);
    std::this_thread::sleep_for(std::chrono::seconds(6));
    return EAI_AGAIN;
}
