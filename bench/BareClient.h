#pragma once

#include <string>
#include <utility>
#include <vector>

/// What the SDK is measured against; not part of the SDK.
namespace zembra::bench {

/// One libcurl easy handle that posts forms to one address over HTTPS and reads each answer into a string:
/// the least that a host would write without the SDK. One thread at a time.
class BareClient {
public:
    using Fields = std::vector<std::pair<std::string, std::string>>;

    /// Sends `fields` with every request. Trusts the authorities in `authorityFile`, PEM text, and those of
    /// `authorityDirectory`, hashed, if it is not empty.
    BareClient(const std::string& address, const std::string& authorityFile,
               const std::string& authorityDirectory, const Fields& fields = {});
    ~BareClient();
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    /// Posts a form; false where no answer came or its status is not 200.
    [[nodiscard]] bool post(const std::string& form);

private:
    void* const easy_;
    void* headers_ = nullptr;
    std::string answer_;
};

}  // namespace zembra::bench
