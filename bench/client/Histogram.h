// A latency histogram in nanoseconds: exact below 128 ns, then 64 buckets for every
// power of two, so a percentile read from it is within 1/64 (1.6 %) of the true value.
// Fixed size, no allocation while recording; one per thread, merged at the end.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace EchoBench {

class Histogram {
public:
    void Add(std::uint64_t ns)
    {
        ++m_counts[Index(ns)];
        ++m_total;
    }

    void Merge(const Histogram& other)
    {
        for (std::size_t i = 0; i < kBuckets; ++i) {
            m_counts[i] += other.m_counts[i];
        }
        m_total += other.m_total;
    }

    std::uint64_t Count() const { return m_total; }

    /// The value below which the fraction q (0..1) of the samples lie: the middle of the
    /// bucket holding the sample of that rank. 0 when empty.
    std::uint64_t Quantile(double q) const
    {
        if (m_total == 0) {
            return 0;
        }
        auto rank = static_cast<std::uint64_t>(q * static_cast<double>(m_total));
        rank = std::min(rank, m_total - 1);
        std::uint64_t seen = 0;
        for (std::size_t i = 0; i < kBuckets; ++i) {
            seen += m_counts[i];
            if (seen > rank) {
                return Middle(i);
            }
        }
        return Middle(kBuckets - 1);
    }

private:
    static constexpr int kSubBits = 6;                 // 64 buckets per power of two
    static constexpr std::uint64_t kExact = 128;       // 2 << kSubBits: exact below this
    static constexpr int kTopBit = 40;                 // about 1100 s; longer is clamped
    static constexpr std::size_t kBuckets = kExact + (kTopBit - kSubBits) * (1u << kSubBits);

    static std::size_t Index(std::uint64_t ns)
    {
        if (ns < kExact) {
            return static_cast<std::size_t>(ns);
        }
        int top = std::min(static_cast<int>(std::bit_width(ns)) - 1, kTopBit);  // > kSubBits
        int shift = top - kSubBits;
        std::uint64_t sub = std::min<std::uint64_t>(ns >> shift, (2u << kSubBits) - 1) -
                            (1u << kSubBits);
        std::size_t index = kExact + static_cast<std::size_t>(top - kSubBits - 1) *
                                         (1u << kSubBits) + static_cast<std::size_t>(sub);
        return std::min(index, kBuckets - 1);
    }

    static std::uint64_t Middle(std::size_t index)
    {
        if (index < kExact) {
            return index;
        }
        std::size_t rest = index - kExact;
        int shift = static_cast<int>(rest >> kSubBits) + 1;
        std::uint64_t sub = (rest & ((1u << kSubBits) - 1)) + (1u << kSubBits);
        return (sub << shift) + (std::uint64_t{1} << shift) / 2;
    }

    std::array<std::uint64_t, kBuckets> m_counts{};
    std::uint64_t m_total = 0;
};

}  // namespace EchoBench
