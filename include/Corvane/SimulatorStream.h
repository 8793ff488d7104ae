// CSimulatorStream: a stream whose sending rate is capped, to simulate a slow link.
#pragma once

#include <Corvane/IoVec.h>
#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

class CSockStream;
struct SSimulatorData;

/// Sends through a real CSockStream (not owned) at most a budget of bytes per second
/// (type 4). It carries the real stream's descriptor, so it can be registered with the
/// reactor in its place. Receiving goes to the real stream directly.
class CORVANE_API CSimulatorStream : public CSock {
public:
    CSimulatorStream();
    ~CSimulatorStream() override;
    CSimulatorStream(const CSimulatorStream&) = delete;
    CSimulatorStream& operator=(const CSimulatorStream&) = delete;

    /// Sends through `real` and takes its descriptor.
    void SetRealSocket(CSockStream* real);
    /// Budget of `mbps` × 131072 bytes per second, computed in 32 bits (it wraps from
    /// 4096 upwards). 0 until set: nothing can be sent.
    int SetBandWidth(unsigned int mbps);
    /// As CSockStream::Send within the budget left in the current second: 0 when it is
    /// used up. Without a real stream the bytes count as sent.
    int Send(const char* buf, unsigned int len);
    /// As Send for each element in turn, up to the first one not taken whole; the
    /// total, or the first element's result.
    int WriteV(const iovec* vec, int count);

private:
    int send_piece(const char* buf, unsigned int len);

    SSimulatorData* m_data;
};

}  // namespace Qelvar::Corvane
