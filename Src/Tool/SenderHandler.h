// CSenderHandler: the shared reactor timer that drives media buffers in auto-send mode.
#pragma once

#include <Corvane/NetHandler.h>

#include <cstdint>

namespace Qelvar::Corvane {

class CMediaBuffer;

/// One handler for the whole process, on pool 0, whose timer calls do_send on every
/// registered media buffer. The first registration creates it with its period in
/// milliseconds (later ones keep that period); it is closed when the last buffer leaves,
/// so no object of the library outlives the buffers using it. Register and Unregister
/// never run inside a tick: a buffer that has unregistered is not called again, and
/// Unregister returns only after a tick running on it has finished.
class CSenderHandler : public CNetHandler {
public:
    static constexpr std::uint64_t kDefaultPeriodMs = 100;

    /// Adds `buffer`; 0, or -1 when the handler could not be made (no pool 0).
    static int Register(CMediaBuffer* buffer, std::uint64_t period_ms);
    static void Unregister(CMediaBuffer* buffer);

    long long handle_timeout(long timer_id) override;
    int handle_close(CNetHandler* handler) override;

private:
    CSenderHandler() : CNetHandler(0) {}
};

}  // namespace Qelvar::Corvane
