#include "http/HttpHandle.h"

#include <new>

#include "frame/HttpFrame.h"
#include "frame/NetLog.h"

namespace netloop {

std::shared_ptr<IHttpHandleInterface> IHttpHandleInterface::Create() { return std::make_shared<CHttpHandle>(); }

CHttpHandle::CHttpHandle() = default;

CHttpHandle::~CHttpHandle() {
    // While m_Self exists nobody can drop the last reference, so this finds the
    // handle idle and touches no libcurl object; it is here for completeness.
    ReleaseTransfer();
    delete m_Transfer.load(std::memory_order_acquire);
}

CHttpHandle::TransferState& CHttpHandle::Transfer() const {
    TransferState* state = m_Transfer.load(std::memory_order_acquire);
    if (state != nullptr) return *state;
    // Two threads may get here at once: the first to store its block wins.
    auto* made = new TransferState();
    if (m_Transfer.compare_exchange_strong(state, made, std::memory_order_acq_rel, std::memory_order_acquire))
        return *made;
    delete made;
    return *state;
}

// ---------------------------------------------------------------------------
// Arming

namespace {

struct LongOption {
    CURLoption option;
    long value;
    const char* failure;
};

}  // namespace

int CHttpHandle::InitHttpReq(const char* url, const char* tag, int reqType, std::shared_ptr<IHttpHandleNotic> notic,
                             int connectTimeoutMs, int timeoutMs, void* userData) {
    if (url == nullptr) return -1;
    int32_t expected = HTTP_HANDLE_IDLE;
    if (!m_State.compare_exchange_strong(expected, HTTP_HANDLE_INITIALIZING)) return -1;
    m_Curl = curl_easy_init();
    if (m_Curl == nullptr) {
        m_State.exchange(HTTP_HANDLE_IDLE);
        return -1;
    }
    m_Self = shared_from_this();
    if (!SetCommonOptions(url, connectTimeoutMs, timeoutMs) || !SetRequestType(reqType)) {
        FailInit();
        return -1;
    }
    TransferState* transfer = TransferIfAny();
    if (transfer == nullptr && tag != nullptr && *tag != '\0') transfer = &Transfer();
    if (transfer != nullptr) {
        transfer->m_Tag = tag != nullptr ? tag : "";
        transfer->m_ErrorText.clear();
        transfer->m_MaxBody = 0;
        transfer->m_BodyBytes = 0;
        transfer->m_BodyRefused = false;
    }
    m_Url = url;
    m_ReqType = reqType;
    m_Notic = std::move(notic);
    m_UserData = userData;
    m_State.exchange(HTTP_HANDLE_READY);
    return 0;
}

bool CHttpHandle::SetCommonOptions(const char* url, int connectTimeoutMs, int timeoutMs) {
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_URL, url);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_URL[%s] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), url);
        return false;
    }
    std::string pin = BuildAddressPin(url);
    if (!pin.empty()) {
        curl_slist* list = curl_slist_append(m_ResolveSlist, pin.c_str());
        if (list != nullptr) m_ResolveSlist = list;
        rc = list != nullptr ? curl_easy_setopt(m_Curl, CURLOPT_RESOLVE, m_ResolveSlist) : CURLE_OUT_OF_MEMORY;
        if (rc != CURLE_OK) {
            WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_RESOLVE[%s] failed", static_cast<int>(rc),
                        curl_easy_strerror(rc), pin.c_str());
            return false;
        }
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_NOSIGNAL, 1L);
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_NOSIGNAL[%d] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), 1);
        return false;
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutMs));
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_TIMEOUT_MS[%d] failed", static_cast<int>(rc),
                    curl_easy_strerror(rc), timeoutMs);
        return false;
    }
    rc = curl_easy_setopt(m_Curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectTimeoutMs));
    if (rc != CURLE_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_CONNECTTIMEOUT_MS[%d] failed",
                    static_cast<int>(rc), curl_easy_strerror(rc), connectTimeoutMs);
        return false;
    }
    struct PointerOption {
        CURLoption option;
        void* value;
        const char* failure;
    };
    const PointerOption pointers[] = {
        {CURLOPT_PRIVATE, &m_Self, "[NETLOOP]err[%d:%s]curl set CURLOPT_PRIVATE failed"},
        {CURLOPT_WRITEFUNCTION, reinterpret_cast<void*>(&CurlWriteCallback),
         "[NETLOOP]err[%d:%s]curl set CURLOPT_WRITEFUNCTION failed"},
        {CURLOPT_WRITEDATA, &m_Self, "[NETLOOP]err[%d:%s]curl set CURLOPT_WRITEDATA failed"},
        {CURLOPT_READDATA, &m_Self, "[NETLOOP]err[%d:%s]curl set CURLOPT_READDATA failed"},
        // With READDATA pointing at the handle, libcurl's default read function
        // would take it for a FILE*: a POST without a body or an upload without
        // a size reads through the handle's own callback instead.
        {CURLOPT_READFUNCTION, reinterpret_cast<void*>(&CurlReadCallback),
         "[NETLOOP]err[%d:%s]curl set CURLOPT_READFUNCTION failed"},
    };
    for (const PointerOption& opt : pointers) {
        rc = curl_easy_setopt(m_Curl, opt.option, opt.value);
        if (rc != CURLE_OK) {
            WriteNetLog(LOG_ERROR, opt.failure, static_cast<int>(rc), curl_easy_strerror(rc));
            return false;
        }
    }
    // HTTP version and TLS range are the same for every transfer. NPN is gone
    // from libcurl, which accepts the option and ignores it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    static const LongOption kFixed[] = {
        {CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS, "[NETLOOP]err[%d:%s]curl set CURLOPT_HTTP_VERSION failed"},
        {CURLOPT_SSL_ENABLE_ALPN, 1, "[NETLOOP]err[%d:%s]curl set CURLOPT_SSL_ENABLE_ALPN failed"},
        {CURLOPT_SSL_ENABLE_NPN, 1, "[NETLOOP]err[%d:%s]curl set CURLOPT_SSL_ENABLE_NPN failed"},
        {CURLOPT_SSLVERSION, CURL_SSLVERSION_MAX_TLSv1_3, "[NETLOOP]err[%d:%s]curl set CURLOPT_SSLVERSION failed"},
    };
