#include <Corvane/NetThread.h>

#include <Corvane/Config.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include <Corvane/R3.h>
#include <Corvane/TsMemory.h>

#include "Core/ConsoleHooks.h"
#include "Core/FileThreadPool.h"
#include "Core/MinHeap.h"
#include "Core/MirtDispatcher.h"
#include "Core/NetSock.h"
#include "Core/NetTimer.h"
#include "Core/PoolSettings.h"
#include "Core/ReclaimPool.h"
#include "Core/SockTimer.h"
#include "Core/SockTrace.h"
#include "Core/ThreadPool.h"
#include "Debug/ConsoleDebug.h"
#include "Fundel/LogDefs.h"
#include "Platform/Thread.h"
#include "Tool/StreamReceiverThread.h"

#if CORVANE_HAVE_TLS
#include <openssl/ssl.h>

#include "Socket/SslDgram.h"
#endif

namespace Qelvar::Corvane {

namespace {

// Everything below is guarded by g_mutex: creation and destruction of pools are serialised.
std::mutex g_mutex;
bool g_initialised = false;
int g_pub_pool_ref = 0;  // references of the public pool: one for the library, one per CreateThreadPool
int g_processors = 1;
SPoolSettings g_settings;
int g_streamrecv_thread_num = 0;
std::unique_ptr<CMinHeap> g_heap;
std::unique_ptr<CThreadPool> g_pool_objects[CThreadPool::kMaxPools];

void reset_priority_settings()
{
    g_settings.priority = 64;
    g_settings.policy = 0;
    g_settings.stack = 0;
}

// Creates, starts and publishes a pool; null (logged) on failure.
CThreadPool* create_pool(int index, unsigned int count)
{
    auto pool = std::make_unique<CThreadPool>(index, count, g_settings, g_processors);
    if (pool->Start() != 0) {
        if (index == 0) {
            CVN_LOG(Fundel::LOG_ERROR, "CNetThread::check_on_init, create thread %p failed!\n",
                    static_cast<void*>(pool.get()));
        } else {
            CVN_LOG(Fundel::LOG_ERROR, "create private thread %p failed!\n", static_cast<void*>(pool.get()));
        }
        return nullptr;  // destroying the pool stops what it started
    }
    CThreadPool::publish(pool.get());
    g_pool_objects[index] = std::move(pool);
    return g_pool_objects[index].get();
}

void destroy_pool(int index)
{
    CThreadPool::withdraw(index);
    if (g_pool_objects[index]) g_pool_objects[index]->Stop();
    g_pool_objects[index].reset();
}

// Services that arrive with the reliable-UDP transport, the stream receivers and TLS.
// They are started in this order after the socket library and before the pools...
int start_reliable_udp_dispatcher()
{
    return CNetThread::InitMirtEnvironment();
}

void stop_reliable_udp_dispatcher()
{
    CNetThread::CleanupMirtEnvironment();
}

// ...and these after the public pool.
void start_stream_receivers(int count)
{
    CStreamReceiverThread::StartGroups(count);
}

void stop_stream_receivers()
{
    CStreamReceiverThread::StopGroups();
}

// TLS: OpenSSL's algorithms and error texts, then the process's ticket keys. OpenSSL
// cleans itself up at exit; the keys live as long as the process.
void init_tls_library()
{
#if CORVANE_HAVE_TLS
    static std::once_flag started;
    std::call_once(started, [] {
        OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS |
                             OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS,
                         nullptr);
    });
    CSslDgram::Init();
#endif
}

void cleanup_tls_library()
{
}

// Whether the transport was started (and must be cleaned up once).
std::atomic<bool> g_mirt_started{false};

// Set by SSLThreadSetup; plain, as the calls belong to one thread before the others start.
bool g_ssl_thread_setup = false;

int start_file_threads()
{
    CFileThreadPool& files = CFileThreadPool::Instance();
    if (files.IsRunning()) return 0;
    return files.Start(2 * static_cast<unsigned int>(g_processors));
}

// Priorities 1, 64 and 127 with policy 0 or 1; anything else is logged against `function`.
bool valid_priority(int priority, int policy, const char* function)
{
    if (priority != 1 && priority != 127 && priority != 64) {
        CVN_LOG(Fundel::LOG_WARN, "%s : Thread priority set error!\n", function);
        return false;
    }
    if (policy != 0 && policy != 1) {
        CVN_LOG(Fundel::LOG_WARN, "%s : Thread policy set error!\n", function);
        return false;
    }
    return true;
}

// Stores a time-out setting of the next pools; negative values are refused.
int set_timeout(int SPoolSettings::*setting, int ms, const char* function)
{
    if (ms < 0) {
        CVN_LOG(Fundel::LOG_WARN, "%s : timeout is set error please check, timeout:%d !\n", function, ms);
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    g_settings.*setting = ms;
    return 0;
}

// Stops every service in the reverse order of check_on_init.
void teardown()
{
    CFileThreadPool::Instance().Stop();
    cleanup_tls_library();
    stop_stream_receivers();
    for (int index = CThreadPool::kMaxPools - 1; index >= 0; --index) destroy_pool(index);
    CSockTimer::Instance().Shutdown();
    CNetTimer::Instance().Shutdown();
    g_heap.reset();
    stop_reliable_udp_dispatcher();
    CNetSock::CleanupEnvironment();
    CTsMemory::DestroyMemPool();
    CReclaimPool::sm_reclaim_pool.ReleaseFree();
    g_initialised = false;
    g_pub_pool_ref = 0;
}

// First initialisation of the library; g_mutex is held.
int check_on_init(unsigned int count, bool file_threads)
{
    CTsMemory::InitStaticVal();
    g_processors = Platform::processor_count();
    // The diagnostics above the core: the telnet console's printer for the delivery
    // trace, and the debug console's commands that the pool daemons install.
    CConsoleHooks::Install(&R3Printf, &CConsoleDebug::Install);

    if (CNetSock::InitEnvironment() != 0) {
        CVN_LOG(Fundel::LOG_ERROR, "CNetThread::check_on_init, CNetSock init environment failed!\n");
        return -1;
    }
    if (start_reliable_udp_dispatcher() != 0) {
        CNetSock::CleanupEnvironment();
        return -1;
    }
    g_heap = std::make_unique<CMinHeap>();
    if (CNetTimer::Instance().Init(g_heap.get()) != 0) {
        CVN_LOG(Fundel::LOG_ERROR, "CNetThread::check_on_init, CNetTimer init failed!\n");
        g_heap.reset();
        stop_reliable_udp_dispatcher();
        CNetSock::CleanupEnvironment();
        return -1;
    }
    if (CSockTimer::Instance().Init() != 0) {
        CNetTimer::Instance().Shutdown();
        g_heap.reset();
        stop_reliable_udp_dispatcher();
        CNetSock::CleanupEnvironment();
        return -1;
    }
    if (!create_pool(0, count)) {
        teardown();
        return -1;
    }
    g_initialised = true;
    g_pub_pool_ref += 1;

    const int receivers = g_streamrecv_thread_num >= 1 && g_streamrecv_thread_num <= 256
                              ? g_streamrecv_thread_num
                              : (g_processors > 0 ? g_processors : 1);
    CVN_LOG(Fundel::LOG_INFO, "stream_recv_thread number is set to [%d]\n", receivers);
    start_stream_receivers(receivers);
    init_tls_library();

    if (file_threads && start_file_threads() != 0) {
        teardown();
        return -1;
    }
    return 0;
}

}  // namespace

int CNetThread::CreateThreadPool(unsigned int count, bool file_threads)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_initialised) {
        if (check_on_init(count, file_threads) != 0) return -1;
    } else if (file_threads && start_file_threads() != 0) {
        return -1;
    }
    g_pub_pool_ref += 1;
    reset_priority_settings();
    CVN_LOG(Fundel::LOG_INFO, "Create Corvane thread pool success!\n");
    return 0;
}

