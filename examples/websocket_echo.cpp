// Connect to a WebSocket echo server, send one message, print the echo.
//   websocket_echo ws://HOST:PORT/PATH
#include <netloop/IHttpInterface.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <string>

using namespace netloop;

class Echo : public IHttpHandleNotic {
public:
    explicit Echo(std::string text) : sent(std::move(text)) {}
    const std::string sent;
    std::promise<std::string> reply;
    std::atomic<bool> replied{false};
    void OnWsData(const char* data, size_t length, int type, void*) override {
        if (type != WS_MSG_TEXT) return;
        // `data` is lent for the call only: copy what is kept. A server may say
        // other things too (a greeting, say): only our own text is the echo, and
        // a promise can be kept once.
        std::string text(data, length);
        if (text != sent || replied.exchange(true)) {
            std::printf("server: %s\n", text.c_str());
            return;
        }
        reply.set_value(std::move(text));
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int, void*) override {}  // never for WebSockets
    void OnWsState(std::shared_ptr<IHttpHandleInterface>, int state, void*) override {
        if (state != WS_STATE_OPEN) std::fprintf(stderr, "connection ended (%d)\n", state);
    }
};

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s ws://HOST:PORT/PATH\n", argv[0]);
        return 2;
    }
    auto frame = IHttpInterface::Create();
    if (frame->Init(nullptr, false, false, nullptr) != 0 || frame->Start(true) != 0) return 1;

    const std::string text = "hello over netloop";
    auto echo = std::make_shared<Echo>(text);
    auto handle = IHttpHandleInterface::Create();
    // A total time-out of 0 lets the connection live until it is deleted.
    if (handle->InitHttpReq(argv[1], "ws", HTTP_REQ_WEBSOCKET, echo, 5000, 0, nullptr) != 0) return 1;
    frame->AddHttpReq(handle, false, nullptr, nullptr);

    // Sent before the upgrade completes, the message waits and goes out after it.
    size_t sent = 0;
    handle->SendWsData(std::make_shared<std::vector<uint8_t>>(text.begin(), text.end()), WS_MSG_TEXT, &sent);

    auto reply = echo->reply.get_future();
    bool got = reply.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    std::printf("%s\n", got ? reply.get().c_str() : "no echo");

    std::promise<void> deleted;
    frame->DelHttpReq(handle, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.set_value(); },
                      nullptr);
    deleted.get_future().wait();
    frame->Stop(false);
    return got ? 0 : 1;
}
