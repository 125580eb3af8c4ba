// A list of named events that notices on the loop thread append to and a test
// reads from its own thread, with bounded waits for a count.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "support/Wait.h"

namespace testsupport {

// `Event` is any struct whose `what` member names the event.
template <typename Event>
class EventList {
public:
    void Push(Event event) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Events.push_back(std::move(event));
    }
    std::vector<Event> Events() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Events;
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> out;
        for (const Event& e : Events()) out.push_back(e.what);
        return out;
    }
    size_t Count(const std::string& what) const {
        size_t n = 0;
        for (const Event& e : Events()) n += e.what == what;
        return n;
    }
    bool WaitCount(const std::string& what, size_t n,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        return WaitUntil([&] { return Count(what) >= n; }, timeout);
    }

private:
    mutable std::mutex m_Mutex;
    std::vector<Event> m_Events;
};

}  // namespace testsupport
