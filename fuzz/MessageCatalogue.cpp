// A message catalogue of any bytes gives texts in UTF-8, or none. The first line of the input is a key to
// look up.

#include "bundles/MessageCatalogue.h"

#include <string>

#include <ZembraPlatform/NSString.h>

#include "Fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest = zembra::fuzz::textOf(data, size);
    const std::string_view key = zembra::fuzz::cutLine(rest);
    const auto catalogue = zembra::MessageCatalogue::parse(std::string(rest));
    if (!catalogue) return 0;
    FUZZ_ASSERT(!catalogue->find(""));
    for (const std::string_view wanted : {key, std::string_view("server_error")}) {
        const auto text = catalogue->find(wanted);
        FUZZ_ASSERT(!text || (zembra::isWellFormedUTF8(*text) && !text->empty()));
    }
    return 0;
}
