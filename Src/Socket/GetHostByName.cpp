#include "Socket/GetHostByName.h"

#include <chrono>
#include <climits>
#include <cstring>

#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"
#include "Platform/Error.h"
#include "Platform/SockTypes.h"

namespace Qelvar::Corvane {

namespace {

std::mutex& resolver_mutex()
{
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

// Never destroyed, like the resolver itself: a lookup may still be running at exit.
CGetHostByName::Resolver& test_resolver()
{
    static CGetHostByName::Resolver* resolver = new CGetHostByName::Resolver;
    return *resolver;
}

int resolve(const char* name, int family, int socktype, Platform::SResolvedAddr* out, int max, int* count, int* found)
{
    CGetHostByName::Resolver resolver;
    {
        std::lock_guard<std::mutex> lock(resolver_mutex());
        resolver = test_resolver();
    }
    if (resolver) return resolver(name, family, socktype, out, max, count, found);
    return Platform::addr_resolve(name, family, socktype, out, max, count, found);
}

// One row of the hint tables: a request's code, what the system is asked for, and the
// line that says so.
struct SHint {
    int code;
    int hint;
    const char* line;
};

template <std::size_t N>
int hint_of(const SHint (&table)[N], int code, int fallback, const char* fallback_line)
{
    for (const SHint& row : table) {
        if (row.code == code) {
            CVN_LOG(Fundel::LOG_TRACE, "%s", row.line);
            return row.hint;
        }
    }
    CVN_LOG(Fundel::LOG_WARN, "%s", fallback_line);
    return fallback;
}

int socktype_hint(int code)
{
    static const SHint table[] = {
        {ADDR_SOCK_STREAM, SOCK_STREAM, "The Socktype is SOCK_STREAM!\n"},
        {ADDR_SOCK_DGRAM, SOCK_DGRAM, "The Socktype is SOCK_DGRAM!\n"},
        {ADDR_SOCK_RAW, SOCK_RAW, "The Socktype is SOCK_RAW!\n"},
        {ADDR_SOCK_TYPE_ALL, 0, "The Socktype is SOCK_TYPE_ALL!\n"},
    };
    return hint_of(table, code, SOCK_STREAM,
                   "The Socktype is not specified, the default setting is SOCK_STREAM!\n");
}

int family_hint(int family)
{
    static const SHint table[] = {
        {AF_UNSPEC, AF_UNSPEC, "The ai_family is AF_UNSPEC!\n"},
        {AF_INET, AF_INET, "The ai_family is AF_INET!\n"},
        {AF_INET6, AF_INET6, "The ai_family is AF_INET6!\n"},
    };
    return hint_of(table, family, AF_UNSPEC, "The family is not specified, the default setting is AF_UNSPEC!\n");
}

// The records of the addresses of `family` (any for AF_UNSPEC) among what the system
// gave: the first one only, or up to ADDR_RECORD_MAX for `all`.
bool collect(const Platform::SResolvedAddr* found, int count, int total, int family, bool all, ADDR_RECORD_ALL* out)
{
    const int wanted = all ? ADDR_RECORD_MAX : 1;
    out->count = 0;
    for (int i = 0; i < count && out->count < wanted; ++i) {
        if (family != AF_UNSPEC && found[i].family != family) continue;
        ADDR_RECORD& record = out->records[out->count];
        if (!CGetHostByName::addrTostr(found[i].family, found[i].address, record.addr, sizeof record.addr)) {
            CVN_LOG(Fundel::LOG_WARN, "addrToStr failed\n");
            return false;
        }
        record.family = found[i].family;
        ++out->count;
    }
    if (all && total > count) {
        CVN_LOG(Fundel::LOG_WARN, "The buffer too short to save the address information!\n");
    }
    if (out->count == 0) {
        CVN_LOG(Fundel::LOG_WARN, "%s : getaddrinfo gave no address of family %d!\n", "CGetHostByName::convert",
                family);
        return false;
    }
    return true;
}

// Bytes of the system socket address of `family`; 0 when not known yet (AF_UNSPEC).
int address_length(int family)
{
    if (family == AF_INET) return static_cast<int>(sizeof(sockaddr_in));
    if (family == AF_INET6) return static_cast<int>(sizeof(sockaddr_in6));
    return 0;
}

bool buffer_too_short(int len, int family)
{
    if (len >= address_length(family)) return false;
    CVN_LOG(Fundel::LOG_ERROR, "GetHostByName failed, the buffer too short to save the address!\n");
    return true;
}

// The callback of an asynchronous request, taken out of its slot by whichever of the
// answer and the expiry comes first.
struct SCompletion {
    AddrCallback callback;
    AddrAllCallback callback_all;
    bool all;

    void deliver(const ADDR_RECORD_ALL& results, bool ok) const
    {
        if (all) {
            callback_all(results, ok);
        } else {
            callback(results.records[0], ok);
        }
    }
};

}  // namespace

CGetHostByName& CGetHostByName::Instance()
{
    // Windows needs its socket library started before the first lookup; an application
    // may resolve before it makes a thread pool.
    static CGetHostByName* instance = [] {
        const int err = Platform::sock_startup();
        if (err != 0) {
            char text[256];
            CVN_LOG(Fundel::LOG_WARN, "%s : socket startup failed, error:%d, %s\n", "CGetHostByName::Instance", err,
                    Platform::error_text(err, text, sizeof text));
        }
        return new CGetHostByName;
    }();
    return *instance;
}

void CGetHostByName::SetResolverForTest(Resolver resolver)
{
    std::lock_guard<std::mutex> lock(resolver_mutex());
    test_resolver() = std::move(resolver);
}

bool CGetHostByName::valid_request(const ADDR_INFO* request, bool has_target)
{
    if (request && request->name && has_target) return true;
    CVN_LOG(Fundel::LOG_ERROR, "getAddrInfo failed, Invalid parameter, ADDR_INFO :%p, name :%p!\n",
            static_cast<const void*>(request), static_cast<const void*>(request ? request->name : nullptr));
    return false;
}

bool CGetHostByName::getAddrInfo(const ADDR_INFO* request, ADDR_RECORD* result, unsigned long long timeout_ms)
{
    if (!valid_request(request, result != nullptr)) return false;
    const int index = addRequest(*request, false, false, timeout_ms);
    ADDR_RECORD_ALL results;
    if (index < 0 || !wait(index, timeout_ms, &results)) return false;
    *result = results.records[0];
    return true;
}

bool CGetHostByName::getAddrInfoAll(const ADDR_INFO* request, ADDR_RECORD_ALL* results, unsigned long long timeout_ms)
{
    if (!valid_request(request, results != nullptr)) return false;
    const int index = addRequest(*request, true, false, timeout_ms);
    return index >= 0 && wait(index, timeout_ms, results);
}

bool CGetHostByName::getAddr(const ADDR_INFO* request, sockaddr* out, int len, unsigned long long timeout_ms)
{
    if (!valid_request(request, out != nullptr)) return false;
    // A known family is checked before the lookup; AF_UNSPEC once the answer names one.
    if (buffer_too_short(len, request->family)) return false;
    ADDR_RECORD record;
    if (!getAddrInfo(request, &record, timeout_ms)) return false;
    if (buffer_too_short(len, record.family)) return false;
    if (record.family == AF_INET) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        if (Platform::addr_from_text(AF_INET, record.addr, &addr.sin_addr) != 1) return false;
        std::memcpy(out, &addr, sizeof addr);
    } else {
        sockaddr_in6 addr{};
        addr.sin6_family = AF_INET6;
        if (Platform::addr_from_text(AF_INET6, record.addr, &addr.sin6_addr) != 1) return false;
        std::memcpy(out, &addr, sizeof addr);
    }
    return true;
}

bool CGetHostByName::getAddrInfoAsync(const ADDR_INFO* request, unsigned long long timeout_ms)
{
    if (!valid_request(request, request && request->callback)) return false;
    return addRequest(*request, false, true, timeout_ms) >= 0;
}

bool CGetHostByName::getAddrInfoAllAsync(const ADDR_INFO* request, unsigned long long timeout_ms)
{
    if (!valid_request(request, request && request->callback_all)) return false;
    return addRequest(*request, true, true, timeout_ms) >= 0;
}

bool CGetHostByName::addrTostr(int family, const void* address, char* text, std::size_t len)
{
    if (family != AF_INET && family != AF_INET6) {
        CVN_LOG(Fundel::LOG_WARN, "addrTostr faild, Invalid address family :%d\n", family);
        return false;
    }
    if (!Platform::addr_to_text(family, address, text, len)) {
        const int err = Platform::last_error();
        char reason[256];
        CVN_LOG(Fundel::LOG_WARN, "inet_ntop_b error:%d, %s\n", err, Platform::error_text(err, reason, sizeof reason));
        return false;
    }
    return true;
}

int CGetHostByName::FreeSlotCount()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int free = 0;
    for (SSlot& slot : m_slots) {
        if (!slot.busy && !slot.lookup_timer.IsActive() && !slot.expiry_timer.IsActive()) ++free;
    }
    return free;
}

