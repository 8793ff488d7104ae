#include <Corvane/NFile.h>

#include <Corvane/DefaultStorDev.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <mutex>
#include <new>

#include "Core/FileThreadPool.h"
#include "Core/ReclaimPool.h"
#include "Fundel/LogDefs.h"
#include "Tool/NBufPool.h"
#include "Tool/NFileData.h"

namespace Qelvar::Corvane {

namespace {

constexpr unsigned int kDefaultCount = 4;
constexpr std::size_t kPathLimit = 256;  // a device keeps 255 characters and a terminator

constexpr unsigned int kNotifyWriteFree = 6;
constexpr unsigned int kNotifyReadReady = 7;
constexpr unsigned int kNotifyIoError = 8;

// The byte at `offset` can be read from `buf` (its first byte counts: an empty buffer
// at the end of the file reports the end).
bool holds(const CNFileBuf* buf, std::int64_t offset)
{
    const std::int64_t first = buf->m_file_offset.load(std::memory_order_relaxed);
    return buf->Covers(offset) && (offset < first + buf->m_buf_offset || offset == first);
}

// Bytes written at `offset` would extend the buffer's valid bytes without a gap.
bool writable(const CNFileBuf* buf, std::int64_t offset)
{
    const std::int64_t first = buf->m_file_offset.load(std::memory_order_relaxed);
    return buf->Covers(offset) && offset - first <= static_cast<std::int64_t>(buf->m_buf_offset);
}

void check_position(const CNFileBuf* buf, std::int64_t file_offset)
{
    const std::int64_t first = buf->m_file_offset.load(std::memory_order_relaxed);
    FUNDEL_ASSERT_TEXT(first >= 0 && file_offset >= first, "m_file_offset >= 0 && file_offset >= m_file_offset");
    FUNDEL_ASSERT_TEXT(static_cast<std::uint64_t>(file_offset - first) <= buf->m_buf_offset,
                       "(uint64_t)(file_offset - m_file_offset) <= m_buf_offset");
}

}  // namespace

SNFileData::~SNFileData()
{
    free_buffers();
}

void SNFileData::notify(unsigned int code)
{
    m_self->Notify(static_cast<long>(m_recvr_id), code, 0);
}

void SNFileData::post_request(std::uint32_t kind, std::int64_t flag)
{
    // The reference keeps handle_close away until the request has run.
    m_self->AddRef();
    {
        std::lock_guard<Fundel::CMutex> lock(m_request_mutex);
        ++m_outstanding;
    }
    SEvent* record = CReclaimPool::sm_reclaim_pool.Take();
    if (!record) {
        run_request(kind, flag);
        return;
    }
    record->m_key = EVENT_FILE_REQUEST;
    record->m_type = kind;
    record->m_receiver = flag;
    record->m_attach = static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(static_cast<CFileRequest_IF*>(this)));
    if (CFileThreadPool::Instance().Post(record)) return;
    // No file thread takes it: run it here, so that nothing asked is ever lost.
    handle_file_request(record);
}

void SNFileData::handle_file_request(SEvent* record)
{
    const std::uint32_t kind = record->m_type;
    const std::int64_t flag = record->m_receiver;
    CReclaimPool::sm_reclaim_pool.GiveBack(record);
    run_request(kind, flag);
}

void SNFileData::run_request(std::uint32_t kind, std::int64_t flag)
{
    if (kind == FILE_REQUEST_WRITE) handle_write_file(flag);
    else if (kind == FILE_REQUEST_READ) handle_read_file();
    bool close_now;
    {
        std::lock_guard<Fundel::CMutex> lock(m_request_mutex);
        --m_outstanding;
        if (kind == FILE_REQUEST_CLOSE) m_close_wanted = true;
        // A close waits for the file's other requests: the last one out runs it, so every
        // queued byte is written first and no thread spins on a re-queued close.
        close_now = m_close_wanted && m_outstanding == 0;
        if (close_now) m_close_wanted = false;
    }
    CNFile* self = m_self;  // the DecRef below may delete this state with the file
    if (close_now) self->CNetHandler::Close();
    self->DecRef();
}

