// Name resolution with a time limit, which the system resolver does not offer: each
// lookup runs on a timer thread of its own while the caller waits, up to its limit.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include <Corvane/AddrRecord.h>

#include "Fundel/Timer.h"
#include "Platform/Socket.h"

struct sockaddr;

namespace Qelvar::Corvane {

/// Called once when an asynchronous lookup ends: `ok` true with the result, false when
/// the lookup failed or its time ran out first.
using AddrCallback = std::function<void(const ADDR_RECORD& result, bool ok)>;
using AddrAllCallback = std::function<void(const ADDR_RECORD_ALL& results, bool ok)>;

/// A lookup request.
struct ADDR_INFO {
    const char* name = nullptr;
    int family = 0;    ///< 0 (AF_UNSPEC), AF_INET or AF_INET6
    int socktype = 0;  ///< ADDR_SOCK_*; other values are taken as a stream
    AddrCallback callback;         ///< getAddrInfoAsync
    AddrAllCallback callback_all;  ///< getAddrInfoAllAsync
};

/// The process-wide resolver: at most ADDR_RECORD_MAX lookups at once, each on its own
/// timer thread. A caller that finds every slot taken fails at once rather than queue.
/// A lookup whose caller gave up finishes into its freed slot and is dropped; the slot
/// is handed out again only once that lookup has ended.
class CGetHostByName {
public:
    /// The system lookup: Platform::addr_resolve's signature.
    using Resolver = std::function<int(const char* name, int family, int socktype, Platform::SResolvedAddr* out,
                                       int max, int* count, int* found)>;

    /// The process-wide instance, made on first use and never destroyed (lookups may
    /// still be running when the process ends).
    static CGetHostByName& Instance();

    /// One address of `request->family` (the first of any family for 0) within
    /// `timeout_ms` (0: without limit); true with `*result` filled.
    bool getAddrInfo(const ADDR_INFO* request, ADDR_RECORD* result, unsigned long long timeout_ms);
    /// Up to ADDR_RECORD_MAX addresses, in the system's order; true with `*results` filled.
    bool getAddrInfoAll(const ADDR_INFO* request, ADDR_RECORD_ALL* results, unsigned long long timeout_ms);
    /// One address as a system socket address of its family (port 0) in `out`, which
    /// must hold `len` bytes, at least that family's structure.
    bool getAddr(const ADDR_INFO* request, sockaddr* out, int len, unsigned long long timeout_ms);

    /// Start a lookup and return at once; `request->callback` (`callback_all`) is called
    /// exactly once, from a resolver thread: when the lookup ends, or with ok false when
    /// `timeout_ms` (0: without limit) passes first. False, without a call, when the
    /// request is invalid or every slot is taken.
    bool getAddrInfoAsync(const ADDR_INFO* request, unsigned long long timeout_ms);
    bool getAddrInfoAllAsync(const ADDR_INFO* request, unsigned long long timeout_ms);

    /// The text of a 4-byte (AF_INET) or 16-byte (AF_INET6) address; false, logged, for
    /// another family or a short `text`.
    static bool addrTostr(int family, const void* address, char* text, std::size_t len);

    /// Slots a new request could take now. Joins the threads of lookups that have ended.
    int FreeSlotCount();

    /// Replaces the system lookup, for tests and fuzzing; an empty function restores it.
    static void SetResolverForTest(Resolver resolver);

private:
    struct SSlot {
        std::string name;
        int family = 0;
        int socktype = 0;
        std::int64_t start_ms = 0;
        unsigned long long timeout_ms = 0;
        bool busy = false;
        bool done = false;
        bool succeeded = false;
        bool async = false;
        bool all = false;
        // Counts claims and releases: a lookup or expiry that finds another number than
        // it started with belongs to a request that is over, and leaves the slot alone.
        unsigned int generation = 0;
        AddrCallback callback;
        AddrAllCallback callback_all;
        ADDR_RECORD_ALL results{};
        Fundel::CTimer lookup_timer;  // "GetHostByName": runs the lookup
        Fundel::CTimer expiry_timer;  // "GetHostByName_Proc": ends an asynchronous request
    };

    CGetHostByName() = default;

    static bool idle(const SSlot& slot);
    bool valid_request(const ADDR_INFO* request, bool has_target);
    int addRequest(const ADDR_INFO& request, bool all, bool async, unsigned long long timeout_ms);
    bool wait(int index, unsigned long long timeout_ms, ADDR_RECORD_ALL* out);
    void release(SSlot& slot);
    void convert(int index, unsigned int generation);
    void finish(int index, unsigned int generation, const ADDR_RECORD_ALL& results, bool ok);
    void timeoutProc(int index, unsigned int generation);

    std::mutex m_mutex;
    std::condition_variable m_done;
    SSlot m_slots[ADDR_RECORD_MAX];
};

}  // namespace Qelvar::Corvane
