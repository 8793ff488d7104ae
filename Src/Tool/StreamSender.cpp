#include <Corvane/StreamSender.h>

#include <Corvane/Config.h>
#include <Corvane/R3.h>
#include <Corvane/Sock.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "Core/Message.h"
#include "Core/NetSock.h"
#include "Core/ObjectName.h"
#include "Fundel/LogDefs.h"
#include "Fundel/Mutex.h"
#include "Tool/MediaTrace.h"
#include "Tool/SendQueue.h"
#include "Tool/SockWrite.h"

namespace Qelvar::Corvane {

namespace {

// Notifications decided under the sender's lock and posted after it is released, so
// that no queue lock of a pool is ever taken inside it.
class COutbox {
public:
    void Add(long to, unsigned int type, long attach) { m_notices.push_back({to, type, attach}); }
    void Post(long from) const
    {
        for (const SNotice& n : m_notices) CMessage::Notify(from, n.to, n.type, n.attach, false);
    }

private:
    struct SNotice {
        long to;
        unsigned int type;
        long attach;
    };
    // Empty, and so not allocated, on the path that notifies nobody.
    std::vector<SNotice> m_notices;
};

// The queue writes to stream sockets only.
int stream_result(int n)
{
    if (n != kNotWritable) return n;
    FUNDEL_ASSERT_TEXT(false, "m_sock_type is a stream type (1, 3, 4, 5 or 8)");
    return -1;
}

// Object ids are negative: nothing else can be told anything.
bool valid_receiver(long receiver_id, const char* function)
{
    if (receiver_id < 0) return true;
    CVN_LOG(Fundel::LOG_WARN, "%s : Invalid receiver id: receiver_id:%ld\n", function, receiver_id);
    return false;
}

}  // namespace

struct SStreamSenderData {
    /// Tells the buffer waiters whose wish the free space meets, once each, and the
    /// finish waiters when the queue is empty. Under the lock.
    void check_buffer_free(COutbox& out);
    /// A write failed: the socket is not written again, and the exception receiver is
    /// told on the first failure only. Under the lock.
    void report_exception(COutbox& out, const void* self, const char* function, int line);
    /// Withdraws the Write interest the sender added to the owner's registration.
    void unregister_output() { CNetSock::UnregisterSock(m_owner, *m_stream, MASK_WRITE); }

    Fundel::CMutex m_mutex;
    CSendQueue m_queue;
    CSock* m_stream = nullptr;
    unsigned int m_sock_type = SOCK_TYPE_BARE;
    CNetHandler* m_owner = nullptr;
    std::map<long, int> m_buffer_waiters;  ///< id -> wanted free bytes; -1 once told
    std::set<long> m_finish_waiters;
    long m_exception_id = 0;
    bool m_failed = false;  ///< a write failed on the attached socket
};

void SStreamSenderData::check_buffer_free(COutbox& out)
{
    const std::uint64_t free = m_queue.FreeBytes();
    for (auto& [id, wanted] : m_buffer_waiters) {
        if (wanted >= 1 && static_cast<std::uint64_t>(wanted) <= free) {
            out.Add(id, STREAM_SENDER_BUFFER_FREE, static_cast<long>(free));
            wanted = -1;
        }
    }
    if (m_queue.Empty() && !m_finish_waiters.empty()) {
        for (long id : m_finish_waiters) out.Add(id, STREAM_SENDER_FINISHED, 0);
        m_finish_waiters.clear();
    }
}

void SStreamSenderData::report_exception(COutbox& out, const void* self, const char* function, int line)
{
    const bool first = !m_failed;
    m_failed = true;
    if (!first || m_exception_id == 0) return;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s on line:%d CStreamSender socket exception! fd: %d\n", self, function, line,
            m_stream->GetHandle());
    out.Add(m_exception_id, STREAM_SENDER_EXCEPTION, 0);
}

CStreamSender* CStreamSender::Create()
{
    auto* sender = new CStreamSender();
    if (sender->GetID() != 0) return sender;
    // No public pool: the object never entered a table, so no handle_close would come.
    sender->Close();
    delete sender;
    return nullptr;
}

CStreamSender::CStreamSender() : CNetHandler(0), m_data(new SStreamSenderData)
{
}

CStreamSender::~CStreamSender()
{
    // The blocks and the gather vector go with the queue.
    delete m_data;
}

int CStreamSender::Attach(CNetHandler* owner, CSock* stream)
{
    if (!owner || !stream) {
        CVN_LOG(Fundel::LOG_WARN, "%s : Attach failed!Invalid parameter: owner:%p, stream:%p \n",
                "CStreamSender::Attach", static_cast<void*>(owner), static_cast<void*>(stream));
        return -1;
    }
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    m_data->m_owner = owner;
    m_data->m_stream = stream;
    m_data->m_sock_type = stream->GetType();
    m_data->m_failed = false;
    if (!m_data->m_queue.Empty()) CNetSock::RegisterSock(owner, *stream, MASK_WRITE, 0);
    return 0;
}

CSock* CStreamSender::Detach()
{
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    CSock* stream = m_data->m_stream;
    if (stream && !m_data->m_queue.Empty() && !m_data->m_failed) m_data->unregister_output();
    m_data->m_stream = nullptr;
    m_data->m_sock_type = SOCK_TYPE_BARE;
    m_data->m_owner = nullptr;
    return stream;
}

