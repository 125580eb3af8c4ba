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

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "http/HttpHandle.h"
#include "netloop/IHttpInterface.h"
#include "sysutil/sysutil.h"

using namespace netloop;

namespace {

using Messages = std::vector<std::pair<int, std::string>>;  // type, bytes
curl_ws_frame g_Meta;  // the metadata of the chunk being written

struct Recorder : IHttpHandleNotic {
    Messages messages;
    void OnWsData(const char* data, size_t length, int type, void*) override {
        if (length != 0 && data == nullptr) std::abort();
        messages.emplace_back(type, std::string(data ? data : "", length));  // reads every byte
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override { std::abort(); }
};

int DataType(int flags) {
    return flags & CURLWS_BINARY ? WS_MSG_BINARY : flags & CURLWS_TEXT ? WS_MSG_TEXT : WS_MSG_OTHER;
}

// The receive rules, written plainly: a control frame collects its chunks and
// comes alone (close as 3, else 0), also inside a fragmented message; a data
// message ends with a frame without CONT and no bytes left, and takes the type
// of that frame, or of its first frame when the last names none.
struct Model {
    Messages out;
    std::string message, control;
    bool inMessage = false;
    int firstType = WS_MSG_OTHER;
    void Chunk(const std::string& bytes, int flags, curl_off_t bytesleft) {
        if (flags & (CURLWS_CLOSE | CURLWS_PING | CURLWS_PONG)) {
            control += bytes;
            if (bytesleft == 0) out.emplace_back(flags & CURLWS_CLOSE ? WS_MSG_CLOSE : WS_MSG_OTHER, control);
            if (bytesleft == 0) control.clear();
            return;
        }
        if (!inMessage) firstType = DataType(flags);
        message += bytes;
        inMessage = (flags & CURLWS_CONT) != 0 || bytesleft != 0;
        if (inMessage) return;
        out.emplace_back(DataType(flags) != WS_MSG_OTHER ? DataType(flags) : firstType, message);
        message.clear();
    }
};

std::shared_ptr<Recorder> g_Recorder;
std::shared_ptr<CHttpHandle> g_Handle;  // armed, never added: receives as on an open connection

// One chunk through the write callback, from a buffer of exactly its size, and
// through the model.
void Feed(const uint8_t* bytes, size_t len, int flags, curl_off_t bytesleft, Model* model) {
    std::unique_ptr<char[]> chunk(new char[len]);
    if (len != 0) std::memcpy(chunk.get(), bytes, len);
    g_Meta = curl_ws_frame{};
    g_Meta.flags = flags;
    g_Meta.bytesleft = bytesleft;
    g_Meta.len = len;
    if (CHttpHandle::CurlWriteCallback(chunk.get(), 1, len, &g_Handle) != len) std::abort();
    if (model) model->Chunk(std::string(chunk.get(), len), flags, bytesleft);
}

// Ends whatever data message and control frame the handle holds.
void Settle(Model* model) {
    Feed(nullptr, 0, CURLWS_TEXT, 0, model);
    Feed(nullptr, 0, CURLWS_PONG, 0, model);
}

}  // namespace

extern "C" const struct curl_ws_frame* curl_ws_meta(CURL*) { return &g_Meta; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sysutil::SetLogLevel(100);
    IHttpInterface::Create();  // libcurl's global set-up
    g_Recorder = std::make_shared<Recorder>();
    g_Handle = std::dynamic_pointer_cast<CHttpHandle>(IHttpHandleInterface::Create());
    if (!g_Handle || g_Handle->InitHttpReq("ws://127.0.0.1:9/", "fuzz", HTTP_REQ_WEBSOCKET, g_Recorder, 0, 0, nullptr))
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Settle(nullptr);
    g_Recorder->messages.clear();
    Model model;
    for (size_t pos = 0; pos < size;) {
        const uint8_t head = data[pos++];
        curl_off_t bytesleft = 0;
        if (head & 0x80) {
            if (size - pos < 2) break;
            bytesleft = static_cast<int16_t>(static_cast<uint16_t>(data[pos] | (data[pos + 1] << 8)));
            pos += 2;
        }
        if (pos >= size) break;
        const size_t len = std::min<size_t>(data[pos++], size - pos);
        Feed(data + pos, len, head & 0x7f, bytesleft, &model);
        pos += len;
    }
    Settle(&model);
    if (g_Recorder->messages != model.out) std::abort();
    return 0;
}