#pragma GCC diagnostic pop
    for (const LongOption& opt : kFixed) {
        rc = curl_easy_setopt(m_Curl, opt.option, opt.value);
        if (rc != CURLE_OK) {
            WriteNetLog(LOG_ERROR, opt.failure, static_cast<int>(rc), curl_easy_strerror(rc));
            return false;
        }
    }
    return true;
}

bool CHttpHandle::SetRequestType(int reqType) {
    static const LongOption kMethods[] = {
        {CURLOPT_HTTPGET, 1, "[NETLOOP]err[%d:%s]curl set CURLOPT_HTTPGET[%d] failed"},
        {CURLOPT_POST, 1, "[NETLOOP]err[%d:%s]curl set CURLOPT_POST[%d] failed"},
        {CURLOPT_UPLOAD, 1, "[NETLOOP]err[%d:%s]curl set CURLOPT_UPLOAD[%d] failed"},
    };
    if (reqType == HTTP_REQ_WEBSOCKET) return SetWsOptions();  // no method option: libcurl's default
    if (reqType < HTTP_REQ_GET || reqType > HTTP_REQ_UPLOAD) return true;  // others: libcurl's default
    const LongOption& opt = kMethods[reqType];
    CURLcode rc = curl_easy_setopt(m_Curl, opt.option, opt.value);
    if (rc == CURLE_OK) return true;
    WriteNetLog(LOG_ERROR, opt.failure, static_cast<int>(rc), curl_easy_strerror(rc), 1);
    return false;
}

void CHttpHandle::FailInit() {
    curl_easy_cleanup(m_Curl);
    m_Curl = nullptr;
    curl_slist_free_all(m_ResolveSlist);
    m_ResolveSlist = nullptr;
    m_Self.reset();
    m_State.exchange(HTTP_HANDLE_IDLE);
}

// ---------------------------------------------------------------------------
// Teardown

void CHttpHandle::ReleaseTransfer() {
    int32_t expected = HTTP_HANDLE_READY;
    if (!m_State.compare_exchange_strong(expected, HTTP_HANDLE_CLOSING)) return;
    curl_slist_free_all(m_HeaderSlist);
    m_HeaderSlist = nullptr;
    curl_slist_free_all(m_ResolveSlist);
    m_ResolveSlist = nullptr;
    LeaveGateAtTeardown();
    curl_easy_cleanup(m_Curl);
    m_Curl = nullptr;
    m_JoinedShare = nullptr;
    m_SocketHooks = false;
    TransferState* transfer = TransferIfAny();
    if (transfer != nullptr && transfer->m_File != nullptr) {
        std::fclose(transfer->m_File);
        transfer->m_File = nullptr;
    }
    // The caller holds its own reference, so the object outlives this step.
    m_Self.reset();
    m_Notic.reset();
    m_State.exchange(HTTP_HANDLE_IDLE);
}

