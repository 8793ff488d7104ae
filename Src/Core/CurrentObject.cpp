#include "Core/CurrentObject.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include <Corvane/NetHandler.h>

#include "Platform/Thread.h"

namespace Qelvar::Corvane {

namespace {

struct SSlot {
    std::atomic<CNetHandler*> object{nullptr};
    std::atomic<std::int64_t> id{0};
    std::atomic<const std::type_info*> type{nullptr};
};

std::mutex g_mutex;
std::map<std::uint64_t, std::shared_ptr<SSlot>>* g_slots = new std::map<std::uint64_t, std::shared_ptr<SSlot>>;
// The map owns the slot; a plain pointer here, since mingw-w64 destroys a thread-local
// object with a destructor after its storage was freed at thread exit.
thread_local SSlot* t_slot = nullptr;

}  // namespace

void CCurrentObject::Register()
{
    auto slot = std::make_shared<SSlot>();
    std::lock_guard<std::mutex> lock(g_mutex);
    (*g_slots)[Platform::thread_current_id()] = slot;
    t_slot = slot.get();
}

void CCurrentObject::Unregister()
{
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_slots->erase(Platform::thread_current_id());
    }
    t_slot = nullptr;
}

void CCurrentObject::Set(CNetHandler* object, std::int64_t id)
{
    SSlot* slot = t_slot;
    if (!slot) return;
    slot->type.store(&typeid(*object), std::memory_order_relaxed);
    slot->id.store(id, std::memory_order_relaxed);
    slot->object.store(object, std::memory_order_release);
}

void CCurrentObject::Clear()
{
    SSlot* slot = t_slot;
    if (slot) slot->object.store(nullptr, std::memory_order_release);
}

bool CCurrentObject::Get(std::uint64_t tid, SEntry& out)
{
    std::shared_ptr<SSlot> slot;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        auto it = g_slots->find(tid);
        if (it == g_slots->end()) return false;
        slot = it->second;
    }
    out.object = slot->object.load(std::memory_order_acquire);
    out.id = slot->id.load(std::memory_order_relaxed);
    out.type = slot->type.load(std::memory_order_relaxed);
    return true;
}

}  // namespace Qelvar::Corvane
