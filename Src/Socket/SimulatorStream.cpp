#include <Corvane/SimulatorStream.h>

#include <Corvane/SockStream.h>

#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"

namespace Qelvar::Corvane {

struct SSimulatorData {
    unsigned int budget = 0;     ///< bytes allowed per one-second period
    unsigned int sent = 0;       ///< bytes sent in the current period
    unsigned long long start = 0;  ///< period start, milliseconds
    CSockStream* real = nullptr;   ///< carries the data; not owned
};

CSimulatorStream::CSimulatorStream() : CSock(-1, SOCK_TYPE_SIMULATOR), m_data(new SSimulatorData)
{
    m_data->start = static_cast<unsigned long long>(Fundel::CTime::getCurrentMilliSecond());
}

CSimulatorStream::~CSimulatorStream()
{
    // The descriptor belongs to the real stream: leave it open for it.
    Detach();
    delete m_data;
}

void CSimulatorStream::SetRealSocket(CSockStream* real)
{
    m_data->real = real;
    m_sockfd = real ? real->GetHandle() : -1;
}

int CSimulatorStream::SetBandWidth(unsigned int mbps)
{
    // 32-bit arithmetic, as it always was: from 4096 Mbit/s upwards the shift wraps.
    m_data->budget = (mbps << 20) >> 3;
    return 0;
}

// Sends one piece within the period's budget: 0 when the budget is used up.
int CSimulatorStream::send_piece(const char* buf, unsigned int len)
{
    const auto now = static_cast<unsigned long long>(Fundel::CTime::getCurrentMilliSecond());
    if (now - m_data->start > 1000) {
        m_data->start = now;
        m_data->sent = 0;
    }
    if (m_data->sent >= m_data->budget) return 0;
    const unsigned int left = m_data->budget - m_data->sent;
    if (len > left) len = left;
    const int ret = m_data->real ? m_data->real->Send(buf, len) : static_cast<int>(len);
    if (ret > 0) m_data->sent += static_cast<unsigned int>(ret);
    return ret;
}

int CSimulatorStream::Send(const char* buf, unsigned int len)
{
    return send_piece(buf, len);
}

int CSimulatorStream::WriteV(const iovec* vec, int count)
{
    if (!vec) return -1;
    if (count < 1) return 0;
    int total = 0;
    int last = 0;
    for (int i = 0; i < count; ++i) {
        last = send_piece(static_cast<const char*>(vec[i].iov_base), static_cast<unsigned int>(vec[i].iov_len));
        if (last > 0) total += last;
        // An element taken in part ends the write: the system may take some of the
        // next one, which would leave a hole in the stream.
        if (last > 0 && static_cast<unsigned long>(last) < static_cast<unsigned long>(vec[i].iov_len)) break;
        if (last < 1) {
            if (last < 0) {
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send failed! vector[%d].iov_base:%p, len:%lu, fd:%d\n",
                        static_cast<void*>(this), "CSimulatorStream::WriteV", i, static_cast<const void*>(vec[i].iov_base),
                        static_cast<unsigned long>(vec[i].iov_len), m_sockfd);
            }
            break;
        }
    }
    return total >= 1 ? total : last;
}

}  // namespace Qelvar::Corvane
