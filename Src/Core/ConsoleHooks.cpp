#include "Core/ConsoleHooks.h"

#include "Core/ObjectName.h"
#include "Fundel/Time.h"
#include "Platform/Thread.h"

namespace Qelvar::Corvane {

std::atomic<bool> CConsoleHooks::sm_tracing{false};
std::atomic<CConsoleHooks::Printer> CConsoleHooks::sm_printer{nullptr};
std::atomic<CConsoleHooks::Installer> CConsoleHooks::sm_installer{nullptr};

void CConsoleHooks::Install(Printer printer, Installer installer)
{
    sm_printer.store(printer, std::memory_order_release);
    sm_installer.store(installer, std::memory_order_release);
}

void CConsoleHooks::TraceDelivery(const CNetHandler* owner, bool begin, const std::uint32_t* type,
                                  std::int64_t attach)
{
    const Printer print = sm_printer.load(std::memory_order_acquire);
    if (!print) return;
    const int thread = static_cast<int>(Platform::thread_current_id());
    const unsigned long long now = static_cast<unsigned long long>(Fundel::CTime::getCurrentMicroSecond());
    const std::string name = object_class_name(owner);
    const void* object = owner;
    if (type) {
        print(begin ? "thread:%d, object:%p,class:%s, handle message begin at %llu us,msg:%d,attach:%lld\n"
                    : "thread:%d, object:%p,class:%s, handle message end at %llu us,msg:%d,attach:%lld\n",
              thread, object, name.c_str(), now, static_cast<int>(*type), static_cast<long long>(attach));
    } else {
        print(begin ? "thread:%d, object:%p,class:%s, handle message begin at %llu us\n"
                    : "thread:%d, object:%p,class:%s, handle message end at %llu us\n",
              thread, object, name.c_str(), now);
    }
}

}  // namespace Qelvar::Corvane
