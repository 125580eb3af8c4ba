#include "Output.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace tool {

bool WriteAll(int fd, const char* data, size_t size, std::string& error) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = n < 0 ? std::strerror(errno) : "nothing written";
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteAll(FILE* stream, const std::string& data, std::string& error) {
    errno = 0;
    if (std::fwrite(data.data(), 1, data.size(), stream) != data.size() || std::fflush(stream) != 0 ||
        std::ferror(stream)) {
        error = errno != 0 ? std::strerror(errno) : "an earlier write to it failed";
        return false;
    }
    return true;
}

bool FlushStdout(std::string& error) { return WriteAll(stdout, std::string(), error); }

// ---------------------------------------------------------------------------

StdoutRelay::~StdoutRelay() {
    CloseWriter();
    if (m_Thread.joinable()) m_Thread.join();
}

bool StdoutRelay::Start(std::string& error) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        error = std::string("cannot make a pipe: ") + std::strerror(errno);
        return false;
    }
    // A write into the pipe after stdout failed must fail, not end the process.
    ::signal(SIGPIPE, SIG_IGN);
    m_Read = fds[0];
    m_Write = fds[1];
    m_Thread = std::thread([this] { Copy(); });
    return true;
}

std::string StdoutRelay::WriterPath() const { return "/dev/fd/" + std::to_string(m_Write); }

void StdoutRelay::CloseWriter() {
    if (m_Write >= 0) ::close(m_Write);
    m_Write = -1;
}

void StdoutRelay::Copy() {
    std::string error;
    std::fflush(stdout);  // whatever was printed before the body comes first
    std::vector<char> buffer(1 << 16);
    for (;;) {
        ssize_t n = ::read(m_Read, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (!WriteAll(STDOUT_FILENO, buffer.data(), static_cast<size_t>(n), error)) {
            m_Error = error;
            m_Failed = true;
            break;
        }
        m_Copied += n;
    }
    ::close(m_Read);
    m_Read = -1;
}

bool StdoutRelay::Finish(std::string& error) {
    CloseWriter();
    if (m_Thread.joinable()) m_Thread.join();
    if (!m_Failed) return true;
    error = "writing to stdout failed: " + m_Error;
    return false;
}

// ---------------------------------------------------------------------------

namespace {

// Creates `dir` and the folders above it.
void MakeFolders(const std::string& dir) {
    for (size_t pos = dir.find('/', 1);; pos = dir.find('/', pos + 1)) {
        ::mkdir(dir.substr(0, pos).c_str(), 0777);
        if (pos == std::string::npos) return;
    }
}

}  // namespace

bool StagedFile::Create(const std::string& finalPath, std::string& error) {
    m_Final = finalPath;
    size_t slash = finalPath.rfind('/');
    std::string dir = slash == std::string::npos ? "." : finalPath.substr(0, slash);
    std::string name = slash == std::string::npos ? finalPath : finalPath.substr(slash + 1);
    MakeFolders(dir);
    std::string pattern = dir + "/." + name + ".XXXXXX.part";
    int fd = ::mkstemps(&pattern[0], 5);
    if (fd < 0) {
        error = "cannot create a file in " + dir + ": " + std::strerror(errno);
        return false;
    }
    // mkstemps makes the file private; the result gets the usual permissions.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    ::close(fd);
    m_Temp = pattern;
    return true;
}

int64_t StagedFile::Size() const {
    struct stat st;
    return ::stat(m_Temp.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

bool StagedFile::Commit(std::string& error) {
    if (::rename(m_Temp.c_str(), m_Final.c_str()) == 0) return true;
    error = "cannot rename to " + m_Final + ": " + std::strerror(errno);
    Discard();
    return false;
}

void StagedFile::Discard() {
    if (!m_Temp.empty()) ::unlink(m_Temp.c_str());
}

}  // namespace tool
