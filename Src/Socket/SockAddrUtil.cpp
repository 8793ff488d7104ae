#include "Socket/SockAddrUtil.h"

#include <Corvane/NetCheckManager.h>
#include <Corvane/SockAddr.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Platform/SockTypes.h"

namespace Qelvar::Corvane {

namespace {

bool first_of_family(const ADDR_RECORD_ALL& list, int family, ADDR_RECORD& out)
{
    for (int i = 0; i < list.count && i < ADDR_RECORD_MAX; ++i) {
        if (list.records[i].family == family) {
            out = list.records[i];
            return true;
        }
    }
    return false;
}

bool choose_by_priority(const char* caller, const ADDR_RECORD_ALL& list, int priority, ADDR_RECORD& out)
{
    if (priority != CVN_DEFAULT_PRIORITY && priority != CVN_IPV4_PRIORITY && priority != CVN_IPV6_PRIORITY) {
        CVN_LOG(Fundel::LOG_WARN, "%s : SetDomainName failed! Invalid setPriority :%d\n", caller, priority);
        return false;
    }
    if (list.count < 1) {
        CVN_LOG(Fundel::LOG_WARN, "%s : FilterIP failed! Invalid parameter, numRecords:%d\n", caller,
                static_cast<int>(list.count));
        return false;
    }
    if (priority == CVN_DEFAULT_PRIORITY) {
        CVN_LOG(Fundel::LOG_WARN, "%s : FilterIP failed! Will set an IP by default\n", caller);
        out = list.records[0];
        return true;
    }
    if (priority == CVN_IPV4_PRIORITY) {
        CVN_LOG(Fundel::LOG_WARN, "%s : FilterIP failed! Will set an IP by CVN_IPV4_PRIORITY\n", caller);
        if (first_of_family(list, AF_INET, out)) return true;
        CVN_LOG(Fundel::LOG_WARN, "%s : Failed to set IPv4 address, IPv6 address will be set\n", caller);
        return first_of_family(list, AF_INET6, out);
    }
    CVN_LOG(Fundel::LOG_WARN, "%s : FilterIP failed! Will set an IP by CVN_IPV6_PRIORITY\n", caller);
    if (first_of_family(list, AF_INET6, out)) return true;
    CVN_LOG(Fundel::LOG_WARN, "%s : Failed to set IPv6 address, IPv4 address will be set\n", caller);
    return first_of_family(list, AF_INET, out);
}

}  // namespace

char* format_address(const void* self, int family, const void* addr, char* buf, unsigned int len)
{
    if (!buf || len < 7) return nullptr;
    if (!Platform::addr_to_text(family, addr, buf, len)) {
        const int err = Platform::last_error();
        char text[256];
        CVN_LOG(Fundel::LOG_WARN, "this:%p inet_ntop_b error:%d, %s\n", self, err,
                Platform::error_text(err, text, sizeof text));
        return nullptr;
    }
    return buf;
}

bool domain_socktype_ok(const char* caller, int socktype)
{
    if (socktype >= -1 && socktype <= ADDR_SOCK_RAW) return true;
    CVN_LOG(Fundel::LOG_WARN, "%s : SetDomainName failed! Invalid socktype :%d\n", caller, socktype);
    return false;
}

const char* domain_target(const char* caller, const char* name, int family, unsigned short port, int socktype,
                          unsigned long long timeout_ms, int priority, ADDR_RECORD& chosen)
{
    unsigned char bytes[16];
    if (Platform::addr_from_text(AF_INET6, name, bytes) == 1 || Platform::addr_from_text(AF_INET, name, bytes) == 1) {
        return name;
    }
    ADDR_INFO request;
    request.name = name;
    request.family = family;
    // The resolver takes the code as it is: -1, outside its table, resolves for
    // streams with its "not specified" warning.
    request.socktype = socktype;
    ADDR_RECORD_ALL list;
    if (!CGetHostByName::Instance().getAddrInfoAll(&request, &list, timeout_ms)) return nullptr;
    if (CNetCheckManager::Instance().FilterIP(list, chosen, port, socktype, timeout_ms)) return chosen.addr;
    return choose_by_priority(caller, list, priority, chosen) ? chosen.addr : nullptr;
}

void put_peer_address(const void* self, const USockAddr& peer, CSockAddr* remote)
{
    switch (remote->GetType()) {
    case SOCKADDR_TYPE_IPV4:
        if (peer.base.sa_family == AF_INET) {
            static_cast<CSockAddrIPv4*>(remote)->SetAddr(peer.v4);
        } else {
            CVN_LOG(Fundel::LOG_WARN, "this:%p a ipv6 address can't be put into CSockAddrIPv4!\n", self);
        }
        break;
    case SOCKADDR_TYPE_IPV6:
        static_cast<CSockAddrIPv6*>(remote)->SetAddr(&peer.v6);
        break;
    default:
        static_cast<CSockAddrStorage*>(remote)->SetAddr(&peer.v4);
        break;
    }
}

}  // namespace Qelvar::Corvane
