// POST a form body with custom headers and print the answer.
//   http_post_headers URL
#include <netloop/IHttpInterface.h>

#include <cstdio>
#include <future>

using namespace netloop;

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
    auto frame = IHttpInterface::Create();
    if (frame->Init(nullptr, false, false, nullptr) != 0 || frame->Start(true) != 0) return 1;

    auto finish = std::make_shared<Finish>();
    auto handle = IHttpHandleInterface::Create();
    if (handle->InitHttpReq(argv[1], "post", HTTP_REQ_POST, finish, 5000, 30000, nullptr) != 0) return 1;
    // Setters come after InitHttpReq and before the add. The handle keeps its
    // own copy of the body.
    handle->SetPostFields("name=netloop&kind=example");
    handle->SetHeaders({"Content-Type: application/x-www-form-urlencoded", "X-Example: post-with-headers"});
    frame->AddHttpReq(handle, false, nullptr, nullptr);

    int result = finish->done.get_future().get();
    std::printf("result %d, HTTP %ld\n", result, handle->GetResponseCode());
    std::fwrite(handle->GetResponse().data(), 1, handle->GetResponse().size(), stdout);

    std::promise<void> deleted;
    frame->DelHttpReq(handle, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted.set_value(); },
                      nullptr);
    deleted.get_future().wait();
    frame->Stop(false);
    return result == 0 ? 0 : 1;
}
