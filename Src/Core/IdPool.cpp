#include "Core/IdPool.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

namespace {

constexpr unsigned int INITIAL_CAPACITY = 2048;
constexpr unsigned int MAX_CAPACITY = 204800;
// Ids wait at least this long (in ids freed after them) before they are reused.
constexpr unsigned int REUSE_AFTER = 1024;

std::int64_t* new_ring(unsigned int capacity)
{
    return static_cast<std::int64_t*>(std::malloc(sizeof(std::int64_t) * capacity));
}

}  // namespace

CIdPool::CIdPool(unsigned int pool_index)
    : m_max_pool_size(INITIAL_CAPACITY), m_pool(new_ring(INITIAL_CAPACITY)), m_pool_index(pool_index)
{
    // Without a ring freed ids are dropped; new ids still work.
    if (!m_pool) m_max_pool_size = 0;
}

CIdPool::~CIdPool()
{
    std::free(m_pool);
}

std::int64_t CIdPool::GetId()
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    std::int64_t id = 0;
    if (m_pool_size > REUSE_AFTER) {
        id = m_pool[m_read_ptr];
        m_read_ptr = (m_read_ptr + 1) % m_max_pool_size;
        --m_pool_size;
        id = (id & ~std::int64_t{0xF}) | ((id + 1) & 0xF);
    } else {
        // (index + m_min_id * 64) * 16, computed unsigned so that it wraps instead of
        // overflowing; the result is negative for every id a process can use up.
        const std::uint64_t high = static_cast<std::uint64_t>(m_min_id) << 6;
        id = static_cast<std::int64_t>((m_pool_index + high) << 4);
        --m_min_id;
    }
    if (id >= 1) {
        CVN_LOG(Fundel::LOG_ERROR,
                "this:%p ID_Pool has overflowed! get unexpected ret:[%lld], idpool state(m_min_id:%lld, "
                "m_max_pool_size:%u, m_pool_size:%u, m_read_ptr:%u, m_write_ptr:%u)\n",
                static_cast<void*>(this), static_cast<long long>(id), static_cast<long long>(m_min_id),
                m_max_pool_size, m_pool_size, m_read_ptr, m_write_ptr);
    }
    return id;
}

void CIdPool::PutId(std::int64_t id)
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    if (m_pool_size == m_max_pool_size && !grow()) return;
    m_pool[m_write_ptr] = id;
    m_write_ptr = (m_write_ptr + 1) % m_max_pool_size;
    ++m_pool_size;
}

// Doubles the full ring (up to MAX_CAPACITY), moving the waiting ids in order to its
// start. False when it is at the limit or the heap refuses.
bool CIdPool::grow()
{
    if (m_max_pool_size >= MAX_CAPACITY) return false;
    const unsigned int capacity = std::min(std::max(m_max_pool_size * 2, INITIAL_CAPACITY), MAX_CAPACITY);
    std::int64_t* ring = new_ring(capacity);
    if (!ring) return false;
    for (unsigned int i = 0; i < m_pool_size; ++i) ring[i] = m_pool[(m_read_ptr + i) % m_max_pool_size];
    std::free(m_pool);
    m_pool = ring;
    m_max_pool_size = capacity;
    m_read_ptr = 0;
    m_write_ptr = m_pool_size;
    return true;
}

unsigned int CIdPool::Capacity() const
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_max_pool_size;
}

unsigned int CIdPool::Waiting() const
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_pool_size;
}

std::int64_t CIdPool::MinId() const
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_min_id;
}

}  // namespace Qelvar::Corvane
