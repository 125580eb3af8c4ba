// HTTP(S) transfers and WebSocket client connections.
//
// One handle is one libcurl easy transfer. Its life:
//   Create -> InitHttpReq -> setters -> IHttpInterface::AddHttpReq -> notices
//   -> IHttpInterface::DelHttpReq (back to idle; InitHttpReq may arm it again).
// Create, InitHttpReq and the setters run on the application's thread, before
// the add; the setters are not synchronised with the loop thread. Once added,
// only Disconnect, SendWsData and DelHttpReq may be called from other threads;
// the getters that read what the transfer writes (GetResponse, GetResponseCode)
// belong to OnFinish, to a done function, or to the time after those.
//
// From a successful InitHttpReq until DelHttpReq has run, the handle keeps
// itself alive: the application may drop its reference at any time, but must
// delete every armed handle through the frame in the end.
#pragma once

#include <curl/system.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "netloop/NetloopExport.h"

namespace netloop {

class IHttpHandleInterface;

// Done function of AddHttpReq / DelHttpReq: (handle, userData, result), result 0
// done or -1 failed/cancelled. Runs on the loop thread. May be empty.
using HttpDoneFunc = std::function<void(std::shared_ptr<IHttpHandleInterface>, void*, int)>;

// What InitHttpReq arms.
enum HttpReqType {
    HTTP_REQ_GET = 0,        // GET
    HTTP_REQ_POST = 1,       // POST; body through SetPostFields
    HTTP_REQ_UPLOAD = 2,     // PUT over HTTP; body through SetUploadSize + OnUploadRead
    HTTP_REQ_WEBSOCKET = 3,  // a ws:// or wss:// client connection
};

// WebSocket message types of SendWsData and OnWsData.
enum WsMessageType {
    WS_MSG_OTHER = 0,   // received only: a ping or pong that libcurl passes on
    WS_MSG_TEXT = 1,
    WS_MSG_BINARY = 2,
    WS_MSG_CLOSE = 3,   // payload: 2-byte status code and reason, unparsed
};

// WebSocket connection events of OnWsState.
enum WsState {
    WS_STATE_OPEN = 0,     // the upgrade has completed
    WS_STATE_FAILED = -1,  // the transfer ended before the connection opened (connect failure,
                           // refused upgrade, time-out)
    WS_STATE_CLOSED = -2,  // an open connection ended (the server closed it, a reset, the time-out)
};

// Implemented by the application. Every call runs on the frame's loop thread.
// OnWsData, OnProgress and OnUploadRead run inside libcurl: a DelHttpReq,
// AddHttpReq, Disconnect or Stop made from there is carried out after the
// callback returns, and once a delete or disconnect made there is on its way
// nothing more is told of the transfer (no OnFinish, OnWsState or OnWsData).
class IHttpHandleNotic {
public:
    // A complete WebSocket message of WsMessageType `type`. `data` is valid for the
    // call only and has no terminator; a message that arrived in one piece points
    // into libcurl's buffer. Messages come whole and in order; a close frame (type
    // 3, payload unparsed) or a pong that libcurl passes on (type 0) comes alone,
    // also in the middle of a fragmented message. Pings are answered by libcurl and
    // never reported; a close is not answered: reply with SendWsData type 3.
    // Messages that arrived together with the upgrade response follow
    // OnWsState(WS_STATE_OPEN) and, like it, come from outside libcurl.
    // libcurl 8.14 passes no frame without payload to the application; such a
    // frame (an empty message, the empty last frame of a fragmented one, a close
    // without status) is noticed only when it is the last frame libcurl reads in
    // one go, and otherwise lost.
    virtual void OnWsData(const char* data, size_t length, int type, void* userData) = 0;
    // Transfer progress, after EnableProgress(true). `tag` and `url` are the
    // handle's GetTag and GetUrl.
    virtual void OnProgress(const char* tag, const char* url, curl_off_t dltotal, curl_off_t dlnow,
                            curl_off_t ultotal, curl_off_t ulnow, void* userData) = 0;
    // Upload data wanted: write up to size*nitems bytes into `buffer` and return
    // the count; 0 ends the upload. Returned to libcurl unchanged, so libcurl's
    // special values (CURL_READFUNC_ABORT, CURL_READFUNC_PAUSE) work too.
    virtual size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface> handle, char* buffer, size_t size,
                                size_t nitems, void* userData) = 0;
    // An HTTP transfer ended: `result` 0 when libcurl completed it (whatever the
    // HTTP status; see GetResponseCode) and -2 for any libcurl failure (the code is
    // in the log). Runs outside libcurl: DelHttpReq may run at once from here.
    // WebSocket transfers never get OnFinish.
    virtual void OnFinish(std::shared_ptr<IHttpHandleInterface> handle, int result, void* userData) = 0;
    // Handles armed with HTTP_REQ_WEBSOCKET only, once per event, outside libcurl
    // (DelHttpReq may run at once from here): WS_STATE_OPEN when the upgrade
    // completed, before the connection's first OnWsData; WS_STATE_FAILED when the
    // transfer ended before that; WS_STATE_CLOSED when an open connection ended.
    // Not called when the application ended the transfer itself with DelHttpReq or
    // Disconnect. An end that libcurl reports is logged in place of an HTTP
    // transfer's DONE line as "[NETLOOP]<url> WS END result[<CURLcode>:<text>]",
    // at level 20 for CURLE_OK (the server completed a close handshake) and at
    // level 60 for every other code.
    virtual void OnWsState(std::shared_ptr<IHttpHandleInterface> handle, int state, void* userData) {}
    virtual ~IHttpHandleNotic() {}
};

