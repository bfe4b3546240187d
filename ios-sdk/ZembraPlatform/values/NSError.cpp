// Error objects and their printed form; any thread.

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

template std::shared_ptr<NSError> Value::as<NSError>() const;

std::string NSError::localizedDescription() const {
    const Value& description = userInfo()[NSLocalizedDescriptionKey];
    if (const auto text = description.string(); text && !text->empty()) return std::string(*text);
    return "The operation could not be completed (" + domain() + ", code " + std::to_string(code()) + ").";
}

namespace {

/// Prints an error without its chain. Keys and texts are printed as JSON: quoted, control characters escaped.
void print(std::ostream& stream, const NSError& error) {
    stream << error.domain() << ' ' << error.code();
    const Value& userInfo = error.userInfo();
    if (const Value& description = userInfo[NSLocalizedDescriptionKey]; description.isString())
        stream << ' ' << description;
    for (const auto& [key, value] : userInfo.entries())
        if (value.isString() && key != NSLocalizedDescriptionKey) stream << ", " << key << ": " << value;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const NSError& error) {
    print(stream, error);
    // An error's user information may hold any error, also one that leads back here: the chain is cut after
    // some links.
    constexpr int kLongestChain = 8;
    auto underlying = error.userInfo()[NSUnderlyingErrorKey].as<NSError>();
    for (int link = 0; underlying && link < kLongestChain; ++link) {
        print(stream << ", caused by ", *underlying);
        underlying = underlying->userInfo()[NSUnderlyingErrorKey].as<NSError>();
    }
    return stream;
}

}  // namespace zembra
