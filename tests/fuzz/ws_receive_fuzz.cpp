// The WebSocket receive path: chunks with arbitrary frame metadata (flags,
// bytes left of the frame, length) through the handle's libcurl write
// callback. No crash, no read outside a chunk, and the notice hears exactly
// the messages of the plain model below, byte for byte and in order. This
// program defines curl_ws_meta itself, so each chunk carries the metadata the
// input chose. Input records: byte 0 = CURLWS_* flags (bit 7: a signed 16-bit
// little-endian bytes-left follows), then 1 byte of chunk length, the chunk.
// Two empty chunks that end a data message and a control frame settle the
// handle before and after every input; what they deliver is compared too.
#include <curl/curl.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "http/HttpHandle.h"
#include "netloop/IHttpInterface.h"
#include "sysutil/sysutil.h"

using namespace netloop;

namespace {

curl_ws_frame g_Meta;  // the metadata of the chunk being written

struct Message {
    int type;
    std::string bytes;
    bool operator==(const Message& o) const { return type == o.type && bytes == o.bytes; }
};

class Recorder : public IHttpHandleNotic {
public:
    void OnWsData(const char* data, size_t length, int type, void*) override {
        if (length != 0 && data == nullptr) std::abort();
        // Reads every byte: a pointer past the chunk shows up here.
        messages.push_back({type, std::string(data != nullptr ? data : "", length)});
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override { std::abort(); }
    std::vector<Message> messages;
};

int DataType(int flags) {
    if (flags & CURLWS_BINARY) return WS_MSG_BINARY;
    if (flags & CURLWS_TEXT) return WS_MSG_TEXT;
    return WS_MSG_OTHER;
}

// The receive rules, written plainly: a control frame collects its chunks and
// comes alone (close as 3, else 0), also inside a fragmented message; a data
// message ends with a frame without CONT and no bytes left, and takes the type
// of that frame, or of its first frame when the last names none.
class Model {
public:
    void Chunk(const std::string& bytes, int flags, curl_off_t bytesleft) {
        if (flags & (CURLWS_CLOSE | CURLWS_PING | CURLWS_PONG)) {
            m_Control += bytes;
            if (bytesleft == 0) {
                out.push_back({(flags & CURLWS_CLOSE) ? WS_MSG_CLOSE : WS_MSG_OTHER, m_Control});
                m_Control.clear();
            }
            return;
        }
        if (!m_InMessage) m_FirstType = DataType(flags);
        m_Message += bytes;
        m_InMessage = (flags & CURLWS_CONT) != 0 || bytesleft != 0;
        if (m_InMessage) return;
        int type = DataType(flags);
        out.push_back({type != WS_MSG_OTHER ? type : m_FirstType, m_Message});
        m_Message.clear();
    }
    std::vector<Message> out;

private:
    std::string m_Message;
    std::string m_Control;
    bool m_InMessage = false;
    int m_FirstType = WS_MSG_OTHER;
};

struct Fixture {
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<CHttpHandle> handle;
};

Fixture* g_Fixture = nullptr;  // lives for the whole run

// One chunk through the write callback, from a buffer of exactly its size.
void Write(const uint8_t* bytes, size_t len, int flags, curl_off_t bytesleft) {
    std::unique_ptr<char[]> chunk(new char[len]);
    if (len != 0) std::memcpy(chunk.get(), bytes, len);
    std::memset(&g_Meta, 0, sizeof(g_Meta));
    g_Meta.flags = flags;
    g_Meta.bytesleft = bytesleft;
    g_Meta.len = len;
    size_t taken = CHttpHandle::CurlWriteCallback(chunk.get(), 1, len, &g_Fixture->handle);
    if (taken != len) std::abort();
}

// Ends whatever data message and control frame the handle holds.
void Settle(Model* model) {
    Write(nullptr, 0, CURLWS_TEXT, 0);
    Write(nullptr, 0, CURLWS_PONG, 0);
    if (model != nullptr) {
        model->Chunk({}, CURLWS_TEXT, 0);
        model->Chunk({}, CURLWS_PONG, 0);
    }
}

}  // namespace

extern "C" const struct curl_ws_frame* curl_ws_meta(CURL*) { return &g_Meta; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sysutil::SetLogLevel(100);
    IHttpInterface::Create();  // libcurl's global set-up
    g_Fixture = new Fixture;
    g_Fixture->handle = std::dynamic_pointer_cast<CHttpHandle>(IHttpHandleInterface::Create());
    // Armed, never added: the receive path runs as on an open connection.
    if (!g_Fixture->handle ||
        g_Fixture->handle->InitHttpReq("ws://127.0.0.1:9/", "fuzz", HTTP_REQ_WEBSOCKET, g_Fixture->recorder, 0, 0,
                                       nullptr) != 0)
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Settle(nullptr);
    g_Fixture->recorder->messages.clear();
    Model model;
    size_t pos = 0;
    while (pos < size) {
        const uint8_t head = data[pos++];
        const int flags = head & 0x7f;
        curl_off_t bytesleft = 0;
        if (head & 0x80) {
            if (size - pos < 2) break;
            bytesleft = static_cast<int16_t>(static_cast<uint16_t>(data[pos] | (data[pos + 1] << 8)));
            pos += 2;
        }
        if (pos >= size) break;
        size_t len = data[pos++];
        if (len > size - pos) len = size - pos;
        Write(data + pos, len, flags, bytesleft);
        model.Chunk(std::string(reinterpret_cast<const char*>(data + pos), len), flags, bytesleft);
        pos += len;
    }
    Settle(&model);
    if (!(g_Fixture->recorder->messages == model.out)) std::abort();
    g_Fixture->recorder->messages.clear();
    return 0;
}
