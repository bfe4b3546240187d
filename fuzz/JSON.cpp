// JSON text of any bytes makes a value or an error; a value survives the way out and in again, and, screened,
// makes data objects.

#include <string>

#include <ZembraPlatform/NSJSONSerialization.h>

#include "Fuzz.h"

using namespace zembra;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::textOf(data, size);
    NSErrorPtr error;
    const Value value = NSJSONSerialization::JSONObjectWithData(text, &error);
    FUZZ_ASSERT(value.isNothing() == (error != nullptr));
    NSErrorPtr sameError;
    FUZZ_ASSERT(NSJSONSerialization::JSONObjectWithData(std::string(text), &sameError) == value);
    if (value.isNothing()) {
        const auto offset = error->userInfo()[NSJSONSerializationErrorOffsetKey].integer();
        FUZZ_ASSERT(offset && *offset >= 0 && static_cast<std::size_t>(*offset) <= size);
        FUZZ_ASSERT(sameError && sameError->code() == error->code());
        return 0;
    }
    const std::string written = NSJSONSerialization::dataWithJSONObject(value);
    const Value again = NSJSONSerialization::JSONObjectWithData(written, &error);
    FUZZ_ASSERT(again == value);
    FUZZ_ASSERT(NSJSONSerialization::dataWithJSONObject(again) == written);
    return 0;
}
