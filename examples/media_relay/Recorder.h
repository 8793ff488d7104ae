// Writes the live input to a file while it is relayed. The bytes go through a CNFile,
// whose buffers the file threads drain, so a slow disk never holds up the reactor thread
// that reads the producer. What the file's buffers cannot take yet waits in a backlog
// until the file says there is room again (message 6).
#pragma once

#include <Corvane/NFile.h>
#include <Corvane/NetHandler.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace Relay {

using namespace Qelvar::Corvane;

class CRecorder : public CNetHandler {
public:
    /// Creates `path` (truncating it). 0, or -1.
    int Open(const char* path)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_file = CNFile::Open(GetID(), path, "wb");
        return m_file ? 0 : -1;
    }

    /// Appends bytes as they were read.
    void Write(const char* data, std::size_t len)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_file || m_failed) return;
        if (m_backlog.size() - m_done + len > kMaxBacklog) {
            m_lost += len;  // the disk has not kept up for a long while
            return;
        }
        m_backlog.insert(m_backlog.end(), data, data + len);
        flush();
    }

    /// Writes what waits (for `patience` at most), closes the file once its bytes are
    /// on the device, and ends the recorder.
    void Stop(std::chrono::milliseconds patience)
    {
        const auto until = std::chrono::steady_clock::now() + patience;
        for (;;) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                flush();
                if (m_done == m_backlog.size() || m_failed || std::chrono::steady_clock::now() >= until) {
                    m_lost += m_backlog.size() - m_done;
                    if (m_lost > 0) {
                        std::fprintf(stderr, "media_relay: %llu bytes were not recorded\n",
                                     static_cast<unsigned long long>(m_lost));
                    }
                    if (m_file) m_file->Close();
                    m_file = nullptr;
                    break;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        Close();
    }

    int handle_message(long, unsigned int type, long) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (type == 6) {
            flush();
        } else if (type == 8 && !m_failed) {
            m_failed = true;
            std::fprintf(stderr, "media_relay: writing the recording failed\n");
        }
        return 0;
    }

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

private:
    // As much of the backlog as the file takes now.
    void flush()
    {
        while (m_file && m_done < m_backlog.size()) {
            const int n = m_file->Write(m_backlog.data() + m_done, static_cast<unsigned int>(m_backlog.size() - m_done));
            if (n <= 0) break;  // message 6 comes when there is room
            m_done += static_cast<std::size_t>(n);
        }
        if (m_done == m_backlog.size()) {
            m_backlog.clear();
            m_done = 0;
        }
    }

    static constexpr std::size_t kMaxBacklog = 64u << 20;

    std::mutex m_mutex;
    CNFile* m_file = nullptr;
    std::vector<char> m_backlog;
    std::size_t m_done = 0;  // bytes of the backlog the file took
    std::uint64_t m_lost = 0;
    bool m_failed = false;
};

}  // namespace Relay
