#include <Corvane/MediaBuffer.h>

#include <Corvane/Level2Buffer.h>
#include <Corvane/MediaPacket.h>
#include <Corvane/MediaStreamSender.h>

#include <algorithm>
#include <cinttypes>
#include <mutex>

#include "Fundel/Mutex.h"
#include "Tool/Frame.h"
#include "Tool/MediaLog.h"
#include "Tool/MediaSenderProgress.h"
#include "Tool/SenderHandler.h"

namespace Qelvar::Corvane {

namespace {

constexpr int kChannels = 8;

// The level word as stored: the importance clamped to 1..10, the channel bits kept.
int clamp_level(int level)
{
    // Bits 0-23 are a signed 24-bit number.
    int importance = static_cast<int>(static_cast<unsigned int>(level) << 8) >> 8;
    importance = std::clamp(importance, 1, 10);
    return static_cast<int>((static_cast<unsigned int>(level) & 0xFF000000u) | static_cast<unsigned int>(importance));
}

}  // namespace

struct SMediaBufferData {
    static SMediaSenderProgress& progress(CMediaStreamSender* sender) { return *sender->m_progress; }
    CFrame* new_frame();
    /// A new frame that is both head and tail.
    void restart_list();
    /// With nobody watching, complete frames are of no use: keep only the one being
    /// filled, and let the positions begin again at 0.
    void drop_complete_frames();
    void send_packet();
    void remark_all_frames();
    void check_valid_frames();
    void rebuild_frame_list();
    void del_sender(CMediaStreamSender* sender);
    /// The sender leaves the list: its hold on a frame goes, and it will start afresh at a
    /// key frame if it is added again.
    void forget_progress(SMediaSenderProgress& p);
    /// The frame a caught-up sender without a frame in hand resumes at.
    CFrame* frame_at(SMediaSenderProgress& p, std::int64_t tail_start);
    void delete_frame(CFrame* frame);
    /// Bytes from the head up to the first empty frame.
    std::uint64_t buffered_bytes() const;

