// CHttpHandle: one libcurl easy transfer behind IHttpHandleInterface: an HTTP
// GET, POST or upload, or a WebSocket client connection.
//
// From a successful InitHttpReq until teardown the handle owns its easy handle
// and keeps itself alive through m_Self, a strong reference to itself whose
// address is the user pointer of every libcurl callback. Only teardown
// (ReleaseTransfer, run by the delete operation) releases it.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <cstdio>
#include <deque>
#include <list>
#include <memory>
#include <string>

#include "frame/AsynOperReq.h"
#include "frame/ConnectionGate.h"
#include "http/Utf8Check.h"
#include "netloop/IHttpHandleInterface.h"

namespace netloop {

enum HttpHandleState : int32_t {
    HTTP_HANDLE_IDLE = 0,          // nothing armed: m_Curl, m_Self and m_Notic are empty
    HTTP_HANDLE_INITIALIZING = 1,  // InitHttpReq is at work
    HTTP_HANDLE_READY = 2,         // armed: configured, running or finished
    HTTP_HANDLE_CLOSING = 3,       // teardown is at work
};

class CHttpHandle : public std::enable_shared_from_this<CHttpHandle>,
                    public IHttpHandleInterface,
                    public IAsynOperInterface {
public:
    CHttpHandle();
    ~CHttpHandle() override;

    int InitHttpReq(const char* url, const char* tag, int reqType, std::shared_ptr<IHttpHandleNotic> notic,
                    int connectTimeoutMs, int timeoutMs, void* userData) override;
    int Disconnect() override;
    int SetPostFields(const char* fields) override;
    void SetContext(std::shared_ptr<void> context) override;
    int SendWsData(std::shared_ptr<std::vector<uint8_t>> data, int type, size_t* sent) override;
    int EnableVerbose() override;
    int SetOutputFile(const char* path) override;
    int EnableProgress(bool enable) override;
    int SetCaPath(const char* caPath) override;
    int SetHeaders(const std::list<std::string>& headers) override;
    int SetUploadSize(curl_off_t size) override;
    void* GetUserData() override;
    const std::string& GetUrl() override;
    const std::string& GetTag() override;
    const std::string& GetResponse() override;
    long GetResponseCode() override;
    void GetPostFields(std::string& out) override;
    void GetContext(std::shared_ptr<void>& out) override;
    void GetHeaders(std::list<std::string>& out) override;
    int SetWsMaxMessageSize(size_t bytes) override;
    int SetWsMaxSendBuffer(size_t bytes) override;
    size_t GetWsBufferedAmount() override;
    int SetMaxResponseSize(curl_off_t bytes) override;
    const std::string& GetErrorText() override;
    int SetMethod(const char* method) override;
    int SetFollowRedirects(long maxRedirects) override;
    int EnableCompression(bool enable) override;
    bool GetResponseHeader(const char* name, std::string& value) override;
    size_t GetResponseHeaderValues(const char* name, std::vector<std::string>& values) override;
    void GetResponseHeaderList(std::vector<std::pair<std::string, std::string>>& out, bool allResponses) override;
    int GetTransferInfo(HttpTransferInfo* info) override;

    int DoAsynOper(std::shared_ptr<AsynOperReq> oper, std::shared_ptr<CHttpFrame> frame) override;
    bool CancelAsynOper(std::shared_ptr<AsynOperReq> oper) override;

    // The frame that runs the handle: stored by AddHttpReq on the caller's
    // thread, read on the loop thread and by Disconnect/SendWsData anywhere.
    void SetFrame(std::shared_ptr<CHttpFrame> frame) { std::atomic_store(&m_Frame, std::move(frame)); }
    std::shared_ptr<CHttpFrame> Frame() const { return std::atomic_load(&m_Frame); }

    // The finish notice of an HTTP transfer, for the frame's bridge.
    std::shared_ptr<IHttpHandleNotic> Notice() const { return m_Notic; }

    // A delete or disconnect asked for on the loop thread waits in the queue
    // (from inside libcurl it cannot run at once). A transfer that ends
    // meanwhile was ended by the application already: it gets no OnFinish.
    // Loop thread only.
    void SetEndQueued(bool queued) { m_EndQueued = queued; }
    bool EndQueued() const { return m_EndQueued; }

    // The transfer's place at the gate of a limited frame (loop thread only).
    GateSeat& Seat() { return Transfer().m_Seat; }
    // Its slot is free again: it has left libcurl.
    void LeaveGate(CConnectionGate& gate);
    // Its turn has come: into libcurl with it.
    void StartWaited(const std::shared_ptr<CHttpFrame>& frame);
    // Accepted but never handed to libcurl: told as a failed transfer (an
    // HTTP transfer's OnFinish -2, a WebSocket's WS_STATE_FAILED), logged
    // first with `format`, which takes the URL.
    void EndUnstarted(const char* format);

    // libcurl callbacks; `userp` is &m_Self.
    static size_t CurlWriteCallback(char* data, size_t size, size_t nmemb, void* userp);
    static size_t CurlReadCallback(char* buffer, size_t size, size_t nitems, void* userp);
    static int CurlXferInfoCallback(void* userp, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                                    curl_off_t ulnow);
    static int CurlDebugCallback(CURL* handle, curl_infotype type, char* data, size_t size, void* userp);
    static size_t CurlWsHeaderCallback(char* data, size_t size, size_t nitems, void* userp);

    // libcurl finished this transfer (HTTP or WebSocket) with `result`; the
    // frame calls this before it tells the application. Loop thread.
    void OnTransferEnded(CURLcode result);
    // A transfer went into the multi handle: what belongs to one transfer
    // (error text, body count) starts afresh. Loop thread.
    void BeginTransfer();

    // WebSocket work that the frame runs on the loop thread outside libcurl:
    // right after the libcurl call that asked for it, or when the retry delay
    // of a stalled send has passed.
    void ServiceWs();
    // libcurl reported the end of this WebSocket transfer (frame's CheckMultiInfo).
    void OnWsEnded(CURLcode result);

    // Splits `url` with libcurl's URL parser; `port` is the URL's own port or
    // the scheme's default, empty when neither is known.
    static bool SplitUrlHostPort(const char* url, std::string& host, std::string& port);

    // Builds the CURLOPT_RESOLVE entry for `url` from what the process resolver
    // has at hand; empty when no pin can be made.
    static std::string BuildAddressPin(const char* url);

private:
    bool IsReady() const { return m_State.load() == HTTP_HANDLE_READY; }
    bool SetCommonOptions(const char* url, int connectTimeoutMs, int timeoutMs);
    bool SetRequestType(int reqType);
    void FailInit();
    int OperAdd(const std::shared_ptr<CHttpFrame>& frame, const AsynHttpReq& oper);
    int OperDel(const std::shared_ptr<CHttpFrame>& frame, const AsynHttpReq& oper);
    int RemoveFromMulti(const std::shared_ptr<CHttpFrame>& frame, const char* failure);
    CURLMcode AddToMulti(const std::shared_ptr<CHttpFrame>& frame);
    bool UseErrorBuffer();
    void JoinFrame(const std::shared_ptr<CHttpFrame>& frame);
    void CallDone(const AsynHttpReq& oper, int result);
    void ReleaseTransfer();
    void LeaveGateAtTeardown();
    size_t KeepBody(const char* data, size_t len);
    size_t WriteFile(const char* data, size_t len);
    void RefuseOverCap();
    bool ApplyRequestType();
    unsigned int HeaderOrigin() const;
    void AppendHeaders(unsigned int origin, int request, std::vector<std::pair<std::string, std::string>>& out);

    // WebSocket (WsTransfer.cpp).
    enum WsPhase : uint8_t {
        WS_PHASE_IDLE,        // armed, not yet added
        WS_PHASE_CONNECTING,  // in the multi handle, upgrade not finished
        WS_PHASE_UPGRADED,    // libcurl finished the upgrade during the current call; not yet announced
        WS_PHASE_OPEN,        // announced; messages flow both ways
        WS_PHASE_ENDED,       // out of the multi handle, by libcurl or by the application
    };
    struct WsOutMessage {
        std::shared_ptr<std::vector<uint8_t>> data;
        unsigned int flags;
        size_t done;  // payload bytes libcurl has taken so far
    };
    // The outgoing queue of a WebSocket connection. Its storage is made by the
    // first message that has to wait, so plain HTTP transfers carry none.
    class WsOutQueue {
    public:
        bool empty() const { return !m_Queue || m_Queue->empty(); }
        WsOutMessage& front() { return m_Queue->front(); }
        void pop_front() { m_Queue->pop_front(); }
        void push_back(WsOutMessage msg) {
            if (!m_Queue) m_Queue.reset(new std::deque<WsOutMessage>);
            m_Queue->push_back(std::move(msg));
        }
        // Takes the whole queue out, leaving this one empty.
        std::unique_ptr<std::deque<WsOutMessage>> TakeAll() { return std::move(m_Queue); }

    private:
        std::unique_ptr<std::deque<WsOutMessage>> m_Queue;
    };
    struct WsEarlyMessage {
        int type;
        std::string bytes;
    };
    bool SetWsOptions();
    void OnWsChunk(const char* data, size_t len);
    void OnWsRound();
    void OnWsFrameBytes(const char* data, size_t len, int flags, curl_off_t bytesleft);
    void DeliverWs(const char* data, size_t len, int type);
    void OnWsUpgraded();
    bool OpenWs();
    void OnWsAdded();
    void OnWsRemoved();
    void SendWsOnLoop(std::shared_ptr<std::vector<uint8_t>> data, unsigned int flags, size_t* sent, bool record,
                      bool insideCurl);
    void OperWsSend(const AsynWSSendReq& oper);
    void FlushWs();
    void DropWsQueue();
    void ResetWsReceive();
    void ScheduleWs(uint64_t delayMs);
    void NotifyWsState(int state);

    // WebSocket bounds and checks of incoming messages (WsLimits.cpp).
    bool AdmitWsChunk(const char* data, size_t len, int flags, curl_off_t bytesleft);
    bool AdmitWsControl(size_t len, curl_off_t bytesleft);
    bool AdmitWsData(const char* data, size_t len, int flags, curl_off_t bytesleft);
    bool EndWsMessageEarly();
    bool FailWs(uint16_t code, const char* reason, const std::string& why);
    void QueueWsClose(uint16_t code, const char* reason);
    bool FailedWsDone();
    void EndFailedWs();
    bool ReserveWsSend(size_t size);
    void ReleaseWsSend(size_t size) { Transfer().m_WsBuffered.fetch_sub(size); }

    // What a handle needs beyond an armed request that waits: the request's
    // extras, the state of a running transfer and of a WebSocket connection.
    // Made by the first setter, add or transfer that needs it, from any
    // thread, and kept until the handle goes; pools of armed handles that
    // wait carry none of it.
    struct TransferState {
        std::string m_Tag;
        std::string m_FilePath;
        FILE* m_File = nullptr;
        std::string m_Response;
        std::string m_ErrorText;               // why the last transfer failed, for GetErrorText
        std::unique_ptr<char[]> m_CurlError;   // libcurl's CURLOPT_ERRORBUFFER, made by the first add
        curl_off_t m_MaxBody = 0;              // SetMaxResponseSize; 0 is no cap
        curl_off_t m_BodyBytes = 0;            // body bytes taken by the current transfer (loop thread)
        bool m_BodyRefused = false;            // the current transfer's body passed the cap (logged once)
        std::list<std::string> m_HeaderList;
        std::string m_PostFields;
        std::shared_ptr<void> m_Context;
        GateSeat m_Seat;  // see Seat (loop thread)

        // WebSocket connection state; loop thread only unless noted.
        WsOutQueue m_WsOut;                     // ordered outgoing messages not yet fully taken by libcurl
        std::vector<WsEarlyMessage> m_WsEarly;  // messages that came with the upgrade, held for the open notice
        std::string m_WsControl;                // a control frame that spans chunks
        uint32_t m_WsGeneration = 0;            // counts connections, so a notice can tell its connection went away
        uint32_t m_WsRetryMs = 0;               // delay of the next try while libcurl takes no bytes
        int m_WsMessageType = 0;                // type of the message being reassembled in m_Response
        WsPhase m_WsPhase = WS_PHASE_IDLE;
        bool m_WsInMessage = false;             // a fragmented data message is under way
        bool m_WsDue = false;                   // waiting in the frame's WebSocket service list

        // WebSocket bounds (WsLimits.cpp). The two limits are set before the add.
        size_t m_WsMaxMessage = size_t{16} << 20;  // largest incoming message; 0 none
        size_t m_WsMaxSend = size_t{64} << 20;     // most bytes SendWsData lets wait; 0 none
        std::atomic<size_t> m_WsBuffered{0};       // bytes handed to SendWsData not yet taken by libcurl; any thread
        CUtf8Check m_WsUtf8;                       // the text message being received
        uint64_t m_WsFailDeadlineMs = 0;           // when a failed connection ends even if its close frame is stuck
        uint16_t m_WsFailCode = 0;                 // close status the library failed this connection with; 0 none
        bool m_WsFrameEnded = true;                // the last data chunk ended its frame
    };
    // The handle's TransferState, made now if it has none yet (any thread).
    TransferState& Transfer() const;
    // The handle's TransferState if it has one: for those who only read, or
    // clear up, and would find nothing to do in a fresh one.
    TransferState* TransferIfAny() const { return m_Transfer.load(std::memory_order_acquire); }
    static const std::string& NoText();

    CURL* m_Curl = nullptr;
    std::string m_Url;
    void* m_UserData = nullptr;
    curl_slist* m_HeaderSlist = nullptr;
    curl_slist* m_ResolveSlist = nullptr;
    std::shared_ptr<IHttpHandleNotic> m_Notic;
    std::shared_ptr<CHttpHandle> m_Self;
    std::shared_ptr<CHttpFrame> m_Frame;  // accessed atomically
    CURLSH* m_JoinedShare = nullptr;      // the share m_Curl was attached to (loop thread)
    mutable std::atomic<TransferState*> m_Transfer{nullptr};  // see Transfer
    int32_t m_ReqType = 0;
    std::atomic<int32_t> m_State{HTTP_HANDLE_IDLE};
    bool m_EndQueued = false;               // see SetEndQueued (loop thread)
    bool m_SocketHooks = false;             // m_Curl has the frame's socket callbacks (loop thread)
    std::atomic<bool> m_WsProgress{false};  // OnProgress wanted; set by EnableProgress on any thread
};

}  // namespace netloop