// A transfer torn down while the gate still counts it or has it in line (its
// removal from libcurl failed): the gate forgets it, so its slot is not lost.
void CHttpHandle::LeaveGateAtTeardown() {
    TransferState* transfer = TransferIfAny();
    if (transfer == nullptr || (!transfer->m_Seat.counted && transfer->m_Seat.ticket == 0)) return;
    std::shared_ptr<CHttpFrame> frame = Frame();
    if (frame && frame->m_Gate) {
        frame->m_Gate->Withdraw(transfer->m_Seat);
        LeaveGate(*frame->m_Gate);
        frame->StartWaiting();
    }
    transfer->m_Seat = GateSeat();
}

// ---------------------------------------------------------------------------
// Operations on the loop thread

int CHttpHandle::DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) {
    // A handle that was armed but never added has no frame of its own yet; the
    // frame that runs the record serves instead.
    std::shared_ptr<CHttpFrame> own = Frame();
    const std::shared_ptr<CHttpFrame>& runner = own ? own : frame;
    auto& rec = static_cast<AsynHttpReq&>(*oper);
    switch (oper->m_Type) {
        case OperAddHttp:
            return OperAdd(runner, rec);
        case OperDelHttp:
            return OperDel(runner, rec);
        case OperDisconnectWS:
            m_EndQueued = false;
            return RemoveFromMulti(runner, "[NETLOOP]err[%d:%s]curl_multi_remove_handle failed while DelHttpReq");
        case OperWSSend:
            OperWsSend(static_cast<AsynWSSendReq&>(*oper));
            return 0;
        default:
            return 0;
    }
}

int CHttpHandle::OperAdd(const std::shared_ptr<CHttpFrame>& frame, const AsynHttpReq& oper) {
    CURLMcode rc = CURLM_BAD_EASY_HANDLE;  // what libcurl answers for an idle handle
    if (m_Curl != nullptr && IsReady()) {
        JoinFrame(frame);
        rc = UseErrorBuffer() ? AddToMulti(frame) : CURLM_OUT_OF_MEMORY;
    }
    int result = 0;
    if (rc != CURLM_OK) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_multi_add_handle failed while AddHttpReq",
                    static_cast<int>(rc), curl_multi_strerror(rc));
        result = -1;
    } else {
        BeginTransfer();
        OnWsAdded();
    }
    CallDone(oper, result);
    return result;
}

// The options that tie the easy handle to the frame.
void CHttpHandle::JoinFrame(const std::shared_ptr<CHttpFrame>& frame) {
    if (frame->m_Share != nullptr && m_JoinedShare != frame->m_Share) {
        // The share's companions; a refused one only costs its own effect.
        curl_easy_setopt(m_Curl, CURLOPT_SHARE, frame->m_Share);
        curl_easy_setopt(m_Curl, CURLOPT_MAXLIFETIME_CONN, 300L);
        curl_easy_setopt(m_Curl, CURLOPT_TCP_KEEPALIVE, 1L);
        curl_easy_setopt(m_Curl, CURLOPT_TCP_KEEPIDLE, 30L);
        curl_easy_setopt(m_Curl, CURLOPT_TCP_KEEPINTVL, 30L);
        curl_easy_setopt(m_Curl, CURLOPT_DNS_CACHE_TIMEOUT, 1800L);
        // libcurl reads and stores cookies only for a transfer whose cookie
        // engine is on, also when the share holds the cookie store; an
        // empty file name turns it on without reading any file. Each call
        // adds a name to the easy handle's list, hence once per easy handle.
        curl_easy_setopt(m_Curl, CURLOPT_COOKIEFILE, "");
        m_JoinedShare = frame->m_Share;
    }
    if (!m_SocketHooks) {
        // The frame keeps a connection's poll record between transfers
        // and needs to hear when libcurl closes the socket; a refused
        // option only costs that.
        curl_easy_setopt(m_Curl, CURLOPT_SOCKOPTFUNCTION, &CHttpFrame::OnCurlSockopt);
        curl_easy_setopt(m_Curl, CURLOPT_CLOSESOCKETFUNCTION, &CHttpFrame::OnCurlCloseSocket);
        m_SocketHooks = true;
    }
}

