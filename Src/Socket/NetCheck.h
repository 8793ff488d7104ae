// One connection attempt of the network check: a reactor handler that connects its
// stream without blocking to one candidate address and reports to the manager when the
// connection completes. It ends itself (and is deleted) on completion, failure,
// time-out, or when the manager stops it.
#pragma once

#include <mutex>

#include <Corvane/NetHandler.h>
#include <Corvane/SockStream.h>

namespace Qelvar::Corvane {

class CNetCheck : public CNetHandler {
public:
    /// Message type that stops a session.
    static constexpr unsigned int kStop = 1;

    /// A session for candidate `candidate` of request `slot` in its `generation`.
    CNetCheck(int slot, unsigned int generation, int candidate);

    /// Connects to `address` and waits up to `timeout_ms` for the connection. 0, or -1
    /// (the session is then closed already).
    int StartSession(const CSockAddr* address, unsigned long long timeout_ms);

    int handle_output(int fd) override;
    int handle_output_timeout(int fd) override;
    int handle_exception(int fd) override;
    int handle_message(long from, unsigned int type, long attach) override;
    int handle_close(CNetHandler* handler) override;

private:
    int end();

    int m_slot;
    unsigned int m_generation;
    int m_candidate;
    // A stop message and the socket's events may run on two threads at once.
    std::recursive_mutex m_lock;
    bool m_ended = false;
    CSockStream m_stream;
};

}  // namespace Qelvar::Corvane