// What happened on the wire, filled by IHttpHandleInterface::GetTransferInfo.
// The caller sets `structSize` (the default does); the library writes only the
// fields that fit in it, so the struct can grow at its end. All figures are
// libcurl's for the whole transfer: with redirects followed, the URL, address
// and version are those of the last request, and each time adds up the
// requests.
struct HttpTransferInfo {
    size_t structSize = sizeof(HttpTransferInfo);
    long httpVersion = 0;         // of the last response: 10, 11, 20 or 30 (HTTP/1.0, 1.1, 2, 3); 0 when none
    std::string effectiveUrl;     // the last URL used, after redirects
    std::string remoteIp;         // numeric address of the server (or proxy) last connected to; empty if none
    long remotePort = 0;          // its port; 0 if none
    // Microseconds from the start of the transfer to the end of each step, so
    // that nameLookupUs <= connectUs <= tlsUs <= firstByteUs <= totalUs on a new
    // TLS connection. A step that did not happen (no TLS, a reused connection,
    // a transfer that failed before it) is 0.
    curl_off_t nameLookupUs = 0;  // the server's name resolved
    curl_off_t connectUs = 0;     // TCP connected to it (to the proxy, with one)
    curl_off_t tlsUs = 0;         // TLS handshake done
    curl_off_t firstByteUs = 0;   // the first response byte received
    curl_off_t totalUs = 0;       // the whole transfer, up to its end
    curl_off_t bytesSent = 0;     // request body bytes sent (POST body, upload); headers not counted
    curl_off_t bytesReceived = 0; // response body bytes as they came, before content decoding; headers
                                  // not counted
};

class NETLOOP_EXPORT IHttpHandleInterface {
public:
    IHttpHandleInterface();
    IHttpHandleInterface(const IHttpHandleInterface&);
    IHttpHandleInterface& operator=(const IHttpHandleInterface&);

    // Arms an idle handle: makes the easy handle and sets the fixed options
    // (HTTP/2 over TLS, ALPN, TLS up to 1.3, no signals), the method of `reqType`,
    // `connectTimeoutMs` and `timeoutMs` as libcurl takes them (0: libcurl's
    // meaning), counted from the moment the transfer reaches libcurl: on a
    // frame with connection limits the time it waited for a connection in the
    // frame is not part of them. Pins the server's address when the process
    // resolver has it at hand. `tag` (may be null) is the application's text for GetTag and
    // OnProgress. `notic` may be empty. Returns 0, or -1 for a null `url`, a
    // handle that is not idle, or an option libcurl refused (logged).
    virtual int InitHttpReq(const char* url, const char* tag, int reqType, std::shared_ptr<IHttpHandleNotic> notic,
                            int connectTimeoutMs, int timeoutMs, void* userData) = 0;

    // Takes the transfer out of the frame's multi handle: aborts an HTTP transfer
    // (no OnFinish) or drops a WebSocket connection without a close frame, and
    // with it the messages still waiting to go out. The handle stays armed; added
    // again, a WebSocket makes a fresh connection. A transfer still waiting for
    // a connection leaves the frame's line; a WebSocket then ends as a
    // connection that never opened, without a notice. Any thread. -1 when not
    // armed, or when the frame is not running or has begun to stop (logged):
    // nothing is done then.
    virtual int Disconnect() = 0;

