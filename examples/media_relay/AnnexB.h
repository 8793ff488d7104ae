// Cuts a live H.264 Annex-B byte stream into packets for a CMediaBuffer: one packet per
// NAL unit, start code included, so receivers get the very same byte stream; mark 1 on
// the last NAL unit of each access unit (one picture), whose level is its importance:
// 1 with an IDR slice (a key frame), 5 for other reference pictures, 10 for pictures no
// other picture refers to (the first to go when a receiver falls behind).
#pragma once

#include <Corvane/MediaBuffer.h>
#include <Corvane/MediaPacket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Relay {

using namespace Qelvar::Corvane;

/// What the relay counts, for its stats line; outlives the handlers that count.
struct SRelayStats {
    std::atomic<std::uint64_t> frames_in{0};    ///< access units put
    std::atomic<std::uint64_t> missed_cuts{0};  ///< slices a drained read took for whole wrongly
    std::atomic<std::uint64_t> bytes_out{0};    ///< bytes of frames that went out completely
    std::atomic<int> receivers{0};
    std::atomic<long> producers_ended{0};       ///< producer connections that ended (or the file played)
};

/// One NAL unit's bytes. The buffer drops its reference when the frame holding it goes.
class CNalPacket final : public CMediaPacket {
public:
    explicit CNalPacket(std::vector<char>&& bytes) : m_bytes(std::move(bytes)) {}

    void AddRef() { m_refs.fetch_add(1, std::memory_order_relaxed); }
    void Release() override
    {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    char* GetBuffer() override { return m_bytes.data(); }
    int Size() const { return static_cast<int>(m_bytes.size()); }

private:
    std::atomic<int> m_refs{1};
    std::vector<char> m_bytes;
};

/// Feeds a CMediaBuffer from the bytes of one producer at a time. Not thread-safe: the
/// input handler calls it under its own lock.
class CAccessUnitCutter {
public:
    CAccessUnitCutter(CMediaBuffer& buffer, SRelayStats& stats) : m_buffer(buffer), m_stats(stats) {}
    ~CAccessUnitCutter()
    {
        for (CNalPacket* packet : m_au) packet->Release();
    }
    CAccessUnitCutter(const CAccessUnitCutter&) = delete;
    CAccessUnitCutter& operator=(const CAccessUnitCutter&) = delete;

    /// Bytes as they were read.
    void Feed(const char* data, std::size_t len)
    {
        m_pending.insert(m_pending.end(), data, data + len);
        while (cut_at_next_start_code()) {
        }
    }

    /// Nothing more is readable for now. A NAL unit ends only where the next start code
    /// begins, which comes with the next picture, a frame interval later. A live producer
    /// writes a picture at once, so a read that drains on a slice is taken as the end of
    /// that slice and of its access unit. Should more of it follow (the producer's write
    /// was split), that rest goes out as a frame of its own: the bytes stay the same, but
    /// a receiver that loses one of the two frames would see a damaged picture. So after
    /// that, this producer's pictures end at the next start code, a frame later.
    void Drained()
    {
        if (!m_cut_on_drain || m_kind != EKind::Nal || m_pending.size() <= m_head) return;
        const int type = static_cast<unsigned char>(m_pending[m_head]) & 0x1F;
        // A slice ends with its stop bit, never with a zero byte: trailing zeros may be the
        // next start code's first half.
        if ((type != 1 && type != 5) || m_pending.back() == 0) return;
        on_nal(take(m_pending.size()), m_head);
        end_access_unit();
        m_kind = EKind::AfterCut;
        m_head = 0;
        m_scan = 0;
    }

    /// Access units put so far (the rest of a cut slice counts as one).
    std::uint64_t AccessUnits() const { return m_units; }

    /// The producer has gone: what is pending is complete. Starts over for the next one.
    void End()
    {
        if (m_kind == EKind::Nal && m_pending.size() > m_head) on_nal(take(m_pending.size()), m_head);
        if (m_kind == EKind::AfterCut && !m_pending.empty()) put_rest_of_cut(take(m_pending.size()));
        end_access_unit();
        m_pending.clear();
        m_cut_on_drain = true;
        m_kind = EKind::Garbage;
        m_head = 0;
        m_scan = 0;
    }

private:
    // What m_pending begins with: bytes before the first start code, a NAL unit with its
    // start code, or whatever follows a slice that Drained() ended.
    enum class EKind { Garbage, Nal, AfterCut };