bool SNFileData::make_buffers(unsigned int count)
{
    m_bufs.reserve(count);
    m_sorted.reserve(count);
    for (unsigned int i = 0; i < count; ++i) {
        auto* buf = new (std::nothrow) CNFileBuf;
        if (!buf) {
            free_buffers();
            return false;
        }
        m_bufs.push_back(buf);
    }
    m_buf_count = count;
    m_buf_size = CNBufPool::kBlockSize;
    return true;
}

void SNFileData::free_buffers()
{
    for (CNFileBuf* buf : m_bufs) delete buf;
    m_bufs.clear();
    m_sorted.clear();
    m_buf_count = 0;
    m_buf_size = 0;
    m_read_buf = nullptr;
    m_write_buf = nullptr;
}

bool SNFileData::buffers_in_use()
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_request_mutex);
        if (m_outstanding != 0) return true;
    }
    return std::any_of(m_bufs.begin(), m_bufs.end(), [](const CNFileBuf* buf) { return buf->m_dirty != 0; });
}

int SNFileData::blocks_held()
{
    std::lock_guard<Fundel::CMutex> lock(m_io_mutex);
    int held = 0;
    bool busy = false;
    for (CNFileBuf* buf : m_bufs) {
        if (!buf->Take()) {
            busy = true;
            continue;
        }
        held += buf->HasBlock() ? 1 : 0;
        buf->Release();
    }
    return busy ? -1 : held;
}

void SNFileData::submit(CNFileBuf* buf)
{
    buf->Submit(SUBMIT_FULL);
    post_request(FILE_REQUEST_WRITE, 0);
}

void SNFileData::submit_all_buffer()
{
    for (CNFileBuf* buf : m_bufs) {
        if (!buf->Take()) continue;
        if (buf->m_dirty) submit(buf);
        else buf->Release();
    }
    post_request(FILE_REQUEST_WRITE, 1);
}

bool SNFileData::clean_overlap(std::int64_t offset)
{
    bool clear = true;
    for (CNFileBuf* buf : m_bufs) {
        if (!buf->Overlaps(offset)) continue;
        // One in flight still holds the range: its end brings 6 or 7.
        if (!buf->Take()) {
            clear = false;
            continue;
        }
        if (!buf->Overlaps(offset)) {
            buf->Release();
        } else if (buf->m_dirty) {
            submit(buf);
            clear = false;
        } else {
            buf->Reset();
            buf->Release();
        }
    }
    return clear;
}

CNFileBuf* SNFileData::take_empty_buffer()
{
    for (CNFileBuf* buf : m_bufs) {
        if (!buf->Take()) continue;
        if (buf->m_file_offset.load(std::memory_order_relaxed) == -1) return buf;
        buf->Release();
    }
    return nullptr;
}

CNFileBuf* SNFileData::reuse_buffer()
{
    const std::uint32_t count = static_cast<std::uint32_t>(m_bufs.size());
    for (std::uint32_t k = 0; k < count; ++k) {
        const std::uint32_t i = (m_rr_index + k) % count;
        CNFileBuf* buf = m_bufs[i];
        if (!buf->Take()) continue;
        // Unwritten bytes are never dropped to make room: they go to the device first.
        if (buf->m_dirty) {
            submit(buf);
            continue;
        }
        buf->Reset();
        m_rr_index = (i + 1) % count;
        return buf;
    }
    return nullptr;
}

CNFileBuf* SNFileData::find_write_buffer()
{
    const std::int64_t offset = m_offset;
    for (CNFileBuf* buf : m_bufs) {
        if (!buf->Take()) continue;
        if (writable(buf, offset)) return buf;
        if (buf->m_buf_offset == buf->m_size && !buf->m_dirty) buf->Reset();
        buf->Release();
    }
    if (clean_overlap(offset)) {
        CNFileBuf* buf = take_empty_buffer();
        if (!buf) buf = reuse_buffer();
        if (buf) {
            buf->m_file_offset.store(offset, std::memory_order_relaxed);
            return buf;
        }
    }
    {
        std::lock_guard<Fundel::CMutex> lock(m_flag_mutex);
        m_write_full = true;
    }
    // Set before the request is posted, so that its run sees the flag and sends 6.
    post_request(FILE_REQUEST_WRITE, 1);
    return nullptr;
}