    // POST body, up to its first NUL; the handle keeps its own copy. POST handles
    // only; -1 otherwise or for null.
    virtual int SetPostFields(const char* fields) = 0;

    // Attaches an object of the application's; the handle never looks at it. Any
    // state; survives teardown and re-arming.
    virtual void SetContext(std::shared_ptr<void> context) = 0;

    // Sends one WebSocket message of `type` 1 (text), 2 (binary) or 3 (close;
    // payload: 2-byte status code and reason). The handle keeps a reference to
    // `data` (null: an empty message) and never copies it: leave the vector alone
    // until the message is out. Messages go out whole, never interleaved, in call
    // order per thread; one sent before the upgrade completed waits for it. On the
    // loop thread, outside libcurl, with the connection open and nothing waiting,
    // libcurl gets the message at once and `*sent` is the part it took (the rest
    // follows as soon as the socket drains); otherwise `*sent` is the whole size.
    // A message that cannot be completed because the connection ended is logged
    // at level 40 as "[NETLOOP]Send len diff [<size>] != [<bytes sent>]", one that
    // never started as "[NETLOOP]err[55:...]curl_ws_send failed" at level 60.
    // Returns 0 when handed on; -1 for a handle that is not an armed WebSocket with
    // a frame, a null `sent`, an unknown type ("[NETLOOP]unknow websocket type[%d]")
    // or a stopped frame ("[NETLOOP]Can not send ws data req now"), the last two
    // logged at level 60, and -1 when the frame begins to stop while the message
    // is on its way to the queue. After -1 nothing is sent and `*sent` is left
    // as it was.
    virtual int SendWsData(std::shared_ptr<std::vector<uint8_t>> data, int type, size_t* sent) = 0;

    // Writes libcurl's trace of this transfer to the log at level 0.
    virtual int EnableVerbose() = 0;

    // Sends the response body to the file `path` (emptied, created with its
    // folders) instead of GetResponse. Closes the previous output file first. The
    // file is complete after DelHttpReq or the next SetOutputFile. -1 when the
    // file cannot be opened (logged); the response then goes to memory.
    virtual int SetOutputFile(const char* path) = 0;

    // Turns OnProgress on or off.
    virtual int EnableProgress(bool enable) = 0;

    // Server verification against the CA file or folder `caPath`; null turns
    // verification off. Without a call libcurl's own CA store is used.
    virtual int SetCaPath(const char* caPath) = 0;

    // Request headers ("Name: value"). The strings are added to those of earlier
    // calls on the same easy handle; GetHeaders gives the last list only.
    virtual int SetHeaders(const std::list<std::string>& headers) = 0;

    // Upload handles: the body size (-1 unknown) and OnUploadRead as its source.
    virtual int SetUploadSize(curl_off_t size) = 0;

    virtual void* GetUserData() = 0;
    virtual const std::string& GetUrl() = 0;
    virtual const std::string& GetTag() = 0;
    // The response body kept in memory. Kept across teardown and appended to by a
    // later transfer of the same handle.
    virtual const std::string& GetResponse() = 0;
    // The last HTTP status (0 before any response), or -1 when not armed.
    virtual long GetResponseCode() = 0;
    virtual void GetPostFields(std::string& out) = 0;
    virtual void GetContext(std::shared_ptr<void>& out) = 0;
    virtual void GetHeaders(std::list<std::string>& out) = 0;

    // ---- Added later; new methods go at the end, after these. ----

    // WebSocket handles: the largest incoming message (data or control) this
    // connection accepts, in bytes; 0 is no limit; default 16 MiB. Before the add.
    virtual int SetWsMaxMessageSize(size_t bytes) = 0;
    // WebSocket handles: the most bytes SendWsData may leave waiting to be sent;
    // default 64 MiB. Before the add.
    virtual int SetWsMaxSendBuffer(size_t bytes) = 0;
    // WebSocket handles: the bytes handed to SendWsData that libcurl has not taken
    // yet. Any thread.
    virtual size_t GetWsBufferedAmount() = 0;

    // The methods below belong to the application's thread like the setters
    // above: the setters after InitHttpReq and before the add (refused with -1,
    // silently, on a handle that is not armed and on a WebSocket handle);
    // the getters from OnFinish until the done function of DelHttpReq has
    // returned (for an open WebSocket: on the loop thread, from
    // OnWsState(WS_STATE_OPEN) on). They read the finished transfer
    // straight from libcurl, so call them from one thread at a time and never
    // while a DelHttpReq or another add of the handle is on its way. After the
    // teardown they find nothing: false, 0, an empty list, -1. Every setting
    // ends with the transfer's teardown: a handle armed again starts from the
    // defaults.

