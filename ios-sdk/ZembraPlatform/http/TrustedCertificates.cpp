// Whom an HTTP client trusts: where the system keeps its authorities, and what the host added.

#include "http/TrustedCertificates.h"

#include <system_error>
#include <utility>

#include <curl/curl.h>

#include "system/FileContents.h"

namespace zembra {

namespace {

constexpr std::size_t kLargestFile = std::size_t{4} << 20;

/// Whether the TLS library finds authorities there by the hash of their names.
bool hasHashedEntries(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::directory_iterator entry(directory, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (entry->path().extension() == ".0") return true;
    }
    return false;
}

bool holdsCertificate(const std::string& pem) noexcept {
    return pem.find("-----BEGIN CERTIFICATE-----") != std::string::npos ||
           pem.find("-----BEGIN TRUSTED CERTIFICATE-----") != std::string::npos;
}

}  // namespace

TrustedCertificates::TrustedCertificates(const std::filesystem::path& directory, std::string file) {
    if (hasHashedEntries(directory))
        directory_ = directory.string();
    else
        file_ = std::move(file);
    origin_ = directory_ + file_;
}

std::shared_ptr<const TrustedCertificates> TrustedCertificates::ofSystem() {
    const auto orEmpty = [](const char* text) { return text ? text : ""; };
    const curl_version_info_data& libcurl = *::curl_version_info(CURLVERSION_NOW);
    return std::make_shared<TrustedCertificates>(orEmpty(libcurl.capath), orEmpty(libcurl.cainfo));
}

std::shared_ptr<const TrustedCertificates> TrustedCertificates::withFile(
    const std::filesystem::path& file) const {
    std::error_code error;
    const std::string pem = contentsOfFile(file, kLargestFile, error);
    std::optional<std::string> problem;
    if (error) problem = file.string() + " cannot be read: " + error.message();
    return with(file.string(), pem, std::move(problem));
}

std::shared_ptr<const TrustedCertificates> TrustedCertificates::withText(const std::string& pem) const {
    return with("the given text", pem, std::nullopt);
}

std::shared_ptr<const TrustedCertificates> TrustedCertificates::with(
    const std::string& origin, const std::string& pem, std::optional<std::string> problem) const {
    if (!problem && !holdsCertificate(pem)) problem = origin + " holds no PEM certificate";
    auto longer = std::make_shared<TrustedCertificates>(*this);
    longer->origin_ += ", " + origin;
    longer->additions_ += pem + '\n';
    if (!longer->problem_) longer->problem_ = std::move(problem);
    return longer;
}

}  // namespace zembra