int CGetHostByName::addRequest(const ADDR_INFO& request, bool all, bool async, unsigned long long timeout_ms)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (int index = 0; index < ADDR_RECORD_MAX; ++index) {
        SSlot& slot = m_slots[index];
        // A slot whose earlier lookup still runs stays taken: that lookup ends into it.
        if (slot.busy || slot.lookup_timer.IsActive() || slot.expiry_timer.IsActive()) continue;
        slot.name = request.name;
        slot.family = request.family;
        slot.socktype = request.socktype;
        slot.start_ms = Fundel::CTime::getCurrentMilliSecond();
        slot.timeout_ms = timeout_ms;
        slot.busy = true;
        slot.done = false;
        slot.succeeded = false;
        slot.async = async;
        slot.all = all;
        slot.callback = async ? request.callback : nullptr;
        slot.callback_all = async ? request.callback_all : nullptr;
        slot.results = ADDR_RECORD_ALL{};
        const unsigned int generation = ++slot.generation;
        if (async && timeout_ms != 0) {
            const unsigned int ms = timeout_ms > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(timeout_ms);
            if (slot.expiry_timer.Start("GetHostByName_Proc", ms, false,
                                        [this, index, generation] { timeoutProc(index, generation); }) != 0) {
                release(slot);
                return -1;
            }
        }
        if (slot.lookup_timer.Start("GetHostByName", 0, false,
                                    [this, index, generation] { convert(index, generation); }) != 0) {
            release(slot);  // a started expiry finds another generation and does nothing
            return -1;
        }
        return index;
    }
    CVN_LOG(Fundel::LOG_WARN, "getHostByName failed, there is no more resouce to deal the request!\n");
    return -1;
}