// libcurl's own words on a failure, kept for GetErrorText. Only a transfer
// can fail, so handles that are armed and wait carry no buffer; once made it
// lasts as long as the handle.
bool CHttpHandle::UseErrorBuffer() {
    if (!Transfer().m_CurlError) Transfer().m_CurlError.reset(new (std::nothrow) char[CURL_ERROR_SIZE]);
    if (!Transfer().m_CurlError) return false;
    Transfer().m_CurlError[0] = '\0';
    CURLcode rc = curl_easy_setopt(m_Curl, CURLOPT_ERRORBUFFER, Transfer().m_CurlError.get());
    if (rc == CURLE_OK) return true;
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl set CURLOPT_ERRORBUFFER failed", static_cast<int>(rc),
                curl_easy_strerror(rc));
    return false;
}

// Into libcurl now or, on a frame with connection limits that leave no room
// yet, into the frame's line: accepted either way (CURLM_OK).
CURLMcode CHttpHandle::AddToMulti(const std::shared_ptr<CHttpFrame>& frame) {
    if (!frame->m_Gate) return curl_multi_add_handle(frame->m_Multi, m_Curl);
    // Running or waiting already: refused as libcurl refuses a second add.
    if (Transfer().m_Seat.counted || Transfer().m_Seat.ticket != 0) return CURLM_ADDED_ALREADY;
    if (!frame->m_Gate->Admit(shared_from_this(), Transfer().m_Seat, m_Url, m_ReqType == HTTP_REQ_WEBSOCKET)) return CURLM_OK;
    CURLMcode rc = curl_multi_add_handle(frame->m_Multi, m_Curl);
    if (rc != CURLM_OK) frame->m_Gate->Left(Transfer().m_Seat, 0);
    return rc;
}

void CHttpHandle::StartWaited(const std::shared_ptr<CHttpFrame>& frame) {
    CURLMcode rc = curl_multi_add_handle(frame->m_Multi, m_Curl);
    if (rc == CURLM_OK) return;
    WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_multi_add_handle failed while AddHttpReq", static_cast<int>(rc),
                curl_multi_strerror(rc));
    frame->m_Gate->Left(Transfer().m_Seat, 0);
    EndUnstarted("[NETLOOP]%s not started: libcurl refused it");
}

void CHttpHandle::EndUnstarted(const char* format) {
    WriteNetLog(LOG_ERROR, format, m_Url.c_str());
    // The notice may delete the handle and drop the application's references.
    std::shared_ptr<CHttpHandle> keep = shared_from_this();
    if (m_ReqType == HTTP_REQ_WEBSOCKET) {
        OnWsRemoved();
        NotifyWsState(WS_STATE_FAILED);
        return;
    }
    std::shared_ptr<IHttpHandleNotic> notic = m_EndQueued ? nullptr : m_Notic;
    if (notic) notic->OnFinish(keep, -2, m_UserData);
}

void CHttpHandle::LeaveGate(CConnectionGate& gate) {
    TransferState* transfer = TransferIfAny();
    if (transfer == nullptr || !transfer->m_Seat.counted) return;
    long version = 0;
    if (m_Curl != nullptr) curl_easy_getinfo(m_Curl, CURLINFO_HTTP_VERSION, &version);
    gate.Left(transfer->m_Seat, version);
}

int CHttpHandle::OperDel(const std::shared_ptr<CHttpFrame>& frame, const AsynHttpReq& oper) {
    m_EndQueued = false;
    int result = RemoveFromMulti(frame, "[NETLOOP]err[%d:%s]curl_multi_remove_handle failed while DelHttpReq");
    CallDone(oper, result);  // the handle is still whole here
    ReleaseTransfer();
    return result;
}

