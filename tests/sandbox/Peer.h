#pragma once

#include <memory>
#include <string>
#include <vector>

#include <curl/curl.h>

namespace zembra::sandbox {

/// What a server made of one request, as libcurl saw it.
struct Reply {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string contentType;
    std::string headers;
    std::string body;
    double seconds = 0;
};

struct Call {
    std::string url;
    std::string authority = {};  ///< PEM text.
    std::string form = {};
    std::string method = "POST";
    std::vector<std::string> headers = {};
    long timeoutMilliseconds = 20000;
};

inline Reply send(const Call& call) {
    const auto append = +[](char* data, std::size_t, std::size_t size, void* text) {
        static_cast<std::string*>(text)->append(data, size);
        return size;
    };
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    curl_slist* headers = nullptr;
    for (const std::string& header : call.headers)
        headers = curl_slist_append(headers, header.c_str());
    curl_blob authority{const_cast<char*>(call.authority.data()), call.authority.size(), CURL_BLOB_NOCOPY};
    Reply reply;
    curl_easy_setopt(curl.get(), CURLOPT_URL, call.url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_CAINFO_BLOB, &authority);
    curl_easy_setopt(curl.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, call.form.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(call.form.size()));
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, call.method.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, call.timeoutMilliseconds);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, append);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &reply.headers);
    reply.code = curl_easy_perform(curl.get());
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.status);
    curl_easy_getinfo(curl.get(), CURLINFO_TOTAL_TIME, &reply.seconds);
    const char* contentType = nullptr;
    curl_easy_getinfo(curl.get(), CURLINFO_CONTENT_TYPE, &contentType);
    if (contentType != nullptr) reply.contentType = contentType;
    curl_slist_free_all(headers);
    return reply;
}

}  // namespace zembra::sandbox
