// CMediaPacket: one reference-counted piece of media handed to a CMediaBuffer.
#pragma once

#include <Corvane/Export.h>

namespace Qelvar::Corvane {

/// A piece of media whose bytes stay where they are from the producer to the socket.
///
/// Handing a packet to CMediaBuffer::Put or PutFrameInfo hands over one reference: the
/// buffer calls Release exactly once for it, when the frame holding it is deleted. The
/// bytes at GetBuffer() must stay valid and unchanged until then; their length is given
/// with Put, not kept here. Whether Release counts atomically is the implementation's
/// choice: the buffer calls it on whichever thread deletes the frame (the producer's, or
/// the reactor thread of the auto-send timer).
class CORVANE_API CMediaPacket {
public:
    virtual ~CMediaPacket() = default;
    /// Drops one reference.
    virtual void Release() = 0;
    /// The address of the packet's bytes.
    virtual char* GetBuffer() = 0;
};

}  // namespace Qelvar::Corvane