int CHttpHandle::RemoveFromMulti(const std::shared_ptr<CHttpFrame>& frame, const char* failure) {
    OnWsRemoved();
    TransferState* transfer = TransferIfAny();
    if (transfer != nullptr && transfer->m_Seat.ticket != 0 && frame->m_Gate) {
        // Still waiting for a connection: libcurl never had it.
        frame->m_Gate->Withdraw(transfer->m_Seat);
        return 0;
    }
    CURLMcode rc = m_Curl != nullptr ? curl_multi_remove_handle(frame->m_Multi, m_Curl) : CURLM_BAD_EASY_HANDLE;
    if (rc != CURLM_OK) {
        WriteNetLog(LOG_ERROR, failure, static_cast<int>(rc), curl_multi_strerror(rc));
        return -1;
    }
    if (transfer != nullptr && transfer->m_Seat.counted && frame->m_Gate) {
        LeaveGate(*frame->m_Gate);
        frame->StartWaiting();
    }
    return 0;
}

void CHttpHandle::CallDone(const AsynHttpReq& oper, int result) {
    if (oper.m_Done) oper.m_Done(shared_from_this(), oper.m_UserData, result);
}

bool CHttpHandle::CancelAsynOper(std::shared_ptr<AsynOperReq> oper) {
    if (oper->m_Type != OperAddHttp) return false;
    CallDone(static_cast<AsynHttpReq&>(*oper), -1);
    return true;
}

// ---------------------------------------------------------------------------
// Abort and status

int CHttpHandle::Disconnect() {
    if (!IsReady()) return -1;
    std::shared_ptr<CHttpFrame> frame = Frame();
    if (!frame || !frame->m_Running.load()) {
        WriteNetLog(LOG_ERROR, "[NETLOOP]Can not again timer req now");
        return -1;
    }
    WriteNetLog(LOG_NOTABLE, "[NETLOOP]disconnect web socket");
    // Inside a libcurl callback the easy handle is on libcurl's stack: the
    // removal waits for the queue.
    if (frame->IsLoopThread() && !frame->InsideCurl())
        return RemoveFromMulti(frame, "[NETLOOP]err[%d:%s]curl_multi_remove_handle failed while DelHttpReq");
    // A WebSocket disconnected from inside a callback is over for the
    // application now, though libcurl lets go of it only after the call.
    if (frame->IsLoopThread()) OnWsRemoved();
    auto oper = std::make_shared<AsynHttpReq>();
    oper->m_Type = OperDisconnectWS;
    oper->m_Oper = shared_from_this();
    // On the loop thread m_Running cannot change under us: the record is taken.
    if (frame->IsLoopThread()) m_EndQueued = true;
    return frame->PostAsynOper(std::move(oper)) ? 0 : -1;
}

long CHttpHandle::GetResponseCode() {
    if (m_Curl == nullptr) return -1;
    long code = -1;
    CURLcode rc = curl_easy_getinfo(m_Curl, CURLINFO_RESPONSE_CODE, &code);
    if (rc != CURLE_OK)
        WriteNetLog(LOG_ERROR, "[NETLOOP]err[%d:%s]curl_easy_getinfo CURLINFO_RESPONSE_CODE failed",
                    static_cast<int>(rc), curl_easy_strerror(rc));
    return code;
}

// ---------------------------------------------------------------------------
// Plain accessors

void CHttpHandle::SetContext(std::shared_ptr<void> context) { Transfer().m_Context = std::move(context); }
void* CHttpHandle::GetUserData() { return m_UserData; }
const std::string& CHttpHandle::GetUrl() { return m_Url; }

// A handle without a TransferState has none of these yet.
const std::string& CHttpHandle::NoText() {
    static const std::string empty;
    return empty;
}
const std::string& CHttpHandle::GetTag() {
    const TransferState* transfer = TransferIfAny();
    return transfer != nullptr ? transfer->m_Tag : NoText();
}
const std::string& CHttpHandle::GetResponse() {
    const TransferState* transfer = TransferIfAny();
    return transfer != nullptr ? transfer->m_Response : NoText();
}
void CHttpHandle::GetPostFields(std::string& out) {
    const TransferState* transfer = TransferIfAny();
    out = transfer != nullptr ? transfer->m_PostFields : NoText();
}
void CHttpHandle::GetContext(std::shared_ptr<void>& out) {
    const TransferState* transfer = TransferIfAny();
    out = transfer != nullptr ? transfer->m_Context : nullptr;
}
void CHttpHandle::GetHeaders(std::list<std::string>& out) {
    const TransferState* transfer = TransferIfAny();
    if (transfer != nullptr) {
        out = transfer->m_HeaderList;
    } else {
        out.clear();
    }
}

}  // namespace netloop