    // Finds the next start code after the current one and hands over what precedes it.
    bool cut_at_next_start_code()
    {
        std::size_t i = m_scan > m_head ? m_scan : m_head;
        for (; i + 2 < m_pending.size(); ++i) {
            if (m_pending[i] == 0 && m_pending[i + 1] == 0 && m_pending[i + 2] == 1) break;
        }
        if (i + 2 >= m_pending.size()) {
            m_scan = i;  // the last two bytes may begin a start code
            return false;
        }
        // A zero before 00 00 01 makes the four-byte form.
        const std::size_t start = i > m_head && m_pending[i - 1] == 0 ? i - 1 : i;
        const std::size_t head = i + 3 - start;
        if (m_kind == EKind::Nal && start > m_head) {
            on_nal(take(start), m_head);
        } else if (m_kind == EKind::AfterCut && start > 0) {
            put_rest_of_cut(take(start));
        } else {
            m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(start));
        }
        m_kind = EKind::Nal;
        m_head = head;
        m_scan = head;
        return true;
    }

    // The first `len` pending bytes; the rest stays pending.
    std::vector<char> take(std::size_t len)
    {
        std::vector<char> rest(m_pending.begin() + static_cast<std::ptrdiff_t>(len), m_pending.end());
        m_pending.resize(len);
        std::vector<char> bytes = std::move(m_pending);
        m_pending = std::move(rest);
        return bytes;
    }

    void on_nal(std::vector<char>&& bytes, std::size_t head)
    {
        const auto header = static_cast<unsigned char>(bytes[head]);
        const int type = header & 0x1F;
        const bool slice = type == 1 || type == 5;
        // first_mb_in_slice is 0 when the first bit after the header is 1.
        const bool first_slice = slice && bytes.size() > head + 1 && (static_cast<unsigned char>(bytes[head + 1]) & 0x80) != 0;
        if ((type == 9 && !m_au.empty()) || (m_au_has_slice && (type == 6 || type == 7 || type == 8 || first_slice))) {
            end_access_unit();
        }
        if (slice && m_level == 0) m_level = type == 5 ? 1 : (header & 0x60) != 0 ? 5 : 10;
        m_au_has_slice = m_au_has_slice || slice;
        m_au.push_back(new CNalPacket(std::move(bytes)));
        // Parameter sets wait for the first slice, which gives the access unit its level;
        // the newest NAL unit waits too, as it may be the last one and carry the mark.
        if (m_level == 0) return;
        for (std::size_t k = 0; k + 1 < m_au.size(); ++k) put(m_au[k], 0, m_level);
        m_au.erase(m_au.begin(), m_au.end() - 1);
    }

    void end_access_unit()
    {
        if (m_au.empty()) return;
        const int level = m_level != 0 ? m_level : 10;
        for (std::size_t k = 0; k < m_au.size(); ++k) put(m_au[k], k + 1 == m_au.size() ? 1 : 0, level);
        m_au.clear();
        m_last_level = level;
        m_level = 0;
        m_au_has_slice = false;
        count_unit();
    }

    // The rest of a slice that Drained() took for whole: a frame of its own, never a key
    // frame, so that no receiver starts with it.
    void put_rest_of_cut(std::vector<char>&& bytes)
    {
        m_cut_on_drain = false;
        m_stats.missed_cuts.fetch_add(1, std::memory_order_relaxed);
        put(new CNalPacket(std::move(bytes)), 1, m_last_level > 1 ? m_last_level : 2);
        count_unit();
    }

    void count_unit()
    {
        ++m_units;
        m_stats.frames_in.fetch_add(1, std::memory_order_relaxed);
    }

    void put(CNalPacket* packet, int mark, int level)
    {
        m_buffer.Put(packet, packet->Size(), mark, MediaLevel(level, 0));
    }

    CMediaBuffer& m_buffer;
    SRelayStats& m_stats;
    std::vector<char> m_pending;  // from the start of the current NAL unit on
    EKind m_kind = EKind::Garbage;
    std::size_t m_head = 0;  // length of the start code m_pending begins with
    std::size_t m_scan = 0;  // where the search for the next start code goes on
    std::vector<CNalPacket*> m_au;  // NAL units of the access unit not put yet
    int m_level = 0;                // 0 until the access unit's first slice
    int m_last_level = 10;
    bool m_au_has_slice = false;
    bool m_cut_on_drain = true;  // until a producer's picture came in two writes
    std::uint64_t m_units = 0;
};

}  // namespace Relay
