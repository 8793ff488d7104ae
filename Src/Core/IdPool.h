// Object and timer ids of one thread pool.
#pragma once

#include <cstdint>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

/// Hands out negative 64-bit ids carrying the pool index in bits 4 to 9 and a 4-bit reuse
/// generation in bits 0 to 3. Freed ids wait in a ring and are reused, oldest first and
/// one generation on, only while more than 1024 are waiting, so that a message to an
/// id's old holder does not reach the new one.
class CIdPool {
public:
    explicit CIdPool(unsigned int pool_index);
    ~CIdPool();
    CIdPool(const CIdPool&) = delete;
    CIdPool& operator=(const CIdPool&) = delete;

    /// A reused id when more than 1024 are waiting, else a new one.
    std::int64_t GetId();
    /// Keeps `id` for reuse; the ring grows up to 204800 ids, beyond that ids are dropped.
    void PutId(std::int64_t id);

    unsigned int Capacity() const;
    unsigned int Waiting() const;
    /// The value the next new id is made from.
    std::int64_t MinId() const;

private:
    bool grow();

    unsigned int m_max_pool_size;
    mutable Fundel::CMutex m_mutex;
    std::int64_t* m_pool;
    unsigned int m_read_ptr = 0;
    unsigned int m_write_ptr = 0;
    unsigned int m_pool_size = 0;
    std::int64_t m_min_id = -100;
    unsigned int m_pool_index;
};

}  // namespace Qelvar::Corvane
