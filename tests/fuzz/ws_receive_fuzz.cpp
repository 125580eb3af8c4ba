// The WebSocket receive path: chunks with arbitrary frame metadata through the
// handle's libcurl write callback (this program defines curl_ws_meta, so each
// chunk carries what the input chose). No crash, no read outside a chunk, and
// the notice hears exactly the messages of the model below, in order. Input: a
// byte for the message limit (0 none, else 8 times it), then records of
// CURLWS_* flags (bit 7: a signed 16-bit LE bytes-left follows), a length
// byte, the chunk. Two empty chunks ending a data message and a control frame
// settle the handle before and after each input; they are compared too. The
// model says exactly when the connection fails; a failed handle is deleted
// through a frame and armed again.
#include <curl/curl.h>

#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
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

// Length of the valid UTF-8 character at s[i], or 0. Decodes the value and
// checks it, where the library checks byte ranges.
size_t CharAt(const std::string& s, size_t i) {
    const uint8_t c = s[i];
    const size_t n = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    if (n == 0 || i + n > s.size()) return 0;
    uint32_t v = n == 1 ? c : c & (0x7F >> n);
    for (size_t k = 1; k < n; ++k) {
        if ((s[i + k] & 0xC0) != 0x80) return 0;
        v = (v << 6) | (s[i + k] & 0x3F);
    }
    static const uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    return v < kLeast[n] || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF) ? 0 : n;
}

// Whether text that may go on can still become valid (a character cut at the
// end can when its smallest or largest completion is valid); `complete` when
// it is valid as it stands.
bool Utf8SoFar(const std::string& s, bool& complete) {
    size_t i = 0;
    for (size_t n; i < s.size() && (n = CharAt(s, i)) != 0;) i += n;
    complete = i == s.size();
    if (complete) return true;
    const uint8_t c = s[i];
    const size_t want = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    const size_t have = s.size() - i;
    return want > have && (CharAt(s.substr(i) + std::string(want - have, '\x80'), 0) == want ||
                           CharAt(s.substr(i) + std::string(want - have, '\xBF'), 0) == want);
}

// The receive rules, written plainly: a control frame collects its chunks and
// comes alone (close as 3, else 0), also inside a fragmented message; a data
// message ends with a frame without CONT and no bytes left, and takes the type
// of that frame, or of its first frame when the last names none; a frame of
// the other data type ends an open message first. The connection fails when a
// message (held plus announced) passes the limit, a control frame 125 bytes,
// or text stops being the start of valid UTF-8 or ends inside a character.
struct Model {
    Messages out;
    std::string message, control;
    bool inMessage = false, frameEnded = true, failed = false;
    int firstType = WS_MSG_OTHER;
    size_t limit = 0;
    bool TextFails(bool ends) {
        bool complete = false;
        return firstType == WS_MSG_TEXT && (!Utf8SoFar(message, complete) || (ends && !complete));
    }
    void Chunk(const std::string& bytes, int flags, curl_off_t bytesleft) {
        const size_t left = bytesleft > 0 ? static_cast<size_t>(bytesleft) : 0;
        if (failed) return;
        if (flags & (CURLWS_CLOSE | CURLWS_PING | CURLWS_PONG)) {
            const size_t size = control.size() + bytes.size() + left;
            if (size > 125 || (limit != 0 && size > limit)) failed = true;
            if (failed) return;
            control += bytes;
            if (bytesleft == 0) out.emplace_back(flags & CURLWS_CLOSE ? WS_MSG_CLOSE : WS_MSG_OTHER, control);
            if (bytesleft == 0) control.clear();
            return;
        }
        const int type = DataType(flags);
        if (inMessage && frameEnded && type != WS_MSG_OTHER && type != firstType) {
            if ((failed = TextFails(true))) return;
            out.emplace_back(firstType, message);
            message.clear();
            inMessage = false;
        }
        frameEnded = bytesleft == 0;
        if ((failed = limit != 0 && message.size() + bytes.size() + left > limit)) return;
        if (!inMessage) firstType = type;
        message += bytes;
        inMessage = (flags & CURLWS_CONT) != 0 || bytesleft != 0;
        if ((failed = TextFails(!inMessage)) || inMessage) return;
        out.emplace_back(DataType(flags) != WS_MSG_OTHER ? DataType(flags) : firstType, message);
        message.clear();
    }
};

std::shared_ptr<Recorder> g_Recorder;
std::shared_ptr<CHttpHandle> g_Handle;  // armed, never added: receives as on an open connection
std::shared_ptr<IHttpInterface> g_Frame;  // deletes failed handles

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

// A deleted handle turns idle just after its done function: 1 s is given.
void Arm() {
    for (int i = 0; g_Handle->InitHttpReq("ws://127.0.0.1:9/", "fuzz", HTTP_REQ_WEBSOCKET, g_Recorder, 0, 0, nullptr);
         ++i) {
        if (i == 1000) std::abort();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// A failed connection holds its close frame, which never leaves a handle that
// was not added, until it is deleted.
bool Failed() { return g_Handle->GetWsBufferedAmount() != 0; }

void Rearm() {
    std::promise<void> deleted;
    g_Frame->DelHttpReq(g_Handle, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.set_value(); },
                        nullptr);
    deleted.get_future().wait();
    if (Failed()) std::abort();
    Arm();
}

}  // namespace

extern "C" const struct curl_ws_frame* curl_ws_meta(CURL*) { return &g_Meta; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sysutil::SetLogLevel(100);
    g_Frame = IHttpInterface::Create();
    if (g_Frame->Init(nullptr, false, false, nullptr) != 0 || g_Frame->Start(true) != 0) std::abort();
    g_Recorder = std::make_shared<Recorder>();
    g_Handle = std::dynamic_pointer_cast<CHttpHandle>(IHttpHandleInterface::Create());
    if (!g_Handle) std::abort();
    Arm();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    Model model;
    model.limit = size_t{data[0]} * 8;
    g_Handle->SetWsMaxMessageSize(model.limit);
    Settle(nullptr);
    g_Recorder->messages.clear();
    for (size_t pos = 1; pos < size;) {
        const uint8_t head = data[pos++];
        curl_off_t bytesleft = 0;
        if (head & 0x80) {
            if (size - pos < 2) break;
            bytesleft = static_cast<int16_t>(static_cast<uint16_t>(data[pos] | (data[pos + 1] << 8)));
            pos += 2;
        }
        if (pos >= size) break;
        const size_t want = data[pos++];
        const size_t len = std::min(want, size - pos);
        Feed(data + pos, len, head & 0x7f, bytesleft, &model);
        pos += len;
    }
    Settle(&model);
    if (g_Recorder->messages != model.out || Failed() != model.failed) std::abort();
    if (model.failed) Rearm();
    return 0;
}