    CFrame* m_frame_header = nullptr;
    CFrame* m_frame_tail = nullptr;
    CMediaStreamSender* m_sender_header = nullptr;
    CLevel2Buffer_IF* m_buffer_header = nullptr;
    Fundel::CMutex m_mutex;
    std::uint64_t m_byte_total = 0;
    std::uint64_t m_byte_discard = 0;
    bool m_auto_send = false;
    bool m_need_send = true;
    bool m_has_sender = false;
    int m_channel_level[kChannels] = {10, 10, 10, 10, 10, 10, 10, 10};
    int m_frame_count = 0;
    int m_valid_frame_count = 0;
    std::uint64_t m_next_serial = 0;
    std::uint64_t m_aged_frames = 0;
    std::uint64_t m_aged_bytes = 0;
    const void* m_self = nullptr;
};

CFrame* SMediaBufferData::new_frame()
{
    auto* frame = new CFrame();
    frame->m_serial = m_next_serial++;
    ++m_frame_count;
    return frame;
}

void SMediaBufferData::restart_list()
{
    m_frame_header = m_frame_tail = new_frame();
}

void SMediaBufferData::delete_frame(CFrame* frame)
{
    --m_frame_count;
    delete frame;
}

std::uint64_t SMediaBufferData::buffered_bytes() const
{
    std::uint64_t size = 0;
    for (CFrame* f = m_frame_header; f && f->m_frame_bytes >= 1; f = f->m_next) {
        size += static_cast<std::uint64_t>(f->m_frame_bytes);
    }
    return size;
}

void SMediaBufferData::drop_complete_frames()
{
    while (m_frame_header && m_frame_header->m_last_mark != 0) {
        CFrame* next = m_frame_header->m_next;
        delete_frame(m_frame_header);
        m_frame_header = next;
    }
    m_frame_tail = m_frame_header;
    m_byte_total = m_frame_tail ? static_cast<std::uint64_t>(m_frame_tail->m_frame_bytes) : 0;
    m_byte_discard = 0;
}

void SMediaBufferData::forget_progress(SMediaSenderProgress& p)
{
    if (p.m_frame) {
        p.m_frame->m_partial_bytes -= p.m_frame->m_frame_bytes - p.m_remaining;
        --p.m_frame->m_sender_refs;
    }
    p.m_next = nullptr;
    p.m_frame = nullptr;
    p.m_position = 0;
    p.m_started = false;
    p.m_packet_index = 0;
    p.m_packet_offset = 0;
    p.m_remaining = 0;
    p.m_key_wait = 0;
    p.m_gaps.clear();
}

CFrame* SMediaBufferData::frame_at(SMediaSenderProgress& p, std::int64_t tail_start)
{
    if (p.m_position >= tail_start) return m_frame_tail;
    // Frames between its position and the tail came while it was held up by other data:
    // it resumes at the first of them. Aging keeps positions in step with the list, so a
    // frame begins exactly there.
    auto start = static_cast<std::int64_t>(m_byte_discard);
    CFrame* f = m_frame_header;
    while (f && f != m_frame_tail && start < p.m_position) {
        start += f->m_frame_bytes;
        f = f->m_next;
    }
    if (start != p.m_position) {
        // Never expected; resume where the list says, and only at key frames.
        p.m_position = start;
        p.m_key_wait = 0xFF;
    }
    return f;
}

void SMediaBufferData::send_packet()
{
    std::uint64_t should_discard = m_byte_discard;
    std::uint64_t min_discard = m_byte_total;
    media_trace("%s, %p mediabuffer send packet, should_discard:%" PRIu64 ", min_discard:%" PRIu64 " \n",
                "CMediaBuffer::send_packet", m_self, should_discard, min_discard);
    CFrame* tail = m_frame_tail;
    const std::int64_t tail_start = static_cast<std::int64_t>(m_byte_total) - tail->m_frame_bytes;

    CMediaStreamSender** link = &m_sender_header;
    while (CMediaStreamSender* sender = *link) {
        SMediaSenderProgress& p = progress(sender);
        CFrame* given = tail;
        if (!p.m_started) {
            // A sender starts on a key frame of the tail's channel, and waits for a key
            // frame of every other channel it sends.
            const int channel = tail->Channel() & 7;
            if (tail->m_frame_bytes < 1 || tail->Level() > m_channel_level[channel]) {
                link = &p.m_next;
                continue;
            }
            p.m_started = true;
            p.m_position = tail_start;
            p.m_frame = tail;
            ++tail->m_sender_refs;
            p.m_packet_index = 0;
            p.m_packet_offset = 0;
            p.m_remaining = tail->m_frame_bytes;
            p.m_key_wait = static_cast<std::uint8_t>(0xFF & ~(1u << channel));
            p.m_gaps.clear();
        } else if (!p.m_frame) {
            given = frame_at(p, tail_start);
        }
        media_trace("%s, %p sender %p send frame:%p!\n", "CMediaBuffer::send_packet", m_self,
                    static_cast<void*>(sender), static_cast<void*>(given));
        const std::int64_t r = sender->Send(given, 0);
        media_trace("%s, %p sender %p send total:%" PRId64 " Bytes!\n", "CMediaBuffer::send_packet", m_self,
                    static_cast<void*>(sender), r);
        if (r >= 0) {
            if (static_cast<std::uint64_t>(r) <= min_discard) {
                min_discard = static_cast<std::uint64_t>(r);
                should_discard = min_discard;
            }
            link = &p.m_next;
            continue;
        }
        // The socket failed: the sender leaves; its owner has been told.
        *link = p.m_next;
        forget_progress(p);
        media_trace("%s, %p delete sender %p because socket exception\n", "CMediaBuffer::send_packet", m_self,
                    static_cast<void*>(*link));
        if (!m_sender_header && m_has_sender) {
            m_has_sender = false;
            drop_complete_frames();
        }
        if (!m_has_sender) return;
    }

    std::uint64_t discard = should_discard > m_byte_discard ? should_discard - m_byte_discard : 0;
    media_trace("%s, %p mediabuffer send packet, should_discard:%" PRIu64 ", m_byte_discard:%" PRIu64 " \n",
                "CMediaBuffer::send_packet", m_self, should_discard, m_byte_discard);
    // Whole frames only, oldest first: a frame the slowest sender has begun stays.
    while (CFrame* head = m_frame_header) {
        const auto bytes = static_cast<std::uint64_t>(head->m_frame_bytes);
        if (head->m_frame_bytes < 1 || discard < 1 || discard < bytes || head->m_sender_refs > 0) break;
        m_byte_discard += bytes;
        discard -= bytes;
        media_trace("%s, %p mediabuffer send packet, delete frame:%p, byte:%" PRId64 " \n", "CMediaBuffer::send_packet",
                    m_self, static_cast<void*>(head), head->m_frame_bytes);
        m_frame_header = head->m_next;
        delete_frame(head);
    }
    if (m_frame_header) return;
    m_frame_tail = nullptr;
    if (discard != 0) {
        MEDIA_LOG(Fundel::LOG_WARN, "this:%p CMediaBuffer::send_packet, unexcepted result, discard_byte =%" PRId64 " \n",
                  m_self, static_cast<std::int64_t>(discard));
        FUNDEL_ASSERT_TEXT(discard == 0, "discard_byte == 0");
    }
}

void SMediaBufferData::remark_all_frames()
{
    auto start = static_cast<std::int64_t>(m_byte_discard);
    for (CFrame* f = m_frame_header; f && f->m_frame_bytes >= 1; start += f->m_frame_bytes, f = f->m_next) {
        if (f->m_valid != 1) continue;
        ++f->m_age;
        const int threshold = 10 - f->m_age / 10;
        if (f->Level() <= threshold || f->m_sender_refs > 0) continue;
        f->m_valid = 0;
        f->m_age = -100;
        ++m_aged_frames;
        m_aged_bytes += static_cast<std::uint64_t>(f->m_frame_bytes);
        const std::uint8_t channel_bit = f->ChannelBit();
        for (CMediaStreamSender* s = m_sender_header; s; s = progress(s).m_next) {
            SMediaSenderProgress& p = progress(s);
            const bool behind = !p.m_started || (p.m_frame ? p.m_frame->m_serial < f->m_serial : p.m_position <= start);
            if (!behind) continue;
            // It will never write these bytes; and what follows the frame on its channel
            // may depend on it, so from there that channel waits for its next key frame.
            // (One that has not started will start at a key frame anyway.)
            p.m_position += f->m_frame_bytes;
            if (p.m_started) p.m_gaps.emplace_back(f->m_serial, channel_bit);
        }
    }
}

void SMediaBufferData::check_valid_frames()
{
    int count = 0;
    for (CFrame* f = m_frame_header; f && f->m_frame_bytes >= 1; f = f->m_next) {
        if (f->m_valid == 1 || f->m_partial_bytes > 0) ++count;
    }
    m_valid_frame_count = count;
    if (count >= 2) {
        media_trace("%s, check valid frames%p buffer %d valid frames,invalid frames:%d!\n",
                    "CMediaBuffer::check_valid_frames", m_self, count, m_frame_count - count);
    }
}

void SMediaBufferData::rebuild_frame_list()
{
    CFrame** link = &m_frame_header;
    while (CFrame* f = *link) {
        if (f->m_valid != 0 || f == m_frame_tail) {
            link = &f->m_next;
            continue;
        }
        *link = f->m_next;
        m_byte_discard += static_cast<std::uint64_t>(f->m_frame_bytes);
        media_trace("%s, %p rebuild frame list, delete frame:%p, byte:%" PRId64 ", m_byte_discard:%" PRIu64 " !\n",
                    "CMediaBuffer::rebuild_frame_list", m_self, static_cast<void*>(f), f->m_frame_bytes, m_byte_discard);
        delete_frame(f);
    }
    if (!m_frame_header) m_frame_header = m_frame_tail;
}

void SMediaBufferData::del_sender(CMediaStreamSender* sender)
{
    for (CMediaStreamSender** link = &m_sender_header; *link; link = &progress(*link).m_next) {
        if (*link != sender) continue;
        *link = progress(sender).m_next;
        forget_progress(progress(sender));
        break;
    }
    if (!m_sender_header && m_has_sender) {
        m_has_sender = false;
        drop_complete_frames();
    }
}

CMediaBuffer::CMediaBuffer() : m_data(new SMediaBufferData)
{
    m_data->m_self = this;
    m_data->restart_list();
}

CMediaBuffer::~CMediaBuffer()
{
    Clear();
    DisableAutoSend();
    delete m_data;
}

int CMediaBuffer::Put(CMediaPacket* packet, int len, int mark, int level)
{
    return put(packet, len, mark, level, false);
}

int CMediaBuffer::put(CMediaPacket* packet, int len, int mark, int level, bool force)
{
    SMediaBufferData& d = *m_data;
    std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
    if (packet) {
        media_trace("%s, %p put packet to buffer, packet :%p, len:%d, mark:%d, level:%x!\n", "CMediaBuffer::put",
                    static_cast<void*>(this), static_cast<void*>(packet), len, mark, static_cast<unsigned int>(level));
        d.m_need_send = false;
        for (CLevel2Buffer_IF** link = &d.m_buffer_header; *link;) {
            if ((*link)->Put(packet, len, mark, level) < 0) *link = (*link)->m_next;
            else link = &(*link)->m_next;
        }
        if (!d.m_frame_tail) d.restart_list();
        CFrame* tail = d.m_frame_tail;
        const int stored = clamp_level(level);
        if (tail->put(packet, len, mark, stored) == 0) {
            d.m_byte_total += static_cast<std::uint64_t>(len);
            media_trace("%s, Frame:%p put packet:%p, len:%d, mark:%d, level:%x!\n", "CMediaBuffer::put",
                        static_cast<void*>(tail), static_cast<void*>(packet), len, mark,
                        static_cast<unsigned int>(stored));
        } else {
            // Out of memory: the packet is lost, but neither leaked nor counted, so that
            // the senders' positions stay in step with the frames.
            packet->Release();
        }
        if (mark == 1) {
            const int channel = level_channel(level);
            FUNDEL_ASSERT_TEXT(channel <= 7 && channel >= 0, "channel <= 7 && channel >= 0");
            const int c = channel & 7;
            const int frame_level = stored & 0xFFFFFF;
            if (d.m_channel_level[c] > frame_level) d.m_channel_level[c] = frame_level;
            if (d.m_channel_level[c] == frame_level) tail->m_key_mask = static_cast<std::uint8_t>(1u << c);
            if (!d.m_has_sender) d.drop_complete_frames();
            else d.m_need_send = true;
        }
    }
    if (!d.m_need_send) return 0;

    if (!d.m_frame_tail) d.restart_list();
    d.send_packet();
    if (len != 0 || force) d.remark_all_frames();
    if (!d.m_frame_tail) {
        d.restart_list();
    } else if (packet) {
        CFrame* frame = d.new_frame();
        d.m_frame_tail->m_next = frame;
        d.m_frame_tail = frame;
    }
    d.check_valid_frames();
    d.rebuild_frame_list();
    return 0;
}

int CMediaBuffer::PutFrameInfo(CMediaPacket* info, int len)
{
    if (!info || len < 1) {
        MEDIA_LOG(Fundel::LOG_WARN, "%s : PutFrameInfo failed! Invalid parameter, frameinfo:%p, len:%d\n",
                  "CMediaBuffer::PutFrameInfo", static_cast<void*>(info), len);
        return -1;
    }
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    if (!m_data->m_frame_tail) m_data->restart_list();
    CFrame* tail = m_data->m_frame_tail;
    if (tail->m_frame_info) tail->m_frame_info->Release();
    tail->m_frame_info = info;
    tail->m_frame_info_len = len;
    return 0;
}

void CMediaBuffer::AddSender(CMediaStreamSender* sender)
{
    if (!sender) {
        MEDIA_LOG(Fundel::LOG_WARN, "%s : AddSender failed! Invalid parameter: stream:%p\n", "CMediaBuffer::AddSender",
                  static_cast<void*>(sender));
        return;
    }
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    SMediaBufferData::progress(sender).m_next = m_data->m_sender_header;
    m_data->m_sender_header = sender;
    m_data->m_has_sender = true;
}

void CMediaBuffer::DelSender(CMediaStreamSender* sender)
{
    if (!sender) {
        MEDIA_LOG(Fundel::LOG_WARN, "%s : DelSender failed! Invalid parameter: stream:%p\n", "CMediaBuffer::DelSender",
                  static_cast<void*>(sender));
        return;
    }
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    m_data->del_sender(sender);
}

void CMediaBuffer::AddLevel2Buffer(CLevel2Buffer_IF* buffer)
{
    if (!buffer) {
        MEDIA_LOG(Fundel::LOG_WARN, "%s : AddLevel2Buffer failed! Invalid parameter: stream:%p\n",
                  "CMediaBuffer::AddLevel2Buffer", static_cast<void*>(buffer));
        return;
    }
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    buffer->m_next = m_data->m_buffer_header;
    m_data->m_buffer_header = buffer;
}

void CMediaBuffer::DelLevel2Buffer(CLevel2Buffer_IF* buffer)
{
    if (!buffer) {
        MEDIA_LOG(Fundel::LOG_WARN, "%s : DelLevel2Buffer failed! Invalid parameter: stream:%p\n",
                  "CMediaBuffer::DelLevel2Buffer", static_cast<void*>(buffer));
        return;
    }
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    for (CLevel2Buffer_IF** link = &m_data->m_buffer_header; *link; link = &(*link)->m_next) {
        if (*link == buffer) {
            *link = buffer->m_next;
            buffer->m_next = nullptr;
            break;
        }
    }
}

std::uint64_t CMediaBuffer::GetBufferSize()
{
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    return m_data->buffered_bytes();
}

SMediaBufferStats CMediaBuffer::GetStats()
{
    SMediaBufferStats stats;
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    const SMediaBufferData& d = *m_data;
    stats.byte_total = d.m_byte_total;
    stats.byte_discard = d.m_byte_discard;
    stats.buffered = d.buffered_bytes();
    stats.frames = d.m_frame_count;
    stats.aged_frames = d.m_aged_frames;
    stats.aged_bytes = d.m_aged_bytes;
    for (CMediaStreamSender* s = d.m_sender_header; s; s = SMediaBufferData::progress(s).m_next) {
        ++stats.senders;
        const SMediaSenderProgress& p = SMediaBufferData::progress(s);
        if (!p.m_started) continue;
        const auto position = static_cast<std::uint64_t>(std::max<std::int64_t>(p.m_position, 0));
        if (position < d.m_byte_total) stats.max_lag = std::max(stats.max_lag, d.m_byte_total - position);
    }
    return stats;
}

void CMediaBuffer::EnableAutoSend()
{
    EnableAutoSend(CSenderHandler::kDefaultPeriodMs);
}

void CMediaBuffer::EnableAutoSend(std::uint64_t interval_ms)
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
        if (m_data->m_auto_send) return;
        m_data->m_auto_send = true;
    }
    // The handler's list has a lock of its own, taken with the buffer's released: a tick
    // holds it while it calls the buffers.
    if (CSenderHandler::Register(this, interval_ms) != 0) {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
        m_data->m_auto_send = false;
    }
}

