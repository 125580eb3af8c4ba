// Internal to the test servers: the bounded history behind Requests(),
// Received() and friends. Keeps the newest `maxRecords` records and at most
// `maxPayloadBytes` of their payloads; past that, the oldest payloads are
// dropped first while their records (sizes, hashes, order) stay. Tests that
// push thousands of transfers through a server thus cannot make it hoard
// gigabytes. Not thread-safe: the owner holds its own lock.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

namespace testsupport::detail {

template <class Record>
class RecordLog {
public:
    RecordLog(size_t maxRecords, uint64_t maxPayloadBytes, std::string Record::*payload, bool Record::*kept)
        : m_MaxRecords(maxRecords), m_MaxBytes(maxPayloadBytes), m_Payload(payload), m_Kept(kept) {}

    void Add(Record record) {
        m_Bytes += (record.*m_Payload).size();
        m_Items.push_back(std::move(record));
        while (m_Items.size() > m_MaxRecords) {
            m_Bytes -= (m_Items.front().*m_Payload).size();
            m_Items.pop_front();
            if (m_Trimmed > 0) --m_Trimmed;
        }
        while (m_Bytes > m_MaxBytes && m_Trimmed < m_Items.size()) {
            Record& old = m_Items[m_Trimmed++];
            m_Bytes -= (old.*m_Payload).size();
            std::string().swap(old.*m_Payload);
            old.*m_Kept = false;
        }
    }

    const std::deque<Record>& Items() const { return m_Items; }

    void Clear() {
        m_Items.clear();
        m_Bytes = 0;
        m_Trimmed = 0;
    }

private:
    size_t m_MaxRecords;
    uint64_t m_MaxBytes;
    std::string Record::*m_Payload;
    bool Record::*m_Kept;
    std::deque<Record> m_Items;
    uint64_t m_Bytes = 0;
    size_t m_Trimmed = 0;  // leading records whose payload is already dropped
};

}  // namespace testsupport::detail