void SNFileData::start_read(CNFileBuf* buf, std::int64_t offset)
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_read_mutex);
        m_read_waiting = true;
    }
    {
        std::lock_guard<Fundel::CMutex> lock(m_flag_mutex);
        m_notify_read = true;
    }
    buf->m_file_offset.store(offset, std::memory_order_relaxed);
    buf->Submit(SUBMIT_READ);
    post_request(FILE_REQUEST_READ, 0);
}

CNFileBuf* SNFileData::try_read_buffer(bool& posted)
{
    posted = false;
    const std::int64_t offset = m_offset;
    if (m_read_buf && m_read_buf->Take()) {
        if (holds(m_read_buf, offset)) return m_read_buf;
        m_read_buf->Release();
    }
    m_read_buf = nullptr;
    for (CNFileBuf* buf : m_bufs) {
        if (!buf->Take()) continue;
        if (holds(buf, offset)) return buf;
        if (buf->Covers(offset)) {
            // It covers the offset but lacks the byte: it makes room for a fresh read.
            if (buf->m_dirty) {
                submit(buf);
                continue;
            }
            buf->Reset();
        }
        buf->Release();
    }
    if (!clean_overlap(offset)) return nullptr;
    CNFileBuf* buf = take_empty_buffer();
    if (!buf) buf = reuse_buffer();
    if (!buf) return nullptr;
    start_read(buf, offset);
    posted = true;
    return nullptr;
}

CNFileBuf* SNFileData::find_read_buffer()
{
    bool posted = false;
    if (CNFileBuf* buf = try_read_buffer(posted)) return buf;
    if (posted) return nullptr;
    // No buffer at all: flag the wait first, then look once more, so that a buffer freed
    // meanwhile is either seen here or brings 7 (the one freeing it sees the flag).
    {
        std::lock_guard<Fundel::CMutex> lock(m_flag_mutex);
        m_notify_read = true;
    }
    CNFileBuf* buf = try_read_buffer(posted);
    if (buf) {
        std::lock_guard<Fundel::CMutex> lock(m_flag_mutex);
        m_notify_read = false;
    }
    return buf;
}

int SNFileData::direct_read(char* buf, unsigned int len, bool& eof)
{
    const int n = m_dev->Read(buf, len);
    if (n > 0) {
        m_offset += n;
        return n;
    }
    if (n == 0 || at_end(m_offset)) {
        eof = true;
        return 0;
    }
    notify(kNotifyIoError);
    return -1;
}

bool SNFileData::at_end(std::int64_t offset)
{
    // CDefaultStorDev reads -1 at the end too: the size tells the end from an error.
    NFile_Info info;
    return m_dev->Stat(&info) == 0 && offset >= info.size;
}

void SNFileData::handle_write_file(std::int64_t flag)
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_write_mutex);
        if (m_write_busy) {
            // Not swallowed: the runner loops once more with this flag, so 6 still comes.
            m_write_again = true;
            m_again_flag |= flag;
            return;
        }
        m_write_busy = true;
    }
    for (;;) {
        write_buffers();
        if (flag == 1) {
            bool was_full;
            {
                std::lock_guard<Fundel::CMutex> lock(m_flag_mutex);
                was_full = m_write_full;
                m_write_full = false;
            }
            if (was_full) notify(kNotifyWriteFree);
        }
        std::lock_guard<Fundel::CMutex> lock(m_write_mutex);
        if (!m_write_again) {
            m_write_busy = false;
            return;
        }
        flag = m_again_flag;
        m_write_again = false;
        m_again_flag = 0;
    }
}

void SNFileData::write_buffers()
{
    m_sorted.clear();
    for (CNFileBuf* buf : m_bufs) {
        const SUBMIT_EVENT type = buf->Submitted();
        if (type == SUBMIT_WRITE || type == SUBMIT_FULL) m_sorted.push_back(buf);
    }
    std::sort(m_sorted.begin(), m_sorted.end(), [](const CNFileBuf* a, const CNFileBuf* b) {
        return a->m_file_offset.load(std::memory_order_relaxed) < b->m_file_offset.load(std::memory_order_relaxed);
    });
    bool failed = false;
    bool freed = false;
    for (CNFileBuf* buf : m_sorted) {
        if (!failed) {
            std::lock_guard<Fundel::CMutex> lock(m_dev_mutex);
            failed = !write_out(buf);
        }
        // After an error the rest is dropped: 8 tells the owner, and a device that failed
        // once is not fed the same bytes again and again.
        if (failed || buf->Submitted() == SUBMIT_FULL) {
            buf->Reset();
            freed = true;
        } else {
            buf->m_dirty = 0;
        }
        buf->Release();
    }
    m_sorted.clear();
    if (failed) notify(kNotifyIoError);
    if (freed) notify_freed();
}

