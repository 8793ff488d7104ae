#include "Tool/Frame.h"

#include <Corvane/MediaPacket.h>

#include <cinttypes>
#include <cstdlib>

#include "Fundel/LogDefs.h"
#include "Tool/MediaLog.h"
#include "Tool/MediaTrace.h"

namespace Qelvar::Corvane {

CFrame::CFrame() = default;

CFrame::~CFrame()
{
    for (int i = 0; i < m_packet_num; ++i) {
        FUNDEL_ASSERT_TEXT(m_packet[i] != nullptr, "m_packet[i] != NULL");
        if (m_packet[i]) m_packet[i]->Release();
    }
    if (m_frame_info) m_frame_info->Release();
    std::free(m_vector);
    std::free(m_packet);
}

int CFrame::put(CMediaPacket* packet, int len, int mark, int level)
{
    if (m_packet_num == m_capacity) {
        FUNDEL_ASSERT_TEXT(m_packet_num % BUFFER_INCREMENT == 0, "m_packet_num % BUFFER_INCREMENT == 0");
        const int capacity = m_capacity + BUFFER_INCREMENT;
        // Plain realloc: the vector must stay one contiguous gather array.
        auto* vector = static_cast<iovec*>(std::realloc(m_vector, sizeof(iovec) * static_cast<std::size_t>(capacity)));
        if (vector) m_vector = vector;
        auto* packets = vector ? static_cast<CMediaPacket**>(std::realloc(
                                     m_packet, sizeof(CMediaPacket*) * static_cast<std::size_t>(capacity)))
                               : nullptr;
        if (!vector || !packets) {
            MEDIA_LOG(Fundel::LOG_WARN, "%s :realloc falid!\n", "CFrame::put");
            return -1;
        }
        m_packet = packets;
        m_capacity = capacity;
        if (m_packet_num > 0 && CMediaTrace::Get() != 0) {
            media_trace("%p Frame had put %" PRId64 " bytes data, %d packets!\n", static_cast<void*>(this),
                        m_frame_bytes, m_packet_num);
        }
    }
    m_packet[m_packet_num] = packet;
    m_vector[m_packet_num].iov_len = static_cast<decltype(m_vector[0].iov_len)>(len);
    m_vector[m_packet_num].iov_base = packet->GetBuffer();
    ++m_packet_num;
    m_frame_bytes += len;
    m_last_mark = mark;
    m_level = level;
    if (mark == 1) {
        m_partial_bytes = 0;
        m_valid = 1;
        m_age = -1;
    }
    return 0;
}

}  // namespace Qelvar::Corvane
