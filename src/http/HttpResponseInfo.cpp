// What a finished transfer tells beyond its body: response headers, libcurl's
// error text and the figures of the transfer. Headers and figures are read from
// the easy handle when asked, so a transfer nobody asks about copies nothing.
#include "http/HttpHandle.h"

namespace netloop {

void CHttpHandle::BeginTransfer() {
    Transfer().m_ErrorText.clear();
    Transfer().m_BodyBytes = 0;
    Transfer().m_BodyRefused = false;
}

void CHttpHandle::OnTransferEnded(CURLcode result) {
    // A reason the library found itself (a body past the cap, a failed write,
    // a failed WebSocket) stands: libcurl would only say that its callback
    // refused the bytes. libcurl's words fill in the rest.
    if (Transfer().m_ErrorText.empty() && result != CURLE_OK && Transfer().m_CurlError) Transfer().m_ErrorText = Transfer().m_CurlError.get();
}

const std::string& CHttpHandle::GetErrorText() {
    const TransferState* transfer = TransferIfAny();
    return transfer != nullptr ? transfer->m_ErrorText : NoText();
}

// The final response of an HTTP transfer is what libcurl files as plain
// headers and trailers; a WebSocket's final response is its 101, which libcurl
// files among the 1xx ones.
unsigned int CHttpHandle::HeaderOrigin() const {
    return m_ReqType == HTTP_REQ_WEBSOCKET ? (CURLH_HEADER | CURLH_1XX) : (CURLH_HEADER | CURLH_TRAILER);
}

bool CHttpHandle::GetResponseHeader(const char* name, std::string& value) {
    if (name == nullptr || m_Curl == nullptr) return false;
    curl_header* header = nullptr;
    if (curl_easy_header(m_Curl, name, 0, HeaderOrigin(), -1, &header) != CURLHE_OK) return false;
    // libcurl counts the instances of the name; the last one is the one that holds.
    if (header->amount > 1 && curl_easy_header(m_Curl, name, header->amount - 1, HeaderOrigin(), -1, &header) != CURLHE_OK)
        return false;
    value = header->value;
    return true;
}

size_t CHttpHandle::GetResponseHeaderValues(const char* name, std::vector<std::string>& values) {
    values.clear();
    if (name == nullptr || m_Curl == nullptr) return 0;
    curl_header* header = nullptr;
    if (curl_easy_header(m_Curl, name, 0, HeaderOrigin(), -1, &header) != CURLHE_OK) return 0;
    const size_t amount = header->amount;
    values.reserve(amount);
    values.emplace_back(header->value);
    for (size_t i = 1; i < amount; ++i) {
        if (curl_easy_header(m_Curl, name, i, HeaderOrigin(), -1, &header) != CURLHE_OK) break;
        values.emplace_back(header->value);
    }
    return values.size();
}

void CHttpHandle::GetResponseHeaderList(std::vector<std::pair<std::string, std::string>>& out, bool allResponses) {
    out.clear();
    if (m_Curl == nullptr) return;
    if (!allResponses) {
        AppendHeaders(HeaderOrigin(), -1, out);
        return;
    }
    const unsigned int every = CURLH_HEADER | CURLH_TRAILER | CURLH_CONNECT | CURLH_1XX;
    // Requests are numbered from 0. Whether one exists is what libcurl tells
    // for any name; past the last it answers NOREQUEST (NOHEADERS when there
    // were none at all).
    curl_header* probe = nullptr;
    for (int request = 0;; ++request) {
        const CURLHcode rc = curl_easy_header(m_Curl, "-", 0, every, request, &probe);
        if (rc != CURLHE_OK && rc != CURLHE_MISSING && rc != CURLHE_BADINDEX) return;
        AppendHeaders(every, request, out);
    }
}

void CHttpHandle::AppendHeaders(unsigned int origin, int request,
                                std::vector<std::pair<std::string, std::string>>& out) {
    for (curl_header* h = curl_easy_nextheader(m_Curl, origin, request, nullptr); h != nullptr;
         h = curl_easy_nextheader(m_Curl, origin, request, h))
        out.emplace_back(h->name, h->value);
}

namespace {

// Whether `field` of `info` lies within the caller's structSize.
template <typename T>
bool Fits(const HttpTransferInfo* info, const T* field) {
    const size_t end = static_cast<size_t>(reinterpret_cast<const char*>(field + 1) -
                                           reinterpret_cast<const char*>(info));
    return end <= info->structSize;
}

template <typename T>
void ReadInfo(CURL* curl, CURLINFO what, const HttpTransferInfo* info, T* field) {
    if (!Fits(info, field)) return;
    T value{};
    if (curl_easy_getinfo(curl, what, &value) == CURLE_OK) *field = value;
}

void ReadText(CURL* curl, CURLINFO what, const HttpTransferInfo* info, std::string* field) {
    if (!Fits(info, field)) return;
    char* text = nullptr;
    if (curl_easy_getinfo(curl, what, &text) == CURLE_OK && text != nullptr) *field = text;
    else field->clear();
}

long VersionNumber(long curlVersion) {
    switch (curlVersion) {
        case CURL_HTTP_VERSION_1_0: return 10;
        case CURL_HTTP_VERSION_1_1: return 11;
        case CURL_HTTP_VERSION_2_0: return 20;
        case CURL_HTTP_VERSION_3: return 30;
        default: return 0;
    }
}

}  // namespace

int CHttpHandle::GetTransferInfo(HttpTransferInfo* info) {
    if (info == nullptr || m_Curl == nullptr || info->structSize < sizeof(info->structSize)) return -1;
    if (Fits(info, &info->httpVersion)) {
        long version = 0;
        curl_easy_getinfo(m_Curl, CURLINFO_HTTP_VERSION, &version);
        info->httpVersion = VersionNumber(version);
    }
    ReadText(m_Curl, CURLINFO_EFFECTIVE_URL, info, &info->effectiveUrl);
    ReadText(m_Curl, CURLINFO_PRIMARY_IP, info, &info->remoteIp);
    ReadInfo(m_Curl, CURLINFO_PRIMARY_PORT, info, &info->remotePort);
    if (Fits(info, &info->remotePort) && info->remotePort < 0) info->remotePort = 0;  // libcurl's "none"
    ReadInfo(m_Curl, CURLINFO_NAMELOOKUP_TIME_T, info, &info->nameLookupUs);
    ReadInfo(m_Curl, CURLINFO_CONNECT_TIME_T, info, &info->connectUs);
    ReadInfo(m_Curl, CURLINFO_APPCONNECT_TIME_T, info, &info->tlsUs);
    ReadInfo(m_Curl, CURLINFO_STARTTRANSFER_TIME_T, info, &info->firstByteUs);
    ReadInfo(m_Curl, CURLINFO_TOTAL_TIME_T, info, &info->totalUs);
    ReadInfo(m_Curl, CURLINFO_SIZE_UPLOAD_T, info, &info->bytesSent);
    ReadInfo(m_Curl, CURLINFO_SIZE_DOWNLOAD_T, info, &info->bytesReceived);
    return 0;
}

}  // namespace netloop
