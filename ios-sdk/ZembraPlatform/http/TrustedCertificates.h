#pragma once

// Whom an HTTP client trusts; made on the thread of the client's caller, read by its I/O thread.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace zembra {

/// An immutable set of certificate authorities: the system's and those that the host added.
class TrustedCertificates {
public:
    /// The system's: those of `directory` where it has hashed entries (`*.0`), else those of the PEM file
    /// `file`. From such a directory the TLS library reads only what a server's chain needs; the file it
    /// parses whole, which makes 20 ms of a process's first exchange instead of 2.
    TrustedCertificates(const std::filesystem::path& directory, std::string file);

    /// The system's, where libcurl was built to look for them.
    [[nodiscard]] static std::shared_ptr<const TrustedCertificates> ofSystem();

    /// This set and the authorities in `file`, or in `pem`. Where they cannot be had, a set with a `problem`.
    [[nodiscard]] std::shared_ptr<const TrustedCertificates> withFile(
        const std::filesystem::path& file) const;
    [[nodiscard]] std::shared_ptr<const TrustedCertificates> withText(const std::string& pem) const;

    /// Where the system's are: one of the two is empty.
    [[nodiscard]] const std::string& directory() const noexcept { return directory_; }
    [[nodiscard]] const std::string& file() const noexcept { return file_; }

    /// PEM text of those that the host added.
    [[nodiscard]] const std::string& additions() const noexcept { return additions_; }

    /// Where they come from, for people: names of files.
    [[nodiscard]] const std::string& origin() const noexcept { return origin_; }

    /// Why there is no such set, for people; it names the file at fault.
    [[nodiscard]] const std::optional<std::string>& problem() const noexcept { return problem_; }

private:
    [[nodiscard]] std::shared_ptr<const TrustedCertificates> with(const std::string& origin,
                                                                  const std::string& pem,
                                                                  std::optional<std::string> problem) const;

    std::string directory_;
    std::string file_;
    std::string additions_;
    std::string origin_;
    std::optional<std::string> problem_;
};

}  // namespace zembra
