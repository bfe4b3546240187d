#pragma once

// Error objects: what failure callbacks get everywhere, and how they print; any thread.

#include <concepts>
#include <iosfwd>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <ZembraPlatform/Value.h>

namespace zembra {

class NSBundle;

/// The key of an error's user information under which the error that caused it stands.
extern "C" ZEMBRA_EXPORT const char NSUnderlyingErrorKey[];

/// The key of an error's user information under which a text for people stands.
extern "C" ZEMBRA_EXPORT const char NSLocalizedDescriptionKey[];

/// A failure: a domain, a code that has a meaning in it, and further information.
///
/// Errors are immutable and may be shared between threads. Their identity is observable: the underlying error
/// of an error is the very object that was put in. A module with messages of its own derives a class and
/// states its bundle with `ZMB_BUNDLE` (`NSBundle.h`); such a class inherits the constructor (`using
/// NSError::NSError`).
class ZEMBRA_EXPORT NSError : public NSObject {
public:
    /// `userInfo` is a dictionary or nothing; anything else counts as nothing. Absent (nothing) and empty (a
    /// dictionary without entries) user information differ.
    NSError(std::string domain, NSInteger code, Value userInfo = {});
    ~NSError() override;

    /// A new error of class `Error`, owned by the caller.
    template <std::derived_from<NSError> Error = NSError>
    [[nodiscard]] static std::shared_ptr<Error> errorWithDomain(std::string domain, NSInteger code,
                                                                Value userInfo = {}) {
        return std::make_shared<Error>(std::move(domain), code, std::move(userInfo));
    }

    [[nodiscard]] virtual const std::string& domain() const { return domain_; }
    [[nodiscard]] virtual NSInteger code() const { return code_; }
    [[nodiscard]] virtual const Value& userInfo() const { return userInfo_; }

    /// The text under `NSLocalizedDescriptionKey`, else one made of domain and code. Never empty.
    [[nodiscard]] std::string localizedDescription() const;

    /// The bundle of plain errors: the platform's own, never the host's. It has no texts.
    [[nodiscard]] static std::shared_ptr<NSBundle> zembraBundle(std::type_identity<NSError>);

    /// For people, on one line: domain and code, every text of the user information (the one under
    /// `NSLocalizedDescriptionKey` first and without its key), and then likewise the chain of underlying
    /// errors: `NSURLErrorDomain -1001 "The request timed out."`. It shows whatever texts stand there: put no
    /// secrets in.
    ZEMBRA_EXPORT friend std::ostream& operator<<(std::ostream& stream, const NSError& error);

private:
    const std::string domain_;
    const NSInteger code_;
    const Value userInfo_;
};

// Instantiated in the library, so that hosts without run-time types can ask, too.
extern template ZEMBRA_EXPORT std::shared_ptr<NSError> Value::as<NSError>() const;

/// How an error is handed around: owned together, `nullptr` where there is none.
using NSErrorPtr = std::shared_ptr<NSError>;

}  // namespace zembra
