// What a plain libcurl application sets on every easy handle in the baselines:
// the protocol choices netloop fixes for its own transfers (HTTP/2 over TLS
// through ALPN, TLS up to 1.3, no signals), so both sides speak alike.
#pragma once

#include <curl/curl.h>

#include <string>

#include "common/BenchUtil.h"

namespace bench {

inline void SetPlainOptions(CURL* easy, const char* url) {
    curl_easy_setopt(easy, CURLOPT_URL, url);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(easy, CURLOPT_SSL_ENABLE_ALPN, 1L);
    curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_MAX_TLSv1_3));
}

// Write callback appending to a std::string, as netloop keeps a response.
inline size_t AppendToString(char* data, size_t size, size_t nmemb, void* userp) {
    static_cast<std::string*>(userp)->append(data, size * nmemb);
    return size * nmemb;
}

// Runs `easy` on `multi` with a curl_multi_poll loop until it ends or
// `limitSeconds` have passed; answers its result, CURLE_AGAIN when time ran out.
// The handle stays on `multi`.
inline CURLcode PerformOnMulti(CURLM* multi, CURL* easy, double limitSeconds) {
    const double t0 = Now();
    curl_multi_add_handle(multi, easy);
    CURLcode result = CURLE_AGAIN;
    for (;;) {
        int running = 0;
        curl_multi_perform(multi, &running);
        int left = 0;
        while (CURLMsg* msg = curl_multi_info_read(multi, &left))
            if (msg->msg == CURLMSG_DONE) result = msg->data.result;
        if (result != CURLE_AGAIN || Now() - t0 > limitSeconds) return result;
        curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
}

}  // namespace bench
