// The WebSocket receive path: arbitrary sequences of chunks, each with
// arbitrary frame metadata (flags, bytes left of the frame, length), through
// the handle's libcurl write callback. No crash, no read outside a chunk, and
// the messages the notice hears are exactly those of a plain model of the
// receive rules, byte for byte and in order:
//   - a control frame (close, ping, pong) collects its chunks until no bytes
//     are left of it and is delivered alone, as type 3 for a close and 0
//     otherwise, also in the middle of a fragmented data message;
//   - a data message collects the chunks of its frames until a chunk that
//     ends a frame (no bytes left) without the continuation flag; it takes
//     the type of that last frame, or of its first frame when the last one
//     names none; a frame of the other data type that begins while a message
//     is open ends that message first, as the type it began with;
//   - the connection fails, and from then on nothing more is delivered, when
//     a message (what is held plus what its frame still announces) passes the
//     input's limit, a control frame passes 125 bytes, or a text message stops
//     being the beginning of valid UTF-8 or ends inside a character.
//
// libcurl hands the metadata of the chunk being written out through
// curl_ws_meta. This program defines that function itself, so its definition
// takes the place of libcurl's for the handle's code linked in here, and each
// chunk carries the metadata the input chose.
//
// Input: one byte for the message limit (0: none, else 8 times the byte), then
// records of
//   byte 0      bits 0-6: CURLWS_* flags as they are; bit 7: bytes-left follows
//   [2 bytes]   bytes left of the frame after this chunk, signed 16-bit little endian
//   1 byte      chunk length (cut to what the input still has)
//   ...         the chunk
//
// One handle serves the whole run. Before and after every input two empty
// chunks that end a data message and a control frame bring the handle to its
// rest state; what they deliver is compared too, so bytes of an unfinished
// message at the end of an input must come out whole. A failed handle is
// deleted through a frame and armed again.
#include <curl/curl.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
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

// Whether text that may still go on can become valid; `complete` when it is
// valid as it stands. A character cut at the end can be completed when its
// smallest or largest completion is valid.
bool Utf8SoFar(const std::string& s, bool& complete) {
    size_t i = 0;
    for (size_t n; i < s.size() && (n = CharAt(s, i)) != 0;) i += n;
    complete = i == s.size();
    if (complete) return true;
    const uint8_t c = s[i];
    const size_t want = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    const size_t have = s.size() - i;
    if (want <= have) return false;
    return CharAt(s.substr(i) + std::string(want - have, '\x80'), 0) == want ||
           CharAt(s.substr(i) + std::string(want - have, '\xBF'), 0) == want;
}

// The receive rules, written plainly.
class Model {
public:
    explicit Model(size_t limit) : m_Limit(limit) {}
    bool failed = false;

    void Chunk(const std::string& bytes, int flags, curl_off_t bytesleft) {
        if (failed) return;
        const size_t left = bytesleft > 0 ? static_cast<size_t>(bytesleft) : 0;
        if (flags & (CURLWS_CLOSE | CURLWS_PING | CURLWS_PONG)) {
            const size_t size = m_Control.size() + bytes.size() + left;
            if (size > 125 || (m_Limit != 0 && size > m_Limit)) return Fail();
            m_Control += bytes;
            if (bytesleft == 0) {
                out.push_back({(flags & CURLWS_CLOSE) ? WS_MSG_CLOSE : WS_MSG_OTHER, m_Control});
                m_Control.clear();
            }
            return;
        }
        const int frameType = DataType(flags);
        bool complete = true;
        if (m_InMessage && m_FrameEnded && frameType != WS_MSG_OTHER && frameType != m_FirstType) {
            if (m_FirstType == WS_MSG_TEXT && !(Utf8SoFar(m_Message, complete) && complete)) return Fail();
            out.push_back({m_FirstType, m_Message});
            m_Message.clear();
            m_InMessage = false;
        }
        m_FrameEnded = bytesleft == 0;
        if (m_Limit != 0 && m_Message.size() + bytes.size() + left > m_Limit) return Fail();
        if (!m_InMessage) m_FirstType = frameType;
        m_Message += bytes;
        m_InMessage = (flags & CURLWS_CONT) != 0 || bytesleft != 0;
        if (m_FirstType == WS_MSG_TEXT && (!Utf8SoFar(m_Message, complete) || (!m_InMessage && !complete)))
            return Fail();
        if (m_InMessage) return;
        int type = DataType(flags);
        out.push_back({type != WS_MSG_OTHER ? type : m_FirstType, m_Message});
        m_Message.clear();
    }
    std::vector<Message> out;

private:
    void Fail() { failed = true; }

    size_t m_Limit;
    std::string m_Message;
    std::string m_Control;
    bool m_InMessage = false;
    bool m_FrameEnded = true;
    int m_FirstType = WS_MSG_OTHER;
};

struct Fixture {
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<CHttpHandle> handle;
    std::shared_ptr<IHttpInterface> frame = IHttpInterface::Create();  // deletes failed handles
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

// Armed, never added: the receive path runs as on an open connection. A
// deleted handle turns idle just after its done function: up to 1 s is given.
void Arm() {
    for (int i = 0; g_Fixture->handle->InitHttpReq("ws://127.0.0.1:9/", "fuzz", HTTP_REQ_WEBSOCKET,
                                                   g_Fixture->recorder, 0, 0, nullptr) != 0; ++i) {
        if (i == 1000) std::abort();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// A failed connection holds its close frame, which never leaves a handle that
// was not added, until it is deleted.
bool Failed() { return g_Fixture->handle->GetWsBufferedAmount() != 0; }

void Rearm() {
    std::promise<void> deleted;
    g_Fixture->frame->DelHttpReq(g_Fixture->handle, false,
                                 [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.set_value(); },
                                 nullptr);
    deleted.get_future().wait();
    if (Failed()) std::abort();
    Arm();
}

}  // namespace

extern "C" const struct curl_ws_frame* curl_ws_meta(CURL*) { return &g_Meta; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sysutil::SetLogLevel(100);
    g_Fixture = new Fixture;
    if (g_Fixture->frame->Init(nullptr, false, false, nullptr) != 0 || g_Fixture->frame->Start(true) != 0)
        std::abort();
    g_Fixture->handle = std::dynamic_pointer_cast<CHttpHandle>(IHttpHandleInterface::Create());
    if (!g_Fixture->handle) std::abort();
    Arm();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t limit = size_t{data[0]} * 8;
    g_Fixture->handle->SetWsMaxMessageSize(limit);
    Settle(nullptr);
    g_Fixture->recorder->messages.clear();
    Model model(limit);
    size_t pos = 1;
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
    if (Failed() != model.failed) std::abort();
    g_Fixture->recorder->messages.clear();
    if (model.failed) Rearm();
    return 0;
}