int CStreamSender::SetBufferSize(unsigned int blocks)
{
    COutbox out;
    {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
        CSendQueue& queue = m_data->m_queue;
        if (blocks > queue.Capacity()) {
            queue.Grow(blocks);
            m_data->check_buffer_free(out);
        } else if (static_cast<std::uint64_t>(blocks) * SSendBuf::kSize < queue.DataLen()) {
            CVN_LOG(Fundel::LOG_FATAL, "this:%p %s buf size:%d smaller than data len:%d!\n", static_cast<void*>(this),
                    "CStreamSender::SetBufferSize", static_cast<int>(blocks * SSendBuf::kSize),
                    static_cast<int>(queue.DataLen()));
            FUNDEL_ASSERT_TEXT(false, "size_in_block * 32768 >= m_data_len");
        }
    }
    out.Post(GetID());
    return 0;
}

int CStreamSender::Clear()
{
    COutbox out;
    {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
        m_data->m_queue.Clear();
        m_data->check_buffer_free(out);
    }
    out.Post(GetID());
    return 0;
}

int CStreamSender::WaitException(long receiver_id)
{
    if (!valid_receiver(receiver_id, "CStreamSender::WaitException")) return -1;
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    m_data->m_exception_id = receiver_id;
    return 0;
}

int CStreamSender::WaitBufferSize(long receiver_id, unsigned int size_in_byte)
{
    if (receiver_id >= 0 || size_in_byte == 0) {
        CVN_LOG(Fundel::LOG_WARN, "%s :Invalid parameter: receiver_id:%ld, size_in_byte:%u \n",
                "CStreamSender::WaitBufferSize", receiver_id, size_in_byte);
        return -1;
    }
    COutbox out;
    {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
        const std::uint64_t free = m_data->m_queue.FreeBytes();
        // Met already: told at once, so a caller that found the queue full a moment ago
        // cannot miss a drain that happened since.
        const bool met = free >= size_in_byte;
        const int wanted = static_cast<int>(std::min<unsigned int>(size_in_byte, INT_MAX));
        m_data->m_buffer_waiters[receiver_id] = met ? -1 : wanted;
        if (met) out.Add(receiver_id, STREAM_SENDER_BUFFER_FREE, static_cast<long>(free));
    }
    out.Post(GetID());
    return 0;
}

int CStreamSender::WaitSendFinish(long receiver_id)
{
    if (!valid_receiver(receiver_id, "CStreamSender::WaitSendFinish")) return -1;
    COutbox out;
    {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
        if (m_data->m_queue.Empty()) out.Add(receiver_id, STREAM_SENDER_FINISHED, 0);
        else m_data->m_finish_waiters.insert(receiver_id);
    }
    out.Post(GetID());
    return 0;
}

int CStreamSender::Put(const char* data, unsigned int len)
{
    SStreamSenderData& d = *m_data;
    COutbox out;
    int result = 0;
    {
        std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
        CSendQueue& queue = d.m_queue;
        if (!data || len > queue.CapacityBytes() || !d.m_stream) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s buf size :%u smaller than data len :%u!, buf :%p, m_stream :%p\n",
                    static_cast<void*>(this), "CStreamSender::Put", static_cast<unsigned int>(queue.CapacityBytes()),
                    len, static_cast<const void*>(data), static_cast<void*>(d.m_stream));
            return -1;
        }
        // The media trace covers the queues the media senders write through.
        if (CMediaTrace::Get() != 0) {
            R3Printf("%s, object:%p, class:%s, strem:%p, fd:%d\n", "CStreamSender::Put", static_cast<void*>(d.m_owner),
                     object_class_name(d.m_owner).c_str(), static_cast<void*>(d.m_stream), d.m_stream->GetHandle());
        }
        if (len == 0) return 0;
        if (d.m_failed) return -1;
        if (!queue.Empty()) {
            // All or nothing: after a partial acceptance the caller could not tell
            // which bytes are still its to send.
            if (queue.FreeBytes() < len) return -1;
            queue.Append(data, len, 0);
            return 0;
        }
        const int sent = stream_result(sock_send(d.m_stream, d.m_sock_type, data, len, false));
        if (sent < 0) {
            d.report_exception(out, this, "CStreamSender::Put", __LINE__);
            result = -1;
        } else if (static_cast<unsigned int>(sent) < len) {
            queue.Append(data, len, static_cast<unsigned int>(sent));
            CNetSock::RegisterSock(d.m_owner, *d.m_stream, MASK_WRITE, 0);
        }
    }
    out.Post(GetID());
    return result;
}

int CStreamSender::handle_output(int handle)
{
    SStreamSenderData& d = *m_data;
    COutbox out;
    {
        std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
        if (!d.m_stream) return -1;
        FUNDEL_ASSERT_TEXT(handle == d.m_stream->GetHandle(), "handle == m_stream->GetHandle()");
        CSendQueue& queue = d.m_queue;
        if (!queue.Empty() && !d.m_failed) {
            const int count = queue.Gather();
            const iovec* vec = queue.Vector();
            const int n = stream_result(sock_writev(d.m_stream, d.m_sock_type, vec, count, false));
            if (n > 0) {
                queue.Consume(static_cast<unsigned int>(n));
                d.check_buffer_free(out);
            } else if (n < 0) {
                d.report_exception(out, this, "CStreamSender::handle_output", __LINE__);
            }
        }
        // Drained, or never to be written again: the owner's writability is no concern.
        if (queue.Empty() || d.m_failed) d.unregister_output();
    }
    out.Post(GetID());
    return 0;
}

int CStreamSender::handle_close(CNetHandler*)
{
    // The queue and its blocks go with the object; the socket is never the sender's.
    delete this;
    return 0;
}

unsigned int CStreamSender::GetDataLen()
{
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    return m_data->m_queue.DataLen();
}

unsigned int CStreamSender::GetPeakDataLen()
{
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    return m_data->m_queue.PeakDataLen();
}

unsigned int CStreamSender::GetCapacity()
{
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    return m_data->m_queue.Capacity();
}

}  // namespace Qelvar::Corvane
