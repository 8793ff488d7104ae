#include "Tool/NFileBuf.h"

#include <mutex>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

CNFileBuf::~CNFileBuf()
{
    CNBufPool::Instance().Push(m_node);
}

bool CNFileBuf::Take()
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    if (m_busy != 0) return false;
    m_busy = 1;
    return true;
}

void CNFileBuf::Release()
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    m_busy = 0;
    m_submit = SUBMIT_NONE;
}

void CNFileBuf::Submit(SUBMIT_EVENT type)
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    FUNDEL_ASSERT_TEXT(m_busy == 1, "m_busy == true");
    m_submit = type;
}

SUBMIT_EVENT CNFileBuf::Submitted()
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_submit;
}

void CNFileBuf::Reset()
{
    m_file_offset.store(-1, std::memory_order_relaxed);
    m_buf_offset = 0;
    m_dirty = 0;
    m_eof = 0;
    CNBufPool::Instance().Push(m_node);
    m_node = nullptr;
    m_data = nullptr;
}

char* CNFileBuf::Block()
{
    if (!m_node) {
        m_node = CNBufPool::Instance().Pop();
        m_data = m_node ? m_node->data : nullptr;
    }
    return m_data;
}

}  // namespace Qelvar::Corvane
