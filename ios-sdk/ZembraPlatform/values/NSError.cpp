#include <ostream>

#include <ZembraPlatform/NSError.h>

namespace zembra {

extern "C" {
const char NSUnderlyingErrorKey[] = "NSUnderlyingError";
const char NSLocalizedDescriptionKey[] = "NSLocalizedDescription";
}

NSError::NSError(std::string domain, NSInteger code, Value userInfo)
    : domain_(std::move(domain)),
      code_(code),
      userInfo_(userInfo.isDictionary() ? std::move(userInfo) : Value()) {}

NSError::~NSError() = default;

std::string NSError::localizedDescription() const {
    const Value& description = userInfo()[NSLocalizedDescriptionKey];
    if (const auto text = description.string(); text && !text->empty()) return std::string(*text);
    return "The operation could not be completed (" + domain() + ", code " + std::to_string(code()) + ").";
}

std::ostream& operator<<(std::ostream& stream, const NSError& error) {
    stream << error.domain() << ' ' << error.code() << " \"" << error.localizedDescription() << '"';
    // User information may hold any error, so also one that leads back here: the chain is cut, not followed
    // for ever.
    constexpr int kLongestChain = 8;
    auto underlying = error.userInfo()[NSUnderlyingErrorKey].as<NSError>();
    for (int link = 0; underlying && link < kLongestChain; ++link) {
        stream << ", caused by " << underlying->domain() << ' ' << underlying->code() << " \""
               << underlying->localizedDescription() << '"';
        underlying = underlying->userInfo()[NSUnderlyingErrorKey].as<NSError>();
    }
    return stream;
}

}  // namespace zembra
