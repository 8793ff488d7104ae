// SNFileData: the private state of a CNFile and the work its file threads do.
#pragma once

#include <Corvane/NFile.h>

#include <cstdint>
#include <vector>

#include "Core/FileRequest.h"
#include "Fundel/Mutex.h"
#include "Tool/NFileBuf.h"

namespace Qelvar::Corvane {

/// Kinds of the requests a file posts to the file threads (the stop request, 4, is the
/// threads' own shutdown).
enum FILE_REQUEST : std::uint32_t {
    FILE_REQUEST_WRITE = 0,
    FILE_REQUEST_READ = 1,
    FILE_REQUEST_CLOSE = 3,
};

struct SNFileData final : public CFileRequest_IF {
    explicit SNFileData(CNFile* self) : m_self(self) {}
    ~SNFileData();
    SNFileData(const SNFileData&) = delete;
    SNFileData& operator=(const SNFileData&) = delete;

    /// The state of `file`, for diagnostics and tests.
    static SNFileData* of(CNFile* file) { return file->m_data; }

    void handle_file_request(SEvent* record) override;
    CNetHandler* request_object() override { return m_self; }

    bool buffered() const { return !m_bufs.empty(); }
    void notify(unsigned int code);
    /// Queues a request holding a reference on the file; runs it here when the file
    /// threads do not run.
    void post_request(std::uint32_t kind, std::int64_t flag);
    void run_request(std::uint32_t kind, std::int64_t flag);
    /// Makes `count` buffers; false when the heap is exhausted (none are kept then).
    bool make_buffers(unsigned int count);
    void free_buffers();
    /// Buffers are queued, in flight or hold unwritten bytes.
    bool buffers_in_use();
    /// Blocks held by the buffers; -1 while one is on a file thread.
    int blocks_held();

    // Under the I/O mutex.
    CNFileBuf* find_write_buffer();
    /// Null when a read was posted or no buffer could be had; 7 follows in both cases.
    CNFileBuf* find_read_buffer();
    CNFileBuf* try_read_buffer(bool& posted);
    /// Empties or sends for writing every buffer whose range meets the buffer-sized range
    /// at `offset`; true when none is left there.
    bool clean_overlap(std::int64_t offset);
    /// The next clean buffer from the round-robin index, taken and reset.
    CNFileBuf* reuse_buffer();
    CNFileBuf* take_empty_buffer();
    void start_read(CNFileBuf* buf, std::int64_t offset);
    /// Hands a held dirty buffer to the file threads for writing.
    void submit(CNFileBuf* buf);
    void submit_all_buffer();
    int direct_read(char* buf, unsigned int len, bool& eof);

    // On the file threads.
    void handle_write_file(std::int64_t flag);
    void write_buffers();
    bool write_out(CNFileBuf* buf);
    void handle_read_file();
    /// A device read found nothing at `offset`: the end when the device says the file is
    /// no longer (the file may have grown since Open).
    bool at_end(std::int64_t offset);
    /// 7 to a reader that found no buffer, now that one came free.
    void notify_freed();

    CNFile* m_self;
    CNStorDev_IF* m_dev = nullptr;  ///< null once closed
    NFile_Info m_info;
    std::int64_t m_recvr_id = 0;
    std::vector<CNFileBuf*> m_bufs;
    std::vector<CNFileBuf*> m_sorted;  ///< the write handler's scratch list

    Fundel::CMutex m_write_mutex;
    bool m_write_busy = false;   ///< a write handler runs
    bool m_write_again = false;  ///< another asked meanwhile: the runner loops once more
    std::int64_t m_again_flag = 0;

    std::uint32_t m_buf_count = 0;
    std::uint32_t m_buf_size = 0;
    std::int64_t m_offset = 0;

    Fundel::CMutex m_read_mutex;
    bool m_read_waiting = false;

    Fundel::CMutex m_flag_mutex;
    bool m_notify_read = false;
    bool m_write_full = false;

    CNFileBuf* m_read_buf = nullptr;
    std::int64_t m_read_offset = 0;
    CNFileBuf* m_write_buf = nullptr;
    std::int64_t m_write_offset = 0;

    Fundel::CMutex m_io_mutex;
    std::uint32_t m_rr_index = 0;

    /// Device calls from file threads: a seek and its read or write go together.
    Fundel::CMutex m_dev_mutex;
    /// Requests queued or running, and a close that waits for them.
    Fundel::CMutex m_request_mutex;
    unsigned int m_outstanding = 0;
    bool m_close_wanted = false;
};

}  // namespace Qelvar::Corvane
