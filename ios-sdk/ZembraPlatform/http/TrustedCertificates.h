#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

/// The certificate authorities that a client trusts; not part of the public interface.
namespace zembra {

/// An immutable set of authorities: the system's and those that the host added.
///
/// It is handed to the TLS library as the name of a file, since that is the only form of which the library
/// keeps the parsed certificates: parsing the system's takes some 20 to 40 ms of processor time, which a text
/// in memory would cost for every connection. A set with additions lives in an anonymous file in memory.
class TrustedCertificates {
public:
    /// The system's, in the PEM file `systemFile`, which is not read here.
    explicit TrustedCertificates(std::string systemFile);
    ~TrustedCertificates();
    TrustedCertificates(const TrustedCertificates&) = delete;
    TrustedCertificates& operator=(const TrustedCertificates&) = delete;

    /// This set and the authorities in `file`, or in `pem`. Where they cannot be had, a set with a `problem`.
    [[nodiscard]] std::shared_ptr<const TrustedCertificates> withFile(
        const std::filesystem::path& file) const;
    [[nodiscard]] std::shared_ptr<const TrustedCertificates> withText(const std::string& pem) const;

    /// The name of a PEM file with all of them, valid as long as the set. Two sets never have the same name
    /// as long as both live. Empty where there is a `problem`.
    [[nodiscard]] const std::string& file() const noexcept { return file_; }

    /// Where they come from, for people: names of files.
    [[nodiscard]] const std::string& origin() const noexcept { return origin_; }

    /// Why there is no such set, for people; it names the file at fault.
    [[nodiscard]] const std::optional<std::string>& problem() const noexcept { return problem_; }

private:
    TrustedCertificates(const TrustedCertificates& base, const std::string& origin, const std::string& pem,
                        std::optional<std::string> problem);

    std::string origin_;
    std::string additions_;  // PEM text of what was added
    std::string systemFile_;
    std::string file_;
    int descriptor_ = -1;
    std::optional<std::string> problem_;
};

}  // namespace zembra