bool SNFileData::write_out(CNFileBuf* buf)
{
    if (!m_dev) return false;
    if (!buf->HasBlock()) return true;
    const char* data = buf->Block();
    if (m_dev->Seek(buf->m_file_offset.load(std::memory_order_relaxed), 0) != 0) return false;
    std::uint32_t written = 0;
    while (written < buf->m_buf_offset) {
        const int n = m_dev->Write(data + written, buf->m_buf_offset - written);
        if (n <= 0) return false;
        written += static_cast<std::uint32_t>(n);
    }
    return true;
}

void SNFileData::handle_read_file()
{
    bool any = false;
    bool error = false;
    for (CNFileBuf* buf : m_bufs) {
        if (buf->Submitted() != SUBMIT_READ) continue;
        const std::int64_t first = buf->m_file_offset.load(std::memory_order_relaxed);
        char* data = buf->Block();
        std::uint32_t got = 0;
        bool eof = false;
        bool failed = data == nullptr || m_dev == nullptr;
        if (!failed) {
            std::lock_guard<Fundel::CMutex> lock(m_dev_mutex);
            failed = m_dev->Seek(first, 0) != 0;
            while (!failed && got < buf->m_size) {
                const int n = m_dev->Read(data + got, buf->m_size - got);
                if (n > 0) {
                    got += static_cast<std::uint32_t>(n);
                    continue;
                }
                if (n == 0 || at_end(first + got)) eof = true;
                else failed = true;
                break;
            }
        }
        buf->m_buf_offset = got;
        buf->m_eof = eof ? 1 : 0;
        buf->m_dirty = 0;
        // Nothing kept after an error: the next Read asks the device again.
        if (failed && got == 0) buf->Reset();
        buf->Release();
        any = any || got > 0 || eof;
        error = error || failed;
    }
    {
        std::lock_guard<Fundel::CMutex> lock(m_read_mutex);
        m_read_waiting = false;
    }
    bool was_waiting;
    {
        std::lock_guard<Fundel::CMutex> lock(m_flag_mutex);
        was_waiting = m_notify_read;
        m_notify_read = false;
    }
    if (error) notify(kNotifyIoError);
    if (was_waiting && any) notify(kNotifyReadReady);
}

void SNFileData::notify_freed()
{
    bool send = false;
    {
        std::lock_guard<Fundel::CMutex> read_lock(m_read_mutex);
        // A read in flight sends 7 itself when it ends.
        if (!m_read_waiting) {
            std::lock_guard<Fundel::CMutex> lock(m_flag_mutex);
            send = m_notify_read;
            m_notify_read = false;
        }
    }
    if (send) notify(kNotifyReadReady);
}

CNFile::CNFile() : CNetHandler(0), m_data(new SNFileData(this))
{
}

CNFile::~CNFile()
{
    delete m_data;
}

