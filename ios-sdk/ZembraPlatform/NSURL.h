#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <ZembraPlatform/Value.h>

namespace zembra {

/// The domain of failures of the network layer: no answer came. The codes are `NSURLErrorCode`.
extern "C" ZEMBRA_EXPORT const char NSURLErrorDomain[];

/// The domain of failures of the layer below it. Recognised, never made, by this library.
extern "C" ZEMBRA_EXPORT const char kCFErrorDomainCFNetwork[];

/// Codes of `NSURLErrorDomain`. They are permanent; texts may change.
enum NSURLErrorCode : NSInteger {
    NSURLErrorUnknown = -1,
    NSURLErrorCancelled = -999,
    NSURLErrorBadURL = -1000,
    NSURLErrorTimedOut = -1001,
    NSURLErrorUnsupportedURL = -1002,
    NSURLErrorCannotFindHost = -1003,
    NSURLErrorCannotConnectToHost = -1004,
    NSURLErrorNetworkConnectionLost = -1005,
    NSURLErrorBadServerResponse = -1011,
    NSURLErrorCannotDecodeContentData = -1016,
    NSURLErrorDataLengthExceedsMaximum = -1103,
    NSURLErrorSecureConnectionFailed = -1200,
    NSURLErrorServerCertificateHasBadDate = -1201,
    NSURLErrorServerCertificateUntrusted = -1202,
    NSURLErrorServerCertificateHasUnknownRoot = -1203,
    NSURLErrorServerCertificateNotYetValid = -1204,
    NSURLErrorClientCertificateRejected = -1205,
    NSURLErrorCannotLoadFromNetwork = -2000,
};

/// The text of a URL. Any text makes one; a request to what is no URL fails with `NSURLErrorBadURL`.
class ZEMBRA_EXPORT NSURL {
public:
    [[nodiscard]] static NSURL URLWithString(std::string text) { return NSURL(std::move(text)); }

    [[nodiscard]] const std::string& absoluteString() const noexcept { return text_; }

private:
    explicit NSURL(std::string text) : text_(std::move(text)) {}

    std::string text_;
};

/// An HTTP server's answer without its body. Immutable; may be shared between threads.
class ZEMBRA_EXPORT NSHTTPURLResponse : public NSObject {
public:
    /// Header names compare without regard to case.
    struct FieldNameLess {
        using is_transparent = void;
        bool operator()(std::string_view a, std::string_view b) const noexcept;
    };
    using HeaderFields = std::map<std::string, std::string, FieldNameLess>;

    NSHTTPURLResponse(NSURL url, NSInteger statusCode, HeaderFields headerFields);
    ~NSHTTPURLResponse() override;

    [[nodiscard]] const NSURL& URL() const noexcept { return url_; }
    [[nodiscard]] NSInteger statusCode() const noexcept { return statusCode_; }

    /// A field that came several times holds its values joined by ", ".
    [[nodiscard]] const HeaderFields& allHeaderFields() const noexcept { return headerFields_; }

private:
    const NSURL url_;
    const NSInteger statusCode_;
    const HeaderFields headerFields_;
};

// Instantiated in the library, so that hosts without run-time types can ask, too.
extern template ZEMBRA_EXPORT std::shared_ptr<NSHTTPURLResponse> Value::as<NSHTTPURLResponse>() const;

}  // namespace zembra
