#include "BareClient.h"

#include <fstream>

#include <curl/curl.h>
#include <unistd.h>

namespace zembra::bench {

BareClient::BareClient(const std::string& address, const std::string& authority, const Fields& fields)
    : easy_(curl_easy_init()),
      authorityFile_(std::filesystem::temp_directory_path() /
                     ("zembra-bench-" + std::to_string(getpid()) + ".pem")) {
    std::ofstream file(authorityFile_);
    if (const char* const system = curl_version_info(CURLVERSION_NOW)->cainfo)
        file << std::ifstream(system).rdbuf();
    file << authority;
    file.close();

    auto* headers = curl_slist_append(nullptr, "Expect:");
    for (const auto& [name, value] : fields)
        headers = curl_slist_append(headers, (name + ": " + value).c_str());
    headers_ = headers;
    const auto append = +[](char* data, std::size_t, std::size_t size, void* answer) {
        static_cast<std::string*>(answer)->append(data, size);
        return size;
    };
    curl_easy_setopt(easy_, CURLOPT_URL, address.c_str());
    curl_easy_setopt(easy_, CURLOPT_CAINFO, authorityFile_.c_str());
    curl_easy_setopt(easy_, CURLOPT_CAPATH, nullptr);  // with it the file is parsed for every connection
    curl_easy_setopt(easy_, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &answer_);
    setCompressed(true);
}

BareClient::~BareClient() {
    curl_easy_cleanup(easy_);
    curl_slist_free_all(static_cast<curl_slist*>(headers_));
    std::filesystem::remove(authorityFile_);
}

void BareClient::setCompressed(bool isCompressed) {
    curl_easy_setopt(easy_, CURLOPT_ACCEPT_ENCODING, isCompressed ? "" : "identity");
}

bool BareClient::post(const std::string& form) {
    answer_.clear();
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, form.c_str());
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE, static_cast<long>(form.size()));
    long status = 0;
    return curl_easy_perform(easy_) == CURLE_OK &&
           curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status == 200;
}

}  // namespace zembra::bench