void CMediaBuffer::DisableAutoSend()
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
        if (!m_data->m_auto_send) return;
        m_data->m_auto_send = false;
    }
    CSenderHandler::Unregister(this);
}

void CMediaBuffer::do_send()
{
    SMediaBufferData& d = *m_data;
    media_trace("%s, %p do send!\n", "CMediaBuffer::do_send", static_cast<void*>(this));
    std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
    if (!d.m_need_send) return;
    if (!d.m_frame_tail) d.restart_list();
    d.send_packet();
    d.remark_all_frames();
    if (!d.m_frame_tail) d.restart_list();
    d.check_valid_frames();
    d.rebuild_frame_list();
}

void CMediaBuffer::Clear()
{
    SMediaBufferData& d = *m_data;
    std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
    if (d.m_sender_header) {
        MEDIA_LOG(Fundel::LOG_WARN, "this:%p %s:%d %s m_sender_header:%p not null\n", static_cast<void*>(this),
                  ".\\Src\\Tool\\MediaStreamSender", __LINE__, "CMediaBuffer::Clear", static_cast<void*>(d.m_sender_header));
    }
    if (d.m_buffer_header) {
        MEDIA_LOG(Fundel::LOG_WARN, "this:%p %s:%d %s m_buffer_header:%p not null\n", static_cast<void*>(this),
                  ".\\Src\\Tool\\MediaStreamSender", __LINE__, "CMediaBuffer::Clear", static_cast<void*>(d.m_buffer_header));
    }
    // The senders are forgotten without a word, but not left holding frames about to go.
    while (CMediaStreamSender* s = d.m_sender_header) {
        d.m_sender_header = SMediaBufferData::progress(s).m_next;
        SMediaBufferData::progress(s).m_frame = nullptr;
        d.forget_progress(SMediaBufferData::progress(s));
    }
    d.m_buffer_header = nullptr;
    while (CFrame* f = d.m_frame_header) {
        MEDIA_LOG(Fundel::LOG_WARN, "%s:%d %s CMediaBuffer::Clear,m_frame_header:%p\n", ".\\Src\\Tool\\MediaStreamSender",
                  __LINE__, "CMediaBuffer::Clear", static_cast<void*>(f));
        d.m_frame_header = f->m_next;
        d.delete_frame(f);
    }
    d.m_frame_tail = nullptr;
    d.m_byte_total = 0;
    d.m_byte_discard = 0;
}

}  // namespace Qelvar::Corvane
