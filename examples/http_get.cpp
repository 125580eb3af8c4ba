// GET one URL and print its status and body.
//   http_get URL
#include <netloop/IHttpInterface.h>

#include <cstdio>
#include <future>

using namespace netloop;

// Notices arrive on the frame's loop thread.
class Finish : public IHttpHandleNotic {
public:
    std::promise<int> done;
    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int result, void*) override { done.set_value(result); }
};

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s URL\n", argv[0]);
        return 2;
    }
    // One frame: a loop thread with libcurl's multi handle on it.
    auto frame = IHttpInterface::Create();
    if (frame->Init(nullptr, false, false, nullptr) != 0 || frame->Start(true) != 0) return 1;

    // Arm a handle on this thread, then hand it to the frame.
    auto finish = std::make_shared<Finish>();
    auto handle = IHttpHandleInterface::Create();
    if (handle->InitHttpReq(argv[1], "example", HTTP_REQ_GET, finish, 5000, 30000, nullptr) != 0) return 1;
    frame->AddHttpReq(handle, false, nullptr, nullptr);

    int result = finish->done.get_future().get();
    // After OnFinish the response may be read from any thread.
    std::printf("result %d, HTTP %ld, %zu bytes\n", result, handle->GetResponseCode(), handle->GetResponse().size());
    std::fwrite(handle->GetResponse().data(), 1, handle->GetResponse().size(), stdout);

    // Every handle is deleted through the frame before the frame stops.
    std::promise<void> deleted;
    frame->DelHttpReq(handle, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.set_value(); },
                      nullptr);
    deleted.get_future().wait();
    frame->Stop(false);
    return result == 0 ? 0 : 1;
}
