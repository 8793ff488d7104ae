// Threads on Windows: C runtime threads, with the kernel's thread id, name and scheduling calls.
#include "Platform/Thread.h"

#include <windows.h>

#include <process.h>

#include <climits>

namespace Qelvar::Platform {

namespace {

struct StartBlock {
    thread_entry entry;
    void* arg;
};

unsigned __stdcall trampoline(void* p)
{
    StartBlock block = *static_cast<StartBlock*>(p);
    delete static_cast<StartBlock*>(p);
    block.entry(block.arg);
    return 0;
}

using SetThreadDescriptionFn = HRESULT(WINAPI*)(HANDLE, PCWSTR);

/// SetThreadDescription came with Windows 10 1607 and is missing from older systems
/// and some Wine versions, so it is looked up instead of linked.
SetThreadDescriptionFn find_set_description()
{
    HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    if (kernel == nullptr) return nullptr;
    FARPROC proc = GetProcAddress(kernel, "SetThreadDescription");
    return reinterpret_cast<SetThreadDescriptionFn>(reinterpret_cast<void*>(proc));
}

}  // namespace

int thread_create(thread_handle* out, thread_entry entry, void* arg, std::size_t stack_size)
{
    if (stack_size > UINT_MAX) stack_size = UINT_MAX;
    auto* block = new StartBlock{entry, arg};
    // The runtime's _beginthreadex (not CreateThread) sets up its per-thread data.
    // The size is the reserve, as on Linux; without the flag Windows would commit it all.
    const std::uintptr_t handle = _beginthreadex(nullptr, static_cast<unsigned>(stack_size), &trampoline, block,
                                                 STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (handle == 0) {
        const DWORD err = GetLastError();
        delete block;
        return err != 0 ? static_cast<int>(err) : ERROR_NOT_ENOUGH_MEMORY;
    }
    *out = static_cast<thread_handle>(handle);
    return 0;
}

int thread_join(thread_handle handle)
{
    HANDLE thread = reinterpret_cast<HANDLE>(handle);
    // pthread_join answers EDEADLK here; waiting would never end.
    if (GetThreadId(thread) == GetCurrentThreadId()) return ERROR_POSSIBLE_DEADLOCK;
    if (WaitForSingleObject(thread, INFINITE) == WAIT_FAILED) return static_cast<int>(GetLastError());
    CloseHandle(thread);
    return 0;
}

std::uint64_t thread_current_id()
{
    return GetCurrentThreadId();
}

int thread_set_name(const char* name)
{
    static const SetThreadDescriptionFn set_description = find_set_description();
    if (set_description == nullptr) return 0;  // nowhere to put it: not an error
    wchar_t wide[256];
    if (MultiByteToWideChar(CP_UTF8, 0, name, -1, wide, static_cast<int>(sizeof wide / sizeof wide[0])) == 0) {
        // Too long or not UTF-8: keep what fits, byte by byte.
        int i = 0;
        for (; i < 255 && name[i] != '\0'; ++i) wide[i] = static_cast<unsigned char>(name[i]);
        wide[i] = L'\0';
    }
    const HRESULT hr = set_description(GetCurrentThread(), wide);
    return SUCCEEDED(hr) ? 0 : static_cast<int>(HRESULT_CODE(hr));
}

int thread_set_priority(int priority, int policy)
{
    // Time sharing mirrors the Linux nice values: 1 lowest, 127 highest, the rest normal.
    // Windows has no real-time policy for a thread alone; round-robin threads are put
    // above every time-sharing level: 127 time-critical, any other value highest.
    int level = THREAD_PRIORITY_NORMAL;
    if (policy == 1) {
        level = priority >= 127 ? THREAD_PRIORITY_TIME_CRITICAL : THREAD_PRIORITY_HIGHEST;
    } else if (priority <= 1) {
        level = THREAD_PRIORITY_LOWEST;
    } else if (priority >= 127) {
        level = THREAD_PRIORITY_HIGHEST;
    }
    return SetThreadPriority(GetCurrentThread(), level) ? 0 : static_cast<int>(GetLastError());
}

int thread_set_affinity(int cpu)
{
    DWORD_PTR mask = 0;
    if (cpu >= 0) {
        // One processor group of 64 processors, as the process mask is.
        mask = static_cast<DWORD_PTR>(1) << (cpu % 64);
    } else {
        DWORD_PTR system_mask = 0;
        if (!GetProcessAffinityMask(GetCurrentProcess(), &mask, &system_mask)) return static_cast<int>(GetLastError());
    }
    return SetThreadAffinityMask(GetCurrentThread(), mask) != 0 ? 0 : static_cast<int>(GetLastError());
}

int processor_count()
{
    DWORD_PTR process_mask = 0;
    DWORD_PTR system_mask = 0;
    if (GetProcessAffinityMask(GetCurrentProcess(), &process_mask, &system_mask)) {
        const int n = __builtin_popcountll(process_mask);
        if (n > 0) return n;
    }
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors > 0 ? static_cast<int>(info.dwNumberOfProcessors) : 1;
}

void sleep_ms(unsigned int ms)
{
    Sleep(ms);
}

}  // namespace Qelvar::Platform
