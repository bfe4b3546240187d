#include "http/TrustedCertificates.h"

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <system_error>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>

#include "system/FileContents.h"

namespace zembra {

namespace {

constexpr std::size_t kLargestFile = std::size_t{4} << 20;

bool writeAll(int descriptor, std::string_view text) noexcept {
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool holdsCertificate(const std::string& pem) noexcept {
    return pem.find("-----BEGIN CERTIFICATE-----") != std::string::npos ||
           pem.find("-----BEGIN TRUSTED CERTIFICATE-----") != std::string::npos;
}

}  // namespace

TrustedCertificates::TrustedCertificates(std::string systemFile)
    : origin_(systemFile), systemFile_(systemFile), file_(std::move(systemFile)) {}

TrustedCertificates::TrustedCertificates(const TrustedCertificates& base, const std::string& origin,
                                         const std::string& pem, std::optional<std::string> problem)
    : origin_(base.origin_ + ", " + origin),
      additions_(base.additions_ + pem + '\n'),
      systemFile_(base.systemFile_),
      problem_(std::move(problem)) {
    if (base.problem_) problem_ = base.problem_;
    if (problem_) return;
    if (!holdsCertificate(pem)) {
        problem_ = origin + " holds no PEM certificate";
        return;
    }
    // A system without authorities of its own (a bare container) still has the added ones.
    std::error_code ignored;
    const std::string all = contentsOfFile(systemFile_, kLargestFile, ignored) + '\n' + additions_;
    descriptor_ = ::memfd_create("zembra-certificates", MFD_CLOEXEC);
    if (descriptor_ == -1 || !writeAll(descriptor_, all)) {
        problem_ = origin + " cannot be added: " + std::generic_category().message(errno);
        return;
    }
    file_ = "/proc/self/fd/" + std::to_string(descriptor_);
}

TrustedCertificates::~TrustedCertificates() {
    if (descriptor_ != -1) ::close(descriptor_);
}

std::shared_ptr<const TrustedCertificates> TrustedCertificates::withFile(
    const std::filesystem::path& file) const {
    std::error_code error;
    const std::string pem = contentsOfFile(file, kLargestFile, error);
    std::optional<std::string> problem;
    if (error) problem = file.string() + " cannot be read: " + error.message();
    return std::shared_ptr<const TrustedCertificates>(
        new TrustedCertificates(*this, file.string(), pem, std::move(problem)));
}

std::shared_ptr<const TrustedCertificates> TrustedCertificates::withText(const std::string& pem) const {
    return std::shared_ptr<const TrustedCertificates>(
        new TrustedCertificates(*this, "the given text", pem, std::nullopt));
}

}  // namespace zembra
