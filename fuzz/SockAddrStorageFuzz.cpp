// CSockAddrStorage on arbitrary texts and structures: SetIp, SetDomainName with every
// priority, SetAddr from raw bytes, and what reads the result.
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>

#include "FuzzInput.h"

using namespace Qelvar;

namespace {

void read_back(const Corvane::CSockAddrStorage& addr, unsigned int length)
{
    char text[128];
    addr.GetIpStr(text, length);
    addr.GetIpStr(text, sizeof text);
    sockaddr_in6 out;
    if (addr.GetAddrLen() <= sizeof out) addr.GetAddr(reinterpret_cast<sockaddr*>(&out));
    const Corvane::CSockAddrStorage copy(addr);
    (void)(copy == addr);
    Corvane::CSockAddrIPv4 v4;
    Corvane::CSockAddrIPv6 v6;
    addr.GetRealSockAddr(&v4);
    addr.GetRealSockAddr(&v6);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Fuzz::SInput in = Fuzz::start(data, size);

    Corvane::CSockAddrStorage addr;
    if (addr.SetIp(in.text.c_str()) == 0) {
        addr.SetPort(in.port);
        read_back(addr, in.length);
    }
    Corvane::CSockAddrStorage named;
    if (named.SetDomainName(in.text.c_str(), in.port, in.socktype, Fuzz::TIMEOUT_MS, in.priority) == 0) {
        read_back(named, in.length);
    }

    // The same bytes as a system structure of either family.
    sockaddr_in6 raw{};
    if (!in.raw.empty()) std::memcpy(&raw, in.raw.data(), in.raw.size() < sizeof raw ? in.raw.size() : sizeof raw);
    raw.sin6_family = (in.port & 1) ? AF_INET6 : AF_INET;
    Corvane::CSockAddrStorage from_raw;
    if (from_raw.SetAddr(reinterpret_cast<const sockaddr_in*>(&raw)) == 0) read_back(from_raw, in.length);
    return 0;
}
