#include "Tool/StreamReceiverThread.h"

#include <Corvane/MediaStreamReceiver.h>
#include <Corvane/TsMemory.h>

#include <memory>
#include <mutex>

#include "Core/CurrentObject.h"
#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"
#include "Platform/Thread.h"
#include "Tool/MediaStreamReceiverData.h"

namespace Qelvar::Corvane {

namespace {

constexpr std::int64_t kWritePeriodUs = 40000;
constexpr std::int64_t kBaseAlignUs = 100000;
constexpr std::int64_t kStallPeriods = 20;
constexpr unsigned int kRestartWaitMs = 10;

using Records = std::vector<std::unique_ptr<CStreamReceiverThread>>;

// Both groups' records; the mutex is the process-wide assignment lock, taken before any
// record's lock.
struct SGroups {
    std::mutex mutex;
    Records receive;
    Records write;
};

SGroups& groups()
{
    static SGroups* instance = new SGroups;  // never destroyed: threads may outlive exit
    return *instance;
}

Records& group_of(SGroups& g, int kind)
{
    return kind == WRITE_GROUP ? g.write : g.receive;
}

bool is_closed(const SMediaStreamReceiverData* data)
{
    return data->m_state.load() == RECEIVER_CLOSED;
}

}  // namespace

std::atomic<int> CStreamReceiverThread::sm_priority{64};
std::atomic<int> CStreamReceiverThread::sm_policy{0};
std::atomic<int> CStreamReceiverThread::sm_stack{0};
std::atomic<std::int64_t> CStreamReceiverThread::sm_tick_period{20000};
std::atomic<int> CStreamReceiverThread::sm_trace{0};

CStreamReceiverThread::CStreamReceiverThread(int index, int kind, int count, std::int64_t period)
    : m_index(index), m_kind(kind), m_count(count), m_period(period)
{
}

int CStreamReceiverThread::StartGroups(int count)
{
    SGroups& g = groups();
    std::lock_guard<std::mutex> lock(g.mutex);
    if (!g.receive.empty()) return 0;
    if (count < 1) count = 1;
    const std::int64_t period = sm_tick_period.load();
    for (int i = 0; i < count; ++i) {
        g.receive.push_back(std::make_unique<CStreamReceiverThread>(i, RECEIVE_GROUP, count, period));
        g.write.push_back(std::make_unique<CStreamReceiverThread>(i, WRITE_GROUP, count, kWritePeriodUs));
    }
    return 0;
}

void CStreamReceiverThread::StopGroups()
{
    Records records;
    {
        // Taken out first, so that an assignment from a closing receiver's handle_close
        // fails instead of waiting for the lock held across the joins.
        SGroups& g = groups();
        std::lock_guard<std::mutex> lock(g.mutex);
        for (Records* group : {&g.receive, &g.write}) {
            for (auto& record : *group) records.push_back(std::move(record));
            group->clear();
        }
    }
    for (auto& record : records) record->m_thread.Cancel();
    for (auto& record : records) record->m_thread.Join();
    for (auto& record : records) {
        CMediaStreamReceiver* left = nullptr;
        {
            std::lock_guard<Fundel::CMutex> lock(record->m_mutex);
            while (CMediaStreamReceiver* receiver = record->m_head) {
                record->m_head = receiver->m_data->m_next;
                receiver->m_data->m_next = left;
                left = receiver;
                --record->m_number;
            }
            record->m_tail = nullptr;
            FUNDEL_ASSERT_TEXT(record->m_number == 0, "m_number == 0");
        }
        release(left);
    }
}

int CStreamReceiverThread::assign(CMediaStreamReceiver* receiver)
{
    SGroups& g = groups();
    std::lock_guard<std::mutex> lock(g.mutex);
    const int kind = receiver->m_data->m_mode.load() == RECEIVER_STREAM_WRITE ? WRITE_GROUP : RECEIVE_GROUP;
    Records& group = group_of(g, kind);
    if (group.empty()) return ASSIGN_NOT_STARTED;
    CStreamReceiverThread* least = nullptr;
    int least_number = 0;
    for (auto& record : group) {
        int number;
        {
            std::lock_guard<Fundel::CMutex> record_lock(record->m_mutex);
            number = record->m_number;
        }
        if (!least || number < least_number) {
            least = record.get();
            least_number = number;
        }
    }
    return least->append(receiver);
}

const char* CStreamReceiverThread::assign_error_text(int err)
{
    switch (err) {
    case ASSIGN_NOT_STARTED: return "stream receiver threads not started";
    case ASSIGN_CREATE_FAILED: return "stream receiver thread could not be created";
    default: return "no error";
    }
}

std::vector<int> CStreamReceiverThread::counts(int kind)
{
    SGroups& g = groups();
    std::lock_guard<std::mutex> lock(g.mutex);
    std::vector<int> out;
    for (auto& record : group_of(g, kind)) {
        std::lock_guard<Fundel::CMutex> record_lock(record->m_mutex);
        out.push_back(record->m_number);
    }
    return out;
}

void CStreamReceiverThread::SetPriority(int priority, int policy, int stack)
{
    sm_priority.store(priority);
    sm_policy.store(policy);
    sm_stack.store(stack);
}

void CStreamReceiverThread::SetRcvPriority(int priority)
{
    sm_priority.store(priority);
}

void CStreamReceiverThread::SetTickPeriod(std::int64_t period_us)
{
    sm_tick_period.store(period_us);
}

std::int64_t CStreamReceiverThread::tick_base(std::int64_t now) const
{
    return now - now % kBaseAlignUs + m_index * m_period / m_count;
}

int CStreamReceiverThread::append(CMediaStreamReceiver* receiver)
{
    std::unique_lock<Fundel::CMutex> lock(m_mutex);
    SMediaStreamReceiverData* data = receiver->m_data;
    data->m_period = m_period;
    data->m_next = nullptr;
    receiver->AddRef();  // the list's reference, dropped by the thread that reaps it
    if (m_tail) m_tail->m_data->m_next = receiver;
    else m_head = receiver;
    m_tail = receiver;
    if (++m_number != 1) return 0;
    // Emptied, but the thread has not yet looked at its count again (it was releasing
    // receivers): it goes on with this one. This is also the case of an assignment from
    // its own handle_close.
    if (m_thread.IsRunning() && !m_ending) return 0;
    // Its previous run decided to end: wait for it, without blocking that run's last
    // look at the list.
    while (m_thread.IsRunning()) {
        lock.unlock();
        Platform::sleep_ms(kRestartWaitMs);
        lock.lock();
    }
    m_thread.Join();
    m_ending = false;
    m_tick_count = 0;
    m_tick_base = tick_base(Fundel::CTime::getCurrentMicroSecond());
    const int stack = sm_stack.load();
    if (m_thread.Create("stream_receiver_thread", [this] { run(); }, sm_priority.load(), sm_policy.load(),
                        static_cast<std::size_t>(stack > 0 ? stack : 0)) == 0) {
        return 0;
    }
    --m_number;
    m_head = m_tail = nullptr;
    lock.unlock();
    receiver->DecRef();
    return ASSIGN_CREATE_FAILED;
}

void CStreamReceiverThread::run()
{
    CTsMemory::CreateMemPool();
    CCurrentObject::Register();
    // More threads than processors share them; a refused pin leaves the thread free.
    const int err = Platform::thread_set_affinity(m_index % Platform::processor_count());
    if (err != 0) {
        CVN_LOG(Fundel::LOG_INFO, "this:%p stream receiver thread %d not pinned, error:%d\n", static_cast<void*>(this),
                m_index, err);
    }
    while (pass()) {
        // Aim at the next ideal tick; after a stall of more than 20 periods (or a clock
        // jump) count anew instead of catching up.
        const std::int64_t now = Fundel::CTime::getCurrentMicroSecond();
        std::int64_t delay = (m_tick_count + 1) * m_period - now + m_tick_base;
        if (delay < -kStallPeriods * m_period || delay > kStallPeriods * m_period) {
            m_tick_base = tick_base(now);
            if (m_kind == WRITE_GROUP) {
                m_tick_count = 1;
                delay = 0;
            } else {
                m_tick_count = 0;
                delay = m_period;
            }
        }
        if (delay >= 1000) Platform::sleep_ms(static_cast<unsigned int>(delay / 1000));
        if (!m_thread.IsLooping()) break;
    }
    Platform::thread_set_affinity(-1);
    CCurrentObject::Unregister();
    CTsMemory::DestroyThreadMemPool();
}

bool CStreamReceiverThread::pass()
{
    ++m_tick_count;
    CMediaStreamReceiver* reaped = nullptr;
    {
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        unlink_closed(nullptr, reaped);
    }
    // Released outside the lock: a handle_close may start another receiver.
    release(reaped);
    CMediaStreamReceiver* receiver;
    {
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        if (m_number == 0) {
            m_ending = true;
            return false;
        }
        receiver = m_head;
    }
    reaped = nullptr;
    while (receiver) {
        // Only this thread unlinks, so the receiver stays listed (and referenced) while
        // its hook runs without the lock.
        if (receiver->m_data->m_state.load() == RECEIVER_RUNNING) {
            CCurrentObject::Set(receiver, receiver->GetID());
            receiver->do_receive();
            CCurrentObject::Clear();
        }
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        unlink_closed(receiver, reaped);
        FUNDEL_ASSERT_TEXT(m_number > 0, "m_number > 0");
        receiver = receiver->m_data->m_next;
    }
    release(reaped);
    return true;
}

void CStreamReceiverThread::unlink_closed(CMediaStreamReceiver* prev, CMediaStreamReceiver*& reaped)
{
    CMediaStreamReceiver*& link = prev ? prev->m_data->m_next : m_head;
    while (link && is_closed(link->m_data)) {
        CMediaStreamReceiver* gone = link;
        link = gone->m_data->m_next;
        if (m_tail == gone) m_tail = prev;
        gone->m_data->m_next = reaped;
        reaped = gone;
        --m_number;
    }
}

void CStreamReceiverThread::release(CMediaStreamReceiver* reaped)
{
    while (reaped) {
        CMediaStreamReceiver* next = reaped->m_data->m_next;
        reaped->m_data->m_next = nullptr;
        reaped->release_from_thread();  // may delete it
        reaped = next;
    }
}

}  // namespace Qelvar::Corvane
