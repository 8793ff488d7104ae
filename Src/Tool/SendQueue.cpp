#include "Tool/SendQueue.h"

#include <algorithm>
#include <cstring>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

CSendQueue::CSendQueue() : m_vec(new iovec[kDefaultBlocks + 1])
{
}

CSendQueue::~CSendQueue()
{
    while (m_head) {
        SSendBuf* next = m_head->m_next;
        delete m_head;
        m_head = next;
    }
    delete[] m_vec;
}

// Zero-filled (value-initialised): a fresh block never shows stale memory.
SSendBuf* CSendQueue::new_block()
{
    SSendBuf* block = new SSendBuf();
    block->Reset();
    return block;
}

void CSendQueue::Grow(unsigned int blocks)
{
    if (blocks <= m_capacity) return;
    // Nothing points into the old vector between two writes: it is rebuilt each time.
    delete[] m_vec;
    m_vec = new iovec[static_cast<std::size_t>(blocks) + 1];
    m_capacity = blocks;
}

void CSendQueue::Append(const char* data, unsigned int len, unsigned int already_sent)
{
    FUNDEL_ASSERT_TEXT(len > already_sent, "len > (uint32_t)already_sent");
    if (len <= already_sent) return;
    if (!m_head) {
        m_head = m_tail = new_block();
        m_used = 1;
    }
    const char* from = data + already_sent;
    unsigned int left = len - already_sent;
    m_data_len += left;
    m_peak_len = std::max(m_peak_len, m_data_len);
    for (;;) {
        const unsigned int take = std::min(left, m_tail->Room());
        std::memcpy(m_tail->m_write, from, take);
        m_tail->m_write += take;
        from += take;
        left -= take;
        if (left == 0) return;
        if (!m_tail->m_next) {
            SSendBuf* block = new_block();
            block->m_prev = m_tail;
            m_tail->m_next = block;
        }
        m_tail = m_tail->m_next;
        ++m_used;
    }
}

int CSendQueue::Gather()
{
    int index = 0;
    for (SSendBuf* block = m_head; block && index <= static_cast<int>(m_capacity); block = block->m_next) {
        m_vec[index].iov_base = block->m_read;
        m_vec[index].iov_len = block->Queued();
        ++index;
        if (block == m_tail) break;
    }
    const int iovec_num = static_cast<int>(m_used);
    FUNDEL_ASSERT_TEXT(index == iovec_num, "index == iovec_num");
    return index;
}

// Moves the drained head block behind the tail, where Append takes it next.
void CSendQueue::recycle_head()
{
    SSendBuf* block = m_head;
    m_head = block->m_next;
    m_head->m_prev = nullptr;
    block->Reset();
    block->m_prev = m_tail;
    block->m_next = m_tail->m_next;
    if (block->m_next) block->m_next->m_prev = block;
    m_tail->m_next = block;
    --m_used;
}

void CSendQueue::Consume(unsigned int n)
{
    while (n > 0 && m_head) {
        const unsigned int take = std::min(n, m_head->Queued());
        m_head->m_read += take;
        m_data_len -= take;
        n -= take;
        if (m_head->m_read < m_head->m_write) return;  // the head keeps the rest
        if (m_head == m_tail) {
            m_head->Reset();
            FUNDEL_ASSERT_TEXT(m_data_len == 0, "m_data_len == 0");
            return;
        }
        recycle_head();
    }
}

void CSendQueue::Clear()
{
    for (SSendBuf* block = m_head; block; block = block->m_next) block->Reset();
    m_tail = m_head;
    m_data_len = 0;
    m_used = m_head ? 1 : 0;
}

}  // namespace Qelvar::Corvane