int CNetThread::DestroyThreadPool()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_initialised) {
        CVN_LOG(Fundel::LOG_WARN, "The private pool %d not exist! Can't close it!\n", 0);
        return -1;
    }
    g_pub_pool_ref -= 1;
    const int ref = g_pub_pool_ref;
    if (ref >= 2) return 0;
    teardown();
    CVN_LOG(Fundel::LOG_INFO, "Destroy Corvane thread pool! ret:%d, ref:%d\n", 0, ref);
    return 0;
}

int CNetThread::CreatePrivatePool(unsigned int count, bool file_threads)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_initialised) {
        if (check_on_init(count, file_threads) != 0) return -1;
    } else if (file_threads && start_file_threads() != 0) {
        return -1;
    }
    int index = 1;
    while (index < CThreadPool::kMaxPools && g_pool_objects[index]) ++index;
    if (index == CThreadPool::kMaxPools) {
        CVN_LOG(Fundel::LOG_WARN, "No more private pool can be created!\n");
        return -1;
    }
    if (!create_pool(index, count)) return -1;
    reset_priority_settings();
    CVN_LOG(Fundel::LOG_INFO, "Create Corvane privatepool success!\n");
    return index;
}

int CNetThread::DestroyPrivatePool(int index)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (index < 1 || index >= CThreadPool::kMaxPools || !g_pool_objects[index]) {
        CVN_LOG(Fundel::LOG_WARN, "The private pool %d not exist! Can't close it!\n", index);
        return -1;
    }
    destroy_pool(index);
    CVN_LOG(Fundel::LOG_INFO, "Destroy Corvane privatepool! ret:%d\n", 0);
    return 0;
}

