// CSockAddrIPv6 on arbitrary texts: SetIp (with the link-local scope look-up),
// SetDomainName, SetScopeName and what reads the result.
#include <Corvane/SockAddrIPv6.h>

#include "FuzzInput.h"

using namespace Qelvar;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Fuzz::SInput in = Fuzz::start(data, size);
    char buf[64];

    Corvane::CSockAddrIPv6 addr;
    if (addr.SetIp(in.text.c_str()) == 0) {
        addr.SetPort(in.port);
        const Corvane::CSockAddrIPv6 copy(addr);
        (void)(copy == addr);
        addr.GetIpStr(buf, in.length);
    }
    addr.SetScopeName(in.text.c_str());
    addr.getIFScopeID(in.text.c_str());
    Corvane::CSockAddrIPv6 named;
    if (named.SetDomainName(in.text.c_str(), in.port, in.socktype, Fuzz::TIMEOUT_MS) == 0) {
        named.GetIpStr(buf, sizeof buf);
        sockaddr_in6 out;
        named.GetAddr(reinterpret_cast<sockaddr*>(&out));
    }
    return 0;
}
