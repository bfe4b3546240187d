// A bundle configuration of any bytes makes a dictionary, or nothing and a reason.

#include <string>

#include "Fuzz.h"
#include "bundles/NSPropertyList.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string reason;
    const zembra::Value dictionary =
        zembra::dictionaryWithPropertyList(zembra::fuzz::textOf(data, size), reason);
    FUZZ_ASSERT(dictionary.isDictionary() || dictionary.isNothing());
    FUZZ_ASSERT(dictionary.isNothing() == !reason.empty());
    return 0;
}
