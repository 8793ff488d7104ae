// CLevel2Buffer_IF: a second consumer that a CMediaBuffer offers every packet to.
#pragma once

#include <Corvane/Export.h>

namespace Qelvar::Corvane {

class CMediaPacket;

/// A consumer that sees every packet put into a CMediaBuffer as it arrives, before the
/// buffer files it into a frame (a recorder, a second fan-out).
///
/// The buffer does not keep packets alive for it: Put must copy what it needs, or take a
/// reference of its own, before it returns. A negative result asks the buffer to unlink
/// this consumer; the buffer never deletes it. Put runs under the buffer's lock.
class CORVANE_API CLevel2Buffer_IF {
public:
    virtual ~CLevel2Buffer_IF() = default;
    /// One packet, with the length, mark and level word given to CMediaBuffer::Put (the
    /// level unclamped). Negative: unlink me.
    virtual int Put(CMediaPacket* packet, int len, int mark, int level) = 0;

    /// The buffer's link to the next consumer; owned by the buffer while attached.
    CLevel2Buffer_IF* m_next = nullptr;
};

}  // namespace Qelvar::Corvane
