// The ordered table of a thread pool: object ids -> handler states (object table) and
// socket handles -> socket records (socket table). Keys are signed 64-bit; object ids
// are negative, socket handles 0 or above.
//
// Ids are handed out densely (each new id of a pool is 1024 below the previous one, the
// low 4 bits being a reuse generation) and system socket handles are small numbers, so
// both map to a slot array: id -> (-(id >> 10) - 100), handle -> handle. Keys outside the
// array (transport descriptors far above system ones, unusual ids) live in an ordered
// map beside it. The caller takes the table's lock (Lock()) around every operation.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "Fundel/ReadWriteMutex.h"

namespace Qelvar::Corvane {

template <class T>
class CBTree {
public:
    /// Read lock for lookups, write lock for Insert and Erase.
    Fundel::CReadWriteMutex& Lock() { return m_lock; }

    /// Adds (key, value); false when the key is present.
    bool Insert(std::int64_t key, T* value)
    {
        const std::int64_t slot = slot_of(key);
        if (slot < 0) {
            const bool added = m_sparse.emplace(key, value).second;
            if (added) ++m_size;
            return added;
        }
        const auto index = static_cast<std::size_t>(slot);
        if (index >= m_dense.size()) m_dense.resize(grown_size(index));
        if (m_dense[index].value != nullptr) return false;
        m_dense[index] = {key, value};
        ++m_size;
        return true;
    }

    /// Removes the key and returns its value, or null when absent.
    T* Erase(std::int64_t key)
    {
        const std::int64_t slot = slot_of(key);
        if (slot < 0) {
            auto it = m_sparse.find(key);
            if (it == m_sparse.end()) return nullptr;
            T* value = it->second;
            m_sparse.erase(it);
            --m_size;
            return value;
        }
        const auto index = static_cast<std::size_t>(slot);
        if (index >= m_dense.size() || m_dense[index].key != key || m_dense[index].value == nullptr) {
            return nullptr;
        }
        T* value = m_dense[index].value;
        m_dense[index] = {};
        --m_size;
        return value;
    }

    /// The value of `key`, or null.
    T* Find(std::int64_t key) const
    {
        const std::int64_t slot = slot_of(key);
        if (slot < 0) {
            auto it = m_sparse.find(key);
            return it == m_sparse.end() ? nullptr : it->second;
        }
        const auto index = static_cast<std::size_t>(slot);
        if (index >= m_dense.size() || m_dense[index].key != key) return nullptr;
        return m_dense[index].value;
    }

    /// Calls f(key, value) for every entry; socket handles come in ascending order.
    template <class F>
    void ForEach(F&& f) const
    {
        for (const Slot& s : m_dense) {
            if (s.value != nullptr) f(s.key, s.value);
        }
        for (const auto& [key, value] : m_sparse) f(key, value);
    }

    std::size_t Size() const { return m_size; }

private:
    struct Slot {
        std::int64_t key = 0;
        T* value = nullptr;
    };

    // Beyond this many slots the array would cost more than it saves.
    static constexpr std::int64_t kMaxSlots = std::int64_t{1} << 22;

    static std::int64_t slot_of(std::int64_t key)
    {
        // The arithmetic shift recovers the id's sequence number (-100, -101, ...).
        const std::int64_t slot = key >= 0 ? key : -(key >> 10) - 100;
        return slot >= 0 && slot < kMaxSlots ? slot : -1;
    }

    static std::size_t grown_size(std::size_t index)
    {
        std::size_t size = 64;
        while (size <= index) size *= 2;
        return size;
    }

    Fundel::CReadWriteMutex m_lock;
    std::vector<Slot> m_dense;
    std::map<std::int64_t, T*> m_sparse;
    std::size_t m_size = 0;
};

}  // namespace Qelvar::Corvane
