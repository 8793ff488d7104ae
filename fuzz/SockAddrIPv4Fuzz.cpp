// CSockAddrIPv4 on arbitrary texts: SetIp, SetDomainName and what reads the result.
#include <Corvane/SockAddrIPv4.h>

#include "FuzzInput.h"

using namespace Qelvar;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Fuzz::SInput in = Fuzz::start(data, size);
    char buf[64];

    Corvane::CSockAddrIPv4 addr;
    if (addr.SetIp(in.text.c_str()) == 0) {
        addr.SetPort(in.port);
        const Corvane::CSockAddrIPv4 copy(addr);
        (void)(copy == addr);
        (void)addr.IsReserved();
        addr.GetIpStr(buf, in.length);
    }
    Corvane::CSockAddrIPv4 named;
    if (named.SetDomainName(in.text.c_str(), in.port, in.socktype, Fuzz::TIMEOUT_MS) == 0) {
        named.GetIpStr(buf, sizeof buf);
        sockaddr_in out;
        named.GetAddr(reinterpret_cast<sockaddr*>(&out));
    }
    return 0;
}