CNFile* CNFile::Open(long recvr_id, const char* path, const char* mode, CNStorDev_IF* dev)
{
    if (recvr_id >= 0) {
        CVN_LOG(Fundel::LOG_ERROR, "%s : Invalid receiver id: recvr_id:%ld\n", "CNFile::Open", recvr_id);
        return nullptr;
    }
    if (!path || !mode) {
        CVN_LOG(Fundel::LOG_WARN, "%s : Invalid path or mode: path:%s, mode:%s\n", "CNFile::Open",
                path ? path : "(null)", mode ? mode : "(null)");
        return nullptr;
    }
    std::size_t length = 0;
    while (length < kPathLimit && path[length] != '\0') ++length;
    // A device keeps 255 characters: a longer path would open another file.
    if (length >= kPathLimit) {
        CVN_LOG(Fundel::LOG_WARN, "%s : path too long (%u characters or more): %.64s...\n", "CNFile::Open",
                static_cast<unsigned int>(kPathLimit), path);
        return nullptr;
    }
    auto* file = new CNFile;
    if (file->GetID() == 0) {
        file->CNetHandler::Close();
        delete file;  // never in a table: no handle_close comes
        return nullptr;
    }
    SNFileData& d = *file->m_data;
    d.m_dev = dev ? dev : new CDefaultStorDev;
    if (d.m_dev->Open(path, mode) != 0) {
        file->Close();
        return nullptr;
    }
    d.m_dev->Stat(&d.m_info);
    d.m_recvr_id = recvr_id;
    if (!d.buffered()) file->SetBufferSize(CNBufPool::kBlockSize, kDefaultCount);
    return file;
}

int CNFile::SetBufferSize(unsigned int size, unsigned int count)
{
    SNFileData& d = *m_data;
    std::lock_guard<Fundel::CMutex> lock(d.m_io_mutex);
    if (!d.m_dev) return -1;
    unsigned int want = 0;
    if (CFileThreadPool::Instance().IsRunning() && d.m_dev->NeedAIO()) want = size == 0 || count == 0 ? kDefaultCount : count;
    if (want == d.m_bufs.size()) return 0;
    // Buffers on the file threads or holding unwritten bytes cannot go.
    if (d.buffers_in_use()) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : buffers in use, count stays %u\n", static_cast<void*>(this),
                "CNFile::SetBufferSize", static_cast<unsigned int>(d.m_bufs.size()));
        return -1;
    }
    d.free_buffers();
    if (want == 0) return 0;
    // Every buffer holds one pool block, whatever size was asked.
    if (!d.make_buffers(want)) return -1;
    CNBufPool::Instance();
    return 0;
}

int CNFile::Write(const char* data, unsigned int len)
{
    SNFileData& d = *m_data;
    {
        std::lock_guard<Fundel::CMutex> lock(d.m_flag_mutex);
        if (d.m_write_full) return 0;
    }
    if (!data || len == 0) {
        d.notify(kNotifyIoError);
        return 0;
    }
    std::lock_guard<Fundel::CMutex> lock(d.m_io_mutex);
    if (!d.buffered()) {
        if (!d.m_dev) return -1;
        const int n = d.m_dev->Write(data, len);
        if (n > 0) d.m_offset += n;
        else d.notify(kNotifyIoError);
        return n;
    }
    unsigned int accepted = 0;
    while (accepted < len) {
        CNFileBuf* buf = nullptr;
        if (d.m_write_buf && d.m_write_offset == d.m_offset && d.m_write_buf->Take()) {
            if (writable(d.m_write_buf, d.m_offset)) buf = d.m_write_buf;
            else d.m_write_buf->Release();
        }
        d.m_write_buf = nullptr;
        if (!buf) buf = d.find_write_buffer();
        if (!buf) break;
        char* block = buf->Block();
        if (!block) {
            buf->Reset();
            buf->Release();
            d.notify(kNotifyIoError);
            break;
        }
        check_position(buf, d.m_offset);
        const auto pos = static_cast<std::uint32_t>(d.m_offset - buf->m_file_offset.load(std::memory_order_relaxed));
        const std::uint32_t n = std::min(len - accepted, buf->m_size - pos);
        std::memcpy(block + pos, data + accepted, n);
        buf->m_buf_offset = std::max(buf->m_buf_offset, pos + n);
        buf->m_dirty = 1;
        d.m_offset += n;
        accepted += n;
        if (buf->m_buf_offset == buf->m_size) {
            d.submit(buf);
        } else {
            d.m_write_buf = buf;
            d.m_write_offset = d.m_offset;
            buf->Release();
        }
    }
    return static_cast<int>(accepted);
}

