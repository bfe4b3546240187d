// What a strict decoder, written independently, reads back from a form is what went in. Each line of the
// input is a field: its name, a tab, its value.

#include <algorithm>
#include <string>
#include <vector>

#include <ZembraSandbox/FormBody.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>

#include "Fuzz.h"

using namespace zembra;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<Value::Entry> entries;
    for (std::string_view rest = fuzz::textOf(data, size); !rest.empty();) {
        const std::string_view line = fuzz::cutLine(rest);
        const std::string_view name = line.substr(0, line.find('\t'));
        if (!name.empty()) entries.push_back({name, line.substr(std::min(name.size() + 1, line.size()))});
    }
    const Value parameters = Value::dictionary(std::move(entries));
    const std::string form = AFHTTPRequestSerializer::formWithParameters(parameters);
    const auto decoded = sandbox::decodedForm(form);
    FUZZ_ASSERT(decoded);
    FUZZ_ASSERT(decoded->size() == parameters.entries().size());
    for (std::size_t i = 0; i < decoded->size(); ++i) {
        FUZZ_ASSERT((*decoded)[i].first == parameters.entries()[i].key.string());
        FUZZ_ASSERT((*decoded)[i].second == parameters.entries()[i].value.string());
    }
    return 0;
}
