#include "Tool/NBufPool.h"

#include <mutex>
#include <new>

namespace Qelvar::Corvane {

namespace {

std::mutex g_pool_mutex;
CNBufPool* g_pool = nullptr;

}  // namespace

CNBufPool& CNBufPool::Instance()
{
    // Made on first use, under a lock: the first files may open on several threads.
    std::lock_guard<std::mutex> lock(g_pool_mutex);
    if (!g_pool) g_pool = new CNBufPool;
    return *g_pool;
}

buffer_node* CNBufPool::Pop()
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        if (buffer_node* node = m_head) {
            m_head = node->next;
            node->next = nullptr;
            --m_size;
            return node;
        }
    }
    auto* node = new (std::nothrow) buffer_node{nullptr, nullptr};
    if (!node) return nullptr;
    node->data = new (std::nothrow) char[kBlockSize];
    if (!node->data) {
        delete node;
        return nullptr;
    }
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    ++m_created;
    return node;
}

void CNBufPool::Push(buffer_node* node)
{
    if (!node) return;
    {
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        if (m_size < kMaxFree) {
            node->next = m_head;
            m_head = node;
            ++m_size;
            return;
        }
        --m_created;
    }
    delete[] node->data;
    delete node;
}

unsigned int CNBufPool::Size()
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_size;
}

unsigned int CNBufPool::Created()
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_created;
}

}  // namespace Qelvar::Corvane
