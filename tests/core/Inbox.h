// A probe that records every message it gets, for tests that check what arrived, from
// whom and how often. It closes its probe when it goes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "Probe.h"

namespace Qelvar::Test {

class Inbox {
public:
    struct Note {
        long from;
        unsigned int type;
        long attach;
    };

    explicit Inbox(int pool = 0, Signal* closed = nullptr) : probe(pool, closed)
    {
        probe.on_message = [this](long from, unsigned int type, long attach) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_notes.push_back({from, type, attach});
            m_cv.notify_all();
            return 0;
        };
    }
    ~Inbox() { probe.Close(); }

    long Id() { return probe.GetID(); }
    /// The messages of `type` (from `from`, or from anyone when 0), in arrival order.
    std::vector<Note> Notes(unsigned int type, long from = 0)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Note> out;
        for (const Note& n : m_notes) {
            if (n.type == type && (from == 0 || n.from == from)) out.push_back(n);
        }
        return out;
    }
    int Count(unsigned int type, long from = 0) { return static_cast<int>(Notes(type, from).size()); }
    /// Waits until `count` messages of `type` came; false on time-out.
    bool WaitCount(unsigned int type, int count, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, timeout, [&] {
            int n = 0;
            for (const Note& note : m_notes) n += note.type == type;
            return n >= count;
        });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<Note> m_notes;

public:
    Probe probe;  // last: its destructor waits for its release while the record still exists
};

}  // namespace Qelvar::Test
