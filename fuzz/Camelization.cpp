// Camelization agrees with a plain model of its rule, whichever of its ways a key takes. The key stands in a
// block of its own size, so that the address sanitizer sees every byte read beyond it.

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSString.h>

#include "Fuzz.h"

using namespace zembra;

namespace {

struct Model {
    bool ends = true;
    std::optional<std::string> result;
};

/// The rule as it is told, byte by byte, with a buffer of its own.
Model modelOf(std::string_view key) {
    if (!isWellFormedUTF8(key)) return {};
    std::size_t units = 0;
    for (const char c : key) {
        const auto byte = static_cast<unsigned char>(c);
        units += (byte & 0xC0) == 0x80 ? 0 : byte >= 0xF0 ? 2 : 1;
    }
    std::string buffer;
    for (std::size_t i = 0; i < units; ++i) {
        const char c = key[i];
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) {
            buffer += c;
            continue;
        }
        if (++i == units) return {false, {}};
        const char next = key[i];
        buffer += next >= 'a' && next <= 'z' ? static_cast<char>(next - 'a' + 'A') : next;
    }
    buffer.resize(std::min(buffer.find('\0'), buffer.size()));
    if (!isWellFormedUTF8(buffer)) return {};
    return {true, buffer};
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto block = std::make_unique<char[]>(size);
    std::copy_n(data, size, block.get());
    const std::string_view key(block.get(), size);
    const Model model = modelOf(key);
    FUZZ_ASSERT(camelizationEnds(key) == model.ends);
    if (model.ends) FUZZ_ASSERT(camelizedString(key) == model.result);
    return 0;
}
