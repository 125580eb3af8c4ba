// Where the tool's results go, and proof that they got there: every write to
// stdout or a file is checked, so a full disk or a closed pipe is a failure
// and never a silent loss.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>

namespace tool {

// Writes all of `data` to `fd`; false with `error` set when the system took
// less (ENOSPC, EPIPE, ...).
bool WriteAll(int fd, const char* data, size_t size, std::string& error);
// The same for a stdio stream, flushed; checks what stdio buffered before too.
bool WriteAll(FILE* stream, const std::string& data, std::string& error);
// Flushes stdout and reports whether everything printed through stdio arrived.
bool FlushStdout(std::string& error);

// Streams a response body to stdout without holding it: the library writes
// into a pipe (its output file is the pipe's /dev/fd name) and a thread of the
// tool copies the pipe to stdout with checked writes. When stdout fails, the
// pipe is closed, so the library's next write fails and the transfer ends.
class StdoutRelay {
public:
    StdoutRelay() = default;
    ~StdoutRelay();
    StdoutRelay(const StdoutRelay&) = delete;
    StdoutRelay& operator=(const StdoutRelay&) = delete;

    // Makes the pipe and starts copying. False when the pipe cannot be made.
    bool Start(std::string& error);
    // The name the library opens as its output file.
    std::string WriterPath() const;
    // Drops the tool's own end of the pipe once the library has opened its
    // own: the copy ends when the library closes the file.
    void CloseWriter();
    // Waits for the copy to end; false with `error` when stdout took less than
    // the library wrote.
    bool Finish(std::string& error);
    int64_t Copied() const { return m_Copied.load(); }
    bool Failed() const { return m_Failed.load(); }

private:
    void Copy();

    int m_Read = -1, m_Write = -1;
    std::thread m_Thread;
    std::atomic<int64_t> m_Copied{0};
    std::atomic<bool> m_Failed{false};
    std::string m_Error;
};

// The body of one download to a file: written under a temporary name in the
// target's folder and renamed to the real one only when the transfer succeeded,
// so a failure never leaves a file that looks like a result.
class StagedFile {
public:
    // Makes the temporary file; false with `error` when the folder is not
    // writable.
    bool Create(const std::string& finalPath, std::string& error);
    const std::string& TempPath() const { return m_Temp; }
    const std::string& FinalPath() const { return m_Final; }
    // The size of the temporary file, -1 when it is gone.
    int64_t Size() const;
    // Renames the file to its real name.
    bool Commit(std::string& error);
    // Removes the temporary file.
    void Discard();

private:
    std::string m_Temp, m_Final;
};

}  // namespace tool
