#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/CaptureLogger.h"
#include "sysutil/sysutil.h"

namespace {

std::string ReadComm(int32_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

TEST(Sysutil, TidIsUniquePerLiveThreadAndNameIsVisible) {
    std::set<int32_t> tids{sysutil::GetTid()};
    std::vector<std::thread> threads;
    std::mutex m;
    std::atomic<int> ready{0};
    std::atomic<bool> release{false};
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            int32_t tid = sysutil::GetTid();
            EXPECT_EQ(tid, sysutil::GetTid());
            EXPECT_TRUE(sysutil::SetThreadName("Http"));
            EXPECT_EQ(ReadComm(tid), "Http");
            {
                std::lock_guard<std::mutex> lock(m);
                tids.insert(tid);
            }
            ++ready;
            while (!release) std::this_thread::yield();
        });
    while (ready < 4) std::this_thread::yield();
    release = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(tids.size(), 5u);
    EXPECT_EQ(sysutil::GetTid(), static_cast<int32_t>(::getpid()));
}

TEST(Sysutil, OpenFileCreatesMissingFolders) {
    char tmpl[] = "/tmp/sysutil_test_XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    std::string path = std::string(tmpl) + "/a/b/c/out.bin";
    FILE* f = sysutil::CPathUtil::OpenFile(path.c_str(), "wb", -1);
    ASSERT_NE(f, nullptr);
    std::fputs("x", f);
    std::fclose(f);
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 1);
    EXPECT_EQ(sysutil::CPathUtil::OpenFile(nullptr, "wb", -1), nullptr);
    // A folder where a file should be: fopen fails, no crash.
    EXPECT_EQ(sysutil::CPathUtil::OpenFile(tmpl, "wb", -1), nullptr);
    std::system((std::string("rm -rf ") + tmpl).c_str());
}

TEST(Sysutil, InstalledLoggerReceivesFormattedLinesAndIsRestored) {
    auto before = sysutil::ISysutilLogInterface::GetLogInstance(nullptr);
    {
        testsupport::ScopedCaptureLogger capture;
        auto logger = sysutil::ISysutilLogInterface::GetLogInstance(nullptr);
        int level = 60, tid = sysutil::GetTid();
        logger->WriteLog(&level, &tid, "[NETLOOP]err[%d:%s]%s", -22, "invalid argument", "uv_loop_init failed");
        EXPECT_TRUE(capture->Has("[NETLOOP]err[-22:invalid argument]uv_loop_init failed", 60));
        EXPECT_EQ(capture->Lines().at(0).tid, tid);
    }
    EXPECT_EQ(sysutil::ISysutilLogInterface::GetLogInstance(nullptr), before);
}

}  // namespace
