#pragma once

// A client of the sandbox over plain libcurl, for the sandbox's tests.

#include <memory>
#include <string>
#include <vector>

#include <curl/curl.h>

namespace zembra::sandbox {

/// What a server made of one request, as libcurl saw it.
struct Reply {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string headers;
    std::string body;
};

/// Sends a form to a server whose certificate must come from `authority` (PEM text).
inline Reply send(const std::string& url, const std::string& authority, const std::string& form,
                  const std::vector<std::string>& headers = {}, const char* method = "POST") {
    const auto append = +[](char* data, std::size_t, std::size_t size, void* text) {
        static_cast<std::string*>(text)->append(data, size);
        return size;
    };
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    const auto set = [&](CURLoption option, auto value) { curl_easy_setopt(curl.get(), option, value); };
    curl_slist* list = nullptr;
    for (const std::string& header : headers)
        list = curl_slist_append(list, header.c_str());
    curl_blob authorities{const_cast<char*>(authority.data()), authority.size(), CURL_BLOB_NOCOPY};
    Reply reply;
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_CAINFO_BLOB, &authorities);
    set(CURLOPT_NOPROXY, "*");
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_POSTFIELDS, form.c_str());
    set(CURLOPT_CUSTOMREQUEST, method);
    set(CURLOPT_HTTPHEADER, list);
    set(CURLOPT_TIMEOUT, 60L);
    set(CURLOPT_WRITEFUNCTION, append);
    set(CURLOPT_WRITEDATA, &reply.body);
    set(CURLOPT_HEADERFUNCTION, append);
    set(CURLOPT_HEADERDATA, &reply.headers);
    reply.code = curl_easy_perform(curl.get());
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.status);
    curl_slist_free_all(list);
    return reply;
}

}  // namespace zembra::sandbox
