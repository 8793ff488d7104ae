// Exact quantiles of latencies in ns, for the reliable-UDP benchmark. Its latencies hold
// the transport's latency budget (tens of ms), where a histogram bucket of 1/64 is wider
// than the differences of tens of µs the benchmark looks for; a run keeps at most some
// tens of thousands of samples, so they are all kept and sorted. Same calls as
// EchoBench::Histogram.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace SrtBench {

class Samples {
public:
    void Add(std::uint64_t ns)
    {
        m_values.push_back(ns);
        m_sorted = false;
    }

    void Merge(const Samples& other)
    {
        m_values.insert(m_values.end(), other.m_values.begin(), other.m_values.end());
        m_sorted = false;
    }

    std::uint64_t Count() const { return m_values.size(); }

    /// The sample of rank q * count (0..1, the last one at most), as the histogram ranks
    /// them. 0 when empty.
    std::uint64_t Quantile(double q) const
    {
        if (m_values.empty()) {
            return 0;
        }
        if (!m_sorted) {
            std::sort(m_values.begin(), m_values.end());
            m_sorted = true;
        }
        auto rank = static_cast<std::size_t>(q * static_cast<double>(m_values.size()));
        return m_values[std::min(rank, m_values.size() - 1)];
    }

private:
    mutable std::vector<std::uint64_t> m_values;
    mutable bool m_sorted = true;
};

}  // namespace SrtBench
