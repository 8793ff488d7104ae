#include <Corvane/MediaStreamSender.h>

#include <Corvane/Sock.h>

#include <cstring>
#include <mutex>

#include "Core/Message.h"
#include "Fundel/Time.h"
#include "Platform/Error.h"
#include "Tool/Frame.h"
#include "Tool/MediaLog.h"
#include "Tool/MediaSenderProgress.h"
#include "Tool/SockWrite.h"

namespace Qelvar::Corvane {

namespace {

// A frame is eligible when its channel is enabled; a channel in key-wait first needs a
// key frame of its own. Meeting that key frame ends the wait.
bool need_send(SMediaSenderProgress& p, const CFrame* frame)
{
    const std::uint8_t mask = frame->ChannelBit();
    if (p.m_key_wait & mask) {
        if (!(frame->m_key_mask & mask)) return false;
        p.m_key_wait = static_cast<std::uint8_t>(p.m_key_wait & ~mask);
    }
    return (p.m_channels & mask) != 0;
}

// The first frame from `f` on (itself included) that this sender is to write, or null at
// the empty frame being filled. Frames passed over count as written. Past a frame that
// was aged out (still in the list, or already gone: m_gaps) its channel waits for a key
// frame, since what follows may depend on it.
CFrame* get_next_frame(SMediaSenderProgress& p, CFrame* f)
{
    for (; f && f->m_frame_bytes >= 1; f = f->m_next) {
        // Gaps come in aging order, not in stream order: look at all of them.
        if (!p.m_gaps.empty()) {
            std::erase_if(p.m_gaps, [&](const auto& gap) {
                if (gap.first >= f->m_serial) return false;
                p.m_key_wait = static_cast<std::uint8_t>(p.m_key_wait | gap.second);
                return true;
            });
        }
        if (f->m_valid == 1 && need_send(p, f)) return f;
        if (f->m_valid != 1) p.m_key_wait = static_cast<std::uint8_t>(p.m_key_wait | f->ChannelBit());
        p.m_position += f->m_frame_bytes;
    }
    return nullptr;
}

}  // namespace

CMediaStreamSender* CMediaStreamSender::Create()
{
    auto* sender = new CMediaStreamSender();
    if (sender->GetID() != 0) return sender;
    // No public pool: the object never entered a table, so no handle_close would come.
    sender->Close();
    delete sender;
    return nullptr;
}

CMediaStreamSender::CMediaStreamSender() : CNetHandler(0), m_progress(new SMediaSenderProgress)
{
}

CMediaStreamSender::~CMediaStreamSender()
{
    delete m_progress;
}

int CMediaStreamSender::Attach(CSock* stream)
{
    if (!stream) {
        MEDIA_LOG(Fundel::LOG_WARN, "%s : Attach failed! Invalid parameter: stream:%p\n", "CMediaStreamSender::Attach",
                  static_cast<void*>(stream));
        return -1;
    }
    m_progress->m_stream = stream;
    return 0;
}

void CMediaStreamSender::WaitException(long receiver_id)
{
    if (receiver_id >= 0) {
        MEDIA_LOG(Fundel::LOG_ERROR, "%s : Invalid receiver id: receiver_id:%ld\n", "CMediaStreamSender::WaitException",
                  receiver_id);
        return;
    }
    m_progress->m_receiver_id = receiver_id;
}

bool CMediaStreamSender::AttachSendProc(Fundel::TFunction3<void, CMediaPacket*, int, int> proc)
{
    m_progress->m_send_proc = std::move(proc);
    return true;
}

bool CMediaStreamSender::DetachSendProc()
{
    m_progress->m_send_proc = nullptr;
    return true;
}

void CMediaStreamSender::SetSendChannel(int channel)
{
    FUNDEL_ASSERT_TEXT(channel <= 7, "channel <= 7");
    if (channel > 7) return;
    SMediaSenderProgress& p = *m_progress;
    if (channel < 0) {
        p.m_channels = 255;
        return;
    }
    if (p.m_channels == 255) p.m_channels = 0;
    p.m_channels = static_cast<std::uint8_t>(p.m_channels | (1u << channel));
}

void CMediaStreamSender::DisableSendChannel(int channel)
{
    FUNDEL_ASSERT_TEXT(channel <= 7 && channel >= 0, "channel <= 7 && channel >= 0");
    if (channel > 7 || channel < 0) return;
    m_progress->m_channels = static_cast<std::uint8_t>(m_progress->m_channels & ~(1u << channel));
}

void CMediaStreamSender::SendOtherData(const char* data, int len)
{
    if (!data || len < 1) {
        MEDIA_LOG(Fundel::LOG_WARN, "%s : SendOtherData failed! Invalid parameter, data:%p, len:%d\n",
                  "CMediaStreamSender::SendOtherData", static_cast<const void*>(data), len);
        return;
    }
    SMediaSenderProgress& p = *m_progress;
    std::lock_guard<Fundel::CMutex> lock(p.m_mutex);
    const int fill = p.m_other_len.load(std::memory_order_relaxed);
    // What does not fit is dropped: control messages are small, and a receiver that lets
    // 4096 bytes of them pile up is not reading anyway.
    if (fill + len >= SMediaSenderProgress::kOtherDataSize + 1) return;
    if (!p.m_other_data) p.m_other_data = std::make_unique<char[]>(SMediaSenderProgress::kOtherDataSize);
    std::memcpy(p.m_other_data.get() + fill, data, static_cast<std::size_t>(len));
    p.m_other_len.store(fill + len, std::memory_order_release);
}

namespace {

// The owner hears of a failure once.
void notify_failure(CMediaStreamSender* self, SMediaSenderProgress& p)
{
    CMessage::Notify(self->GetID(), p.m_receiver_id, MEDIA_SENDER_EXCEPTION, 0, false);
    p.m_receiver_id = 0;
}

// One write that took nothing; a receiver that stays blocked past the exception timeout
// is reported once. Every 100th in a row is logged.
void count_block(CMediaStreamSender* self, SMediaSenderProgress& p, const char* timeout_line)
{
    ++p.m_block_count;
    const std::int64_t now = Fundel::CTime::getCurrentMicroSecond();
    if (p.m_first_block_us == 0) p.m_first_block_us = now;
    const auto waited = static_cast<std::uint64_t>(now - p.m_first_block_us);
    if (waited >= p.m_exception_timeout_s * 1000000ull && p.m_receiver_id != 0) {
        MEDIA_LOG(Fundel::LOG_WARN, timeout_line, static_cast<void*>(self));
        notify_failure(self, p);
    }
    if (p.m_block_count % 100 == 0) {
        MEDIA_LOG(Fundel::LOG_WARN, "this:%p MediaStreamSender net warnning %d!\n", static_cast<void*>(self),
                  p.m_block_count);
    }
}

// Writes the other data waiting, all of it if the socket takes it: 0 when none is left,
// the bytes still waiting, or the negative result of a failed write.
int check_other_data(CMediaStreamSender* self, SMediaSenderProgress& p)
{
    // Nearly always empty: no lock on the path every frame takes.
    if (p.m_other_len.load(std::memory_order_acquire) == 0) return 0;
    std::lock_guard<Fundel::CMutex> lock(p.m_mutex);
    const int fill = p.m_other_len.load(std::memory_order_relaxed);
    char* other = p.m_other_data.get();
    const int n = sock_send(p.m_stream, p.m_stream->GetType(), other, static_cast<unsigned int>(fill), true);
    if (n == kNotWritable) {
        FUNDEL_ASSERT_TEXT(false, "m_stream->GetType() is 1, 2, 3, 4, 5 or 8");
    } else if (n > 0) {
        std::memmove(other, other + n, static_cast<std::size_t>(fill - n));
        p.m_other_len.store(fill - n, std::memory_order_release);
        p.m_block_count = 0;
        p.m_first_block_us = 0;
        return fill - n;
    } else if (n < 0) {
        if (p.m_receiver_id != 0) {
            MEDIA_LOG(Fundel::LOG_WARN, "this:%p MediaStreamSender check_other_data socket exception!\n",
                      static_cast<void*>(self));
            notify_failure(self, p);
        }
        return n;
    }
    count_block(self, p, "this:%p MediaStreamSender check_other_data socket exception for timeout!\n");
    return fill;
}

// The frame went out completely: the send proc hears of it.
void frame_done(SMediaSenderProgress& p, CFrame* frame)
{
    frame->m_partial_bytes -= frame->m_frame_bytes;
    p.m_packet_index = 0;
    p.m_packet_offset = 0;
    if (p.m_send_proc) p.m_send_proc(frame->m_frame_info, frame->m_frame_info_len, static_cast<int>(frame->m_frame_bytes));
}

// Makes `next` the frame being written (or none).
void take_frame(SMediaSenderProgress& p, CFrame* next)
{
    p.m_frame = next;
    p.m_remaining = next ? next->m_frame_bytes : 0;
    if (next) ++next->m_sender_refs;
}

}  // namespace

std::int64_t CMediaStreamSender::Send(CFrame* frame, std::uint64_t)
{
    SMediaSenderProgress& p = *m_progress;
    FUNDEL_ASSERT_TEXT(p.m_stream != nullptr, "m_stream != NULL");
    if (!p.m_stream) return -1;
    media_trace("%s, media strem sender %p send begin, frame:%p!\n", "CMediaStreamSender::Send", static_cast<void*>(this),
                static_cast<void*>(frame));
    const unsigned int type = p.m_stream->GetType();

    if (p.m_packet_index == 0 && p.m_packet_offset == 0) {
        const int other = check_other_data(this, p);
        if (other < 0) return -1;
        if (other > 0) return p.m_position;
        // Without a frame in hand the sender is caught up, and the buffer hands it the
        // frame that begins at its position.
        CFrame* choice = get_next_frame(p, p.m_frame ? p.m_frame : frame);
        if (choice != p.m_frame) {
            // A frame in hand that is no longer wanted (its channel was disabled) is let
            // go: its bytes are already counted as passed.
            if (p.m_frame) --p.m_frame->m_sender_refs;
            if (choice) ++choice->m_sender_refs;
            p.m_frame = choice;
        }
        if (!choice) return p.m_position;
        p.m_remaining = choice->m_frame_bytes;
    }

    for (;;) {
        CFrame* f = p.m_frame;
        const int left = f->m_packet_num - p.m_packet_index;
        if (left <= 0) return p.m_position;

        // Resume inside a packet: the shared vector is shifted for this one write only,
        // which the buffer's lock makes safe.
        iovec* first = &f->m_vector[p.m_packet_index];
        const iovec saved = *first;
        if (p.m_packet_offset != 0) {
            first->iov_base = static_cast<char*>(first->iov_base) + p.m_packet_offset;
            first->iov_len -= static_cast<decltype(first->iov_len)>(p.m_packet_offset);
        }
        int n = sock_writev(p.m_stream, type, first, left, true);
        *first = saved;
        if (n == kNotWritable) {
            FUNDEL_ASSERT_TEXT(false, "m_stream->GetType() is 1, 2, 3, 4, 5 or 8");
            n = 0;
        }

        if (n == 0) {
            count_block(this, p, "this:%p MediaStreamSender Send socket exception for timeout!\n");
            return p.m_position;
        }
        if (n < 0) {
            if (p.m_receiver_id != 0) {
                const int err = Platform::last_error();
                char text[128];
                MEDIA_LOG(Fundel::LOG_WARN, "this:%p MediaStreamSender Send socket exception, error:%d, %s\n",
                          static_cast<void*>(this), err, Platform::error_text(err, text, sizeof text));
                notify_failure(this, p);
            }
            f->m_partial_bytes -= f->m_frame_bytes - p.m_remaining;
            return -1;
        }
        p.m_block_count = 0;
        p.m_position += n;
        f->m_partial_bytes += n;

        if (n < p.m_remaining) {
            p.m_remaining -= n;
            std::int64_t rest = n;
            while (rest > 0) {
                const auto len = static_cast<std::int64_t>(f->m_vector[p.m_packet_index].iov_len) - p.m_packet_offset;
                if (rest < len) {
                    p.m_packet_offset += static_cast<int>(rest);
                    break;
                }
                rest -= len;
                ++p.m_packet_index;
                p.m_packet_offset = 0;
            }
            return p.m_position;
        }

        frame_done(p, f);
        p.m_first_block_us = 0;
        --f->m_sender_refs;
        p.m_frame = nullptr;
        take_frame(p, get_next_frame(p, f->m_next));
        const int other = check_other_data(this, p);
        if (other < 0) return -1;
        if (other > 0 || p.m_remaining == 0) return p.m_position;
    }
}

int CMediaStreamSender::GetTailPacket(char* buf, int len)
{
    SMediaSenderProgress& p = *m_progress;
    CFrame* f = p.m_frame;
    if (!f || p.m_packet_offset == 0) return 0;
    const iovec& entry = f->m_vector[p.m_packet_index];
    const int r = static_cast<int>(entry.iov_len) - p.m_packet_offset;
    if (r > len) return -1;
    std::memcpy(buf, static_cast<const char*>(entry.iov_base) + p.m_packet_offset, static_cast<std::size_t>(r));
    ++p.m_packet_index;
    p.m_remaining -= r;
    p.m_packet_offset = 0;
    p.m_position += r;
    f->m_partial_bytes += r;
    if (p.m_remaining == 0) {
        frame_done(p, f);
        // The frame's sender reference stays as it is on this path, as it always has:
        // the caller is moving the receiver elsewhere.
        CFrame* next = get_next_frame(p, f->m_next);
        p.m_frame = next;
        p.m_remaining = next ? next->m_frame_bytes : 0;
    }
    return r;
}

int CMediaStreamSender::handle_close(CNetHandler*)
{
    delete this;
    return 0;
}

}  // namespace Qelvar::Corvane
