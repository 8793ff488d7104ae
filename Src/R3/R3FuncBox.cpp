#include "R3/R3FuncBox.h"

#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

CR3FuncBox* CR3FuncBox::sm_box = nullptr;
Fundel::CMutex CR3FuncBox::sm_mutex;

int CR3FuncBox::find_index(const char* name) const
{
    for (int i = 0; i < m_count; ++i) {
        if (std::strcmp(m_entries[i].name, name) == 0) return i;
    }
    return -1;
}

int CR3FuncBox::Register(R3Function func, const char* name, const char* help)
{
    if (!func || !name) {
        CVN_LOG(Fundel::LOG_ERROR, "CR3FuncBox::Register invalid parameter! func:%p, name:%p\n",
                reinterpret_cast<void*>(func), static_cast<const void*>(name));
        return -1;
    }
    std::lock_guard<Fundel::CMutex> lock(sm_mutex);
    if (!sm_box) {
        sm_box = new (std::nothrow) CR3FuncBox;
        if (!sm_box) return -1;
    }
    if (sm_box->m_count >= kMaxEntries) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p CR3Daemon::Register func box full!\n", static_cast<void*>(sm_box));
        return -1;
    }
    if (sm_box->find_index(name) >= 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p TFuncBox::Register already exist!\n", static_cast<void*>(sm_box));
        return -1;
    }
    sm_box->m_entries[sm_box->m_count++] = SEntry{func, name, help};
    return 0;
}

R3Function CR3FuncBox::Find(const char* name)
{
    if (!name) return nullptr;
    std::lock_guard<Fundel::CMutex> lock(sm_mutex);
    if (!sm_box) return nullptr;
    const int index = sm_box->find_index(name);
    return index >= 0 ? sm_box->m_entries[index].func : nullptr;
}

void CR3FuncBox::ForEach(const std::function<void(const char* name, const char* help)>& callback)
{
    std::vector<SEntry> entries;
    {
        std::lock_guard<Fundel::CMutex> lock(sm_mutex);
        if (sm_box) entries.assign(sm_box->m_entries, sm_box->m_entries + sm_box->m_count);
    }
    for (const SEntry& entry : entries) callback(entry.name, entry.help);
}

void CR3FuncBox::Free()
{
    std::lock_guard<Fundel::CMutex> lock(sm_mutex);
    delete sm_box;
    sm_box = nullptr;
}

}  // namespace Qelvar::Corvane
