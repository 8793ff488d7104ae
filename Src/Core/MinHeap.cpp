#include "Core/MinHeap.h"

#include <cstdlib>
#include <mutex>
#include <utility>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

namespace {

constexpr int INITIAL_CAPACITY = 200;
constexpr int GROWTH = 50;

}  // namespace

CMinHeap::CMinHeap()
    : m_capacity(INITIAL_CAPACITY),
      m_heap(static_cast<SEvent**>(std::calloc(INITIAL_CAPACITY, sizeof(SEvent*))))
{
    // Without the first array the heap starts empty and grows on the first insert.
    if (!m_heap) m_capacity = 0;
}

CMinHeap::~CMinHeap()
{
    std::free(m_heap);
}

std::uint64_t CMinHeap::Insert(SEvent* ev)
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    if (m_size == m_capacity) {
        void* grown = std::realloc(m_heap, sizeof(SEvent*) * static_cast<std::size_t>(m_capacity + GROWTH));
        FUNDEL_ASSERT(grown != nullptr);
        if (!grown) return 0;
        m_heap = static_cast<SEvent**>(grown);
        m_capacity += GROWTH;
    }
    const int i = m_size++;
    m_heap[i] = ev;
    sift_up(i);
    return m_heap[0] == ev ? ev->m_due : 0;
}

std::uint64_t CMinHeap::Top() const
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_size > 0 ? m_heap[0]->m_due : 0;
}

SEvent* CMinHeap::PopDue(std::uint64_t limit)
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    if (m_size == 0 || m_heap[0]->m_due > limit) return nullptr;
    return remove_at(0);
}

SEvent* CMinHeap::RemoveById(std::int64_t timer_id)
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    for (int i = 0; i < m_size; ++i) {
        if (m_heap[i]->m_key == timer_id) return remove_at(i);
    }
    return nullptr;
}

void CMinHeap::RemoveIf(const std::function<bool(const SEvent&)>& pred, std::vector<SEvent*>& removed)
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    // Keep the survivors packed at the front, then rebuild the order bottom-up: one pass
    // whatever the number removed.
    int kept = 0;
    for (int i = 0; i < m_size; ++i) {
        if (pred(*m_heap[i])) removed.push_back(m_heap[i]);
        else m_heap[kept++] = m_heap[i];
    }
    for (int i = kept; i < m_size; ++i) m_heap[i] = nullptr;
    m_size = kept;
    for (int i = m_size / 2 - 1; i >= 0; --i) sift_down(i);
}

int CMinHeap::Size() const
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_size;
}

// The last record takes place i and moves up or down, whichever its due time needs.
SEvent* CMinHeap::remove_at(int i)
{
    SEvent* ev = m_heap[i];
    const int last = --m_size;
    if (i != last) {
        m_heap[i] = m_heap[last];
        if (i > 0 && m_heap[i]->m_due < m_heap[(i - 1) / 2]->m_due) sift_up(i);
        else sift_down(i);
    }
    m_heap[last] = nullptr;
    return ev;
}

void CMinHeap::sift_up(int i)
{
    while (i > 0) {
        const int parent = (i - 1) / 2;
        if (!(m_heap[i]->m_due < m_heap[parent]->m_due)) break;
        std::swap(m_heap[i], m_heap[parent]);
        i = parent;
    }
}

void CMinHeap::sift_down(int i)
{
    for (;;) {
        int smallest = i;
        const int left = 2 * i + 1;
        const int right = left + 1;
        if (left < m_size && m_heap[left]->m_due < m_heap[smallest]->m_due) smallest = left;
        if (right < m_size && m_heap[right]->m_due < m_heap[smallest]->m_due) smallest = right;
        if (smallest == i) break;
        std::swap(m_heap[i], m_heap[smallest]);
        i = smallest;
    }
}

}  // namespace Qelvar::Corvane
