// The separately allocated state of a CNetHandler, so that the handler itself holds
// nothing but its virtual table and this pointer. The pool's object table maps the
// handler's id to this record.
#pragma once

#include <atomic>
#include <cstdint>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

class CNetHandler;

enum : std::uint16_t {
    HANDLER_OPEN = 0x0101,
    HANDLER_CLOSED = 0x0202,
};

struct SHandlerState {
    std::uint16_t m_magic = HANDLER_OPEN;  ///< guarded by m_mutex
    std::uint8_t m_released = 0;           ///< handle_close ran; guarded by m_mutex
    /// The object id; 0 when the object has no pool or its pool was destroyed.
    std::atomic<std::int64_t> m_id{0};
    CNetHandler* m_owner = nullptr;
    Fundel::CMutex m_mutex;
    std::atomic<std::int64_t> m_refs{0};
    std::atomic<std::int64_t> m_socks{0};
    std::atomic<std::int64_t> m_default_rcer{0};
    /// The pool was destroyed while the object was open: the table's reference is still
    /// counted and Close() drops it. Guarded by m_mutex.
    bool m_detached = false;
};

}  // namespace Qelvar::Corvane