int CNFile::Read(char* buf, unsigned int len, bool& eof)
{
    SNFileData& d = *m_data;
    eof = false;
    {
        std::lock_guard<Fundel::CMutex> lock(d.m_flag_mutex);
        if (d.m_notify_read) return 0;
    }
    if (!buf || len == 0) {
        d.notify(kNotifyIoError);
        return 0;
    }
    {
        std::lock_guard<Fundel::CMutex> lock(d.m_read_mutex);
        if (d.m_read_waiting) return 0;
    }
    std::lock_guard<Fundel::CMutex> lock(d.m_io_mutex);
    if (!d.buffered()) return d.m_dev ? d.direct_read(buf, len, eof) : -1;
    if (d.m_read_buf && d.m_read_offset != d.m_offset) d.m_read_buf = nullptr;
    unsigned int copied = 0;
    while (copied < len) {
        CNFileBuf* rb = d.find_read_buffer();
        if (!rb) break;
        check_position(rb, d.m_offset);
        const auto pos = static_cast<std::uint32_t>(d.m_offset - rb->m_file_offset.load(std::memory_order_relaxed));
        const std::uint32_t n = std::min(len - copied, rb->m_buf_offset - pos);
        if (n > 0) std::memcpy(buf + copied, rb->Block() + pos, n);
        if (pos + n == rb->m_buf_offset) {
            eof = rb->m_eof != 0;
            d.m_read_buf = nullptr;
        } else {
            d.m_read_buf = rb;
        }
        rb->Release();
        d.m_offset += n;
        d.m_read_offset = d.m_offset;
        copied += n;
        if (n == 0 || eof) break;
    }
    return static_cast<int>(copied);
}

int CNFile::Seek(long long offset, int whence)
{
    SNFileData& d = *m_data;
    std::lock_guard<Fundel::CMutex> lock(d.m_io_mutex);
    if (!d.m_dev) return -1;
    if (!d.buffered()) {
        const int ret = d.m_dev->Seek(offset, whence);
        if (ret != 0) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : seek failed! offset:%" PRId64 ", whence:%d, ret:%d\n",
                    static_cast<void*>(this), "CNFile::Seek", static_cast<std::int64_t>(offset), whence, ret);
            return ret;
        }
        // The offset kept here only serves the end-of-file test.
        NFile_Info info;
        if (whence == 0) d.m_offset = offset;
        else if (whence == 1) d.m_offset += offset;
        else if (d.m_dev->Stat(&info) == 0) d.m_offset = info.size + offset;
        return 0;
    }
    std::int64_t target = -1;
    if (whence == 0) target = offset;
    else if (whence == 1) target = d.m_offset + offset;
    // From the end is refused: bytes in flight leave the end unsettled.
    if (target < 0) {
        CVN_LOG(Fundel::LOG_WARN,
                "this:%p %s : seek refused! offset:%" PRId64 ", whence:%d, current offset:%" PRId64 "\n",
                static_cast<void*>(this), "CNFile::Seek", static_cast<std::int64_t>(offset), whence, d.m_offset);
        return -1;
    }
    d.m_read_buf = nullptr;
    d.m_write_buf = nullptr;
    d.m_offset = target;
    d.submit_all_buffer();
    return 0;
}

int CNFile::Stat(NFile_Info* info)
{
    if (!info) return -1;
    SNFileData& d = *m_data;
    std::lock_guard<Fundel::CMutex> lock(d.m_io_mutex);
    if (d.m_info.path[0] == '\0') {
        std::lock_guard<Fundel::CMutex> dev_lock(d.m_dev_mutex);
        if (!d.m_dev || d.m_dev->Stat(&d.m_info) != 0) return -1;
    }
    *info = d.m_info;
    return 0;
}

void CNFile::Close()
{
    SNFileData& d = *m_data;
    {
        std::unique_lock<Fundel::CMutex> lock(d.m_io_mutex);
        if (!d.buffered()) {
            if (d.m_dev) d.m_dev->Close();
            d.m_dev = nullptr;
            lock.unlock();
            CNetHandler::Close();
            return;
        }
        d.submit_all_buffer();
    }
    // Runs after every request posted before it (see run_request).
    d.post_request(FILE_REQUEST_CLOSE, 0);
}

int CNFile::handle_close(CNetHandler*)
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_dev_mutex);
        m_data->free_buffers();
        if (m_data->m_dev) m_data->m_dev->Close();
        m_data->m_dev = nullptr;
    }
    delete this;
    return -1;
}

}  // namespace Qelvar::Corvane