int CNetThread::SetThreadPriority(int priority, int policy, int stack)
{
    if (!valid_priority(priority, policy, "CNetThread::SetThreadPriority")) return -1;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_settings.priority = priority;
    g_settings.policy = policy;
    g_settings.stack = stack < 0 ? 0 : stack;
    return 0;
}

int CNetThread::SetMultiplexerTimeOut(int ms)
{
    return set_timeout(&SPoolSettings::mux_timeout_ms, ms, "CNetThread::SetMultiplexerTimeOut");
}

int CNetThread::SetRecvThreadNum(int num)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (num < 1 || num > 256) {
        CVN_LOG(Fundel::LOG_WARN, "%s :Set stream_receiver_thread number error, sm_streamrecv_thread_num:[%d] num:[%d]!\n",
                "CNetThread::SetRecvThreadNum", g_streamrecv_thread_num, num);
        return -1;
    }
    g_streamrecv_thread_num = num;
    CVN_LOG(Fundel::LOG_INFO, "%s :Set stream_receiver_thread number success, sm_streamrecv_thread_num:[%d]\n",
            "CNetThread::SetRecvThreadNum", g_streamrecv_thread_num);
    return 0;
}

int CNetThread::SetRecvThreadPriority(int priority, int policy, int stack)
{
    if (!valid_priority(priority, policy, "CNetThread::SetRecvThreadPriority")) return -1;
    CStreamReceiverThread::SetPriority(priority, policy, stack < 0 ? 0 : stack);
    return 0;
}

int CNetThread::SetRcvPriority(int priority)
{
    if (!valid_priority(priority, 0, "CNetThread::SetRcvPriority")) return -1;
    CStreamReceiverThread::SetRcvPriority(priority);
    return 0;
}

int CNetThread::SetRecvTickPeriod(int ms)
{
    if (ms < 1) {
        CVN_LOG(Fundel::LOG_WARN, "%s : tick period set error, period:%d ms!\n", "CNetThread::SetRecvTickPeriod", ms);
        return -1;
    }
    CStreamReceiverThread::SetTickPeriod(static_cast<std::int64_t>(ms) * 1000);
    return 0;
}

void CNetThread::SetRecvTrace(int on)
{
    CStreamReceiverThread::SetTrace(on);
}

int CNetThread::InitMirtEnvironment()
{
    // A build without the transport has no dispatcher to start; the library runs on.
    if (g_mirt_started.exchange(true)) return 0;
    if (Mirt::startup() != 0) {
        g_mirt_started = false;
        return 0;
    }
    if (CMirtIoCollecter::Instance().Init() != 0) {
        CVN_LOG(Fundel::LOG_WARN, "%s : the reliable-UDP dispatcher did not start, its sockets cannot be registered\n",
                "CNetThread::InitMirtEnvironment");
    }
    return 0;
}

void CNetThread::CleanupMirtEnvironment()
{
    if (!g_mirt_started.exchange(false)) return;
    CMirtIoCollecter::Instance().Shutdown();
    Mirt::cleanup();
}

int CNetThread::SetThreadTimeOut(int ms)
{
    return set_timeout(&SPoolSettings::thread_timeout_ms, ms, "CNetThread::SetThreadTimeOut");
}

void CNetThread::TraversalSock()
{
    CThreadPool::traversal_all();
}

void CNetThread::DumpSockEvent(int fd)
{
    CThreadPool::dump_sock_event_all(fd);
}

void CNetThread::SetSockTrace(bool on, int level)
{
    CSockTrace::SetLevel(level);
    CSockTrace::SetEnabled(on);
}

void CNetThread::AddSockTrace(int fd)
{
    CSockTrace::Add(fd);
}

void CNetThread::RemoveSockTrace(int fd)
{
    CSockTrace::Remove(fd);
}

void CNetThread::SSLThreadSetup()
{
    if (g_ssl_thread_setup) {
        CVN_LOG(Fundel::LOG_WARN, "%s : SSLThreadSetup have been set!\n", "CNetThread::SSLThreadSetup");
        return;
    }
    g_ssl_thread_setup = true;
}

void CNetThread::SSLThreadCleanup()
{
    if (!g_ssl_thread_setup) {
        CVN_LOG(Fundel::LOG_WARN, "%s : SSLThreadSetup have not set !\n", "CNetThread::SSLThreadCleanup");
        return;
    }
    g_ssl_thread_setup = false;
}

}  // namespace Qelvar::Corvane

int CreateThreadPool(unsigned int count, bool file_threads)
{
    return Qelvar::Corvane::CNetThread::CreateThreadPool(count, file_threads);
}

int DestroyThreadPool(void)
{
    return Qelvar::Corvane::CNetThread::DestroyThreadPool();
}