void CGetHostByName::release(SSlot& slot)
{
    slot.busy = false;
    ++slot.generation;
    slot.callback = nullptr;
    slot.callback_all = nullptr;
}

bool CGetHostByName::wait(int index, unsigned long long timeout_ms, ADDR_RECORD_ALL* out)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    SSlot& slot = m_slots[index];
    for (;;) {
        // A failed lookup ends the wait at once: there is no answer left to wait for.
        if (slot.done) {
            const bool ok = slot.succeeded;
            if (ok) *out = slot.results;
            release(slot);
            return ok;
        }
        const std::int64_t elapsed = Fundel::CTime::getCurrentMilliSecond() - slot.start_ms;
        if (timeout_ms != 0 && static_cast<unsigned long long>(elapsed) >= timeout_ms) {
            CVN_LOG(Fundel::LOG_WARN, "GetHostByName failed, request timeout!\n");
            release(slot);
            return false;
        }
        m_done.wait_for(lock, std::chrono::milliseconds(10));
    }
}

void CGetHostByName::convert(int index, unsigned int generation)
{
    std::string name;
    int family_code = 0;
    int socktype_code = 0;
    bool all = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const SSlot& slot = m_slots[index];
        if (slot.generation != generation) return;
        name = slot.name;
        family_code = slot.family;
        socktype_code = slot.socktype;
        all = slot.all;
    }
    const int socktype = socktype_hint(socktype_code);
    const int family = family_hint(family_code);

    Platform::SResolvedAddr found[ADDR_RECORD_MAX];
    int count = 0;
    int total = 0;
    const int rc = resolve(name.c_str(), family, socktype, found, ADDR_RECORD_MAX, &count, &total);
    ADDR_RECORD_ALL results{};
    bool ok = false;
    if (rc != 0) {
        Platform::set_last_error(rc);
        CVN_LOG(Fundel::LOG_WARN, "%s : getaddrinfo failed, errno:%d, %s!\n", "CGetHostByName::convert", rc,
                Platform::addr_resolve_error(rc));
    } else {
        ok = collect(found, count, total, family, all, &results);
    }
    finish(index, generation, results, ok);
}

void CGetHostByName::finish(int index, unsigned int generation, const ADDR_RECORD_ALL& results, bool ok)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    SSlot& slot = m_slots[index];
    // Another generation: the caller gave up or the request expired; drop the answer.
    if (slot.generation != generation || !slot.busy) return;
    if (!slot.async) {
        slot.results = results;
        slot.done = true;
        slot.succeeded = ok;
        m_done.notify_all();
        return;
    }
    // The answer beat the expiry, so the callback is ours.
    SCompletion completion{std::move(slot.callback), std::move(slot.callback_all), slot.all};
    ++slot.generation;
    lock.unlock();
    // Still busy, so nobody else touches the timer; an expiry that lost the race finds
    // the new generation and returns, and Stop waits for it to do so.
    slot.expiry_timer.Stop();
    lock.lock();
    slot.busy = false;
    lock.unlock();
    completion.deliver(results, ok);
}

void CGetHostByName::timeoutProc(int index, unsigned int generation)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    SSlot& slot = m_slots[index];
    if (slot.generation != generation || !slot.busy || !slot.async) return;
    CVN_LOG(Fundel::LOG_WARN, "GetHostByName failed, request timeout!\n");
    SCompletion completion{std::move(slot.callback), std::move(slot.callback_all), slot.all};
    // The lookup timer is left running: the system call cannot be cut short, and
    // stopping it would wait for the answer. That answer finds a new generation and is
    // dropped, and the slot is not handed out again before it has come.
    release(slot);
    lock.unlock();
    completion.deliver(ADDR_RECORD_ALL{}, false);
}

}  // namespace Qelvar::Corvane