    // A cap on the response body, in bytes; 0 (the default) is none. It counts
    // the body as the application gets it (decoded, see EnableCompression),
    // whether it is kept in memory or written to the output file. A body that
    // announces a larger size is refused before any of it is read; one that
    // grows past the cap is stopped there, with at most `bytes` of it kept.
    // Either way the transfer ends with OnFinish(-2), libcurl's code
    // (CURLE_FILESIZE_EXCEEDED, or CURLE_WRITE_ERROR when the decoded body
    // passed the cap) in the DONE line, and GetErrorText tells why. -1 for a
    // negative `bytes` (logged at level 60).
    virtual int SetMaxResponseSize(curl_off_t bytes) = 0;
    // Why the last transfer failed, in libcurl's own words ("Failed to connect
    // to ... Connection refused") or the library's (a body past the cap, a
    // failed write to the output file). Empty after a success and when nothing
    // more than the code in the log is known. Set before OnFinish or the end of
    // a WebSocket is told, emptied when the handle is armed or added again; the
    // reference stays valid while the application holds the handle, the text
    // until the next transfer starts. Any state, also after the teardown.
    virtual const std::string& GetErrorText() = 0;
    // The request method, an HTTP token (letters, digits and !#$%&'*+-.^_`|~),
    // case as given. "HEAD" asks for the headers only: no body is read, and
    // none is sent. Any other method replaces the name of the request type's
    // method and keeps its body: the POST body of a POST handle, the upload
    // stream of an upload handle, none for a GET handle ("DELETE", "PATCH",
    // "OPTIONS", ...). A later call replaces an earlier one. -1 for a null
    // `method`, and for an empty or invalid token (logged at level 60).
    virtual int SetMethod(const char* method) = 0;
    // Follows up to `maxRedirects` redirects, to http and https URLs only (a
    // Location with any other scheme ends the transfer with -2); one more than
    // that ends it with -2 as well (CURLE_TOO_MANY_REDIRECTS). 0 turns following
    // off, the default: a 3xx is then the transfer's result. A 301 or 302 turns
    // a POST into a GET and a 303 turns every method but HEAD into one, as
    // browsers do; 307 and 308 keep method and body (an upload whose stream
    // cannot be read again fails there). The last URL is
    // HttpTransferInfo::effectiveUrl. -1 for a negative count (logged at level
    // 60).
    virtual int SetFollowRedirects(long maxRedirects) = 0;
    // true: offers every content encoding this libcurl decodes (gzip, deflate,
    // br, zstd as built) and hands the application the decoded body; false, the
    // default: offers none and passes the body on as it comes.
    virtual int EnableCompression(bool enable) = 0;
    // The value of response header `name` (any case) in the final response, the
    // last one when the header is repeated; trailers count. false when the
    // response has no such header, `value` then unchanged. For a WebSocket the
    // final response is the 101 of the upgrade, readable from
    // OnWsState(WS_STATE_OPEN) on.
    virtual bool GetResponseHeader(const char* name, std::string& value) = 0;
    // Every value of response header `name` (any case) in the final response,
    // in the order received (Set-Cookie, for instance); `values` is replaced.
    // Returns their count, 0 when there is none.
    virtual size_t GetResponseHeaderValues(const char* name, std::vector<std::string>& values) = 0;
    // Every response header as (name, value), in the order received: of the
    // final response, or, with `allResponses`, of every response of the
    // transfer (1xx, redirects followed, proxy CONNECT), oldest first. Names
    // keep the case the server sent (HTTP/2 sends lower case); the status line
    // is not a header. `out` is replaced.
    virtual void GetResponseHeaderList(std::vector<std::pair<std::string, std::string>>& out,
                                       bool allResponses) = 0;
    // Fills the fields of `info` that fit in info->structSize; see
    // HttpTransferInfo. 0, or -1 for a null `info`, a structSize too small for
    // any field, or a handle that is not armed.
    virtual int GetTransferInfo(HttpTransferInfo* info) = 0;

    virtual ~IHttpHandleInterface();

    // A new idle handle. Any thread; needs no frame.
    static std::shared_ptr<IHttpHandleInterface> Create();
};

}  // namespace netloop
