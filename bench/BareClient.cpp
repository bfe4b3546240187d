#include "BareClient.h"

#include <curl/curl.h>

namespace zembra::bench {

BareClient::BareClient(const std::string& address, const std::string& authorityFile,
                       const std::string& authorityDirectory, const Fields& fields)
    : easy_(curl_easy_init()) {
    auto* headers = curl_slist_append(nullptr, "Expect:");
    for (const auto& [name, value] : fields)
        headers = curl_slist_append(headers, (name + ": " + value).c_str());
    headers_ = headers;
    const auto append = +[](char* data, std::size_t, std::size_t size, void* answer) {
        static_cast<std::string*>(answer)->append(data, size);
        return size;
    };
    const char* const directory = authorityDirectory.empty() ? nullptr : authorityDirectory.c_str();
    curl_easy_setopt(easy_, CURLOPT_URL, address.c_str());
    curl_easy_setopt(easy_, CURLOPT_CAINFO, authorityFile.c_str());
    curl_easy_setopt(easy_, CURLOPT_CAPATH, directory);
    curl_easy_setopt(easy_, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(easy_, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &answer_);
}

BareClient::~BareClient() {
    curl_easy_cleanup(easy_);
    curl_slist_free_all(static_cast<curl_slist*>(headers_));
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
