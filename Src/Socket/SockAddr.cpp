#include <Corvane/SockAddr.h>

#include <Corvane/SockAddrIPv4.h>

namespace Qelvar::Corvane {

namespace {

// Ports that other services of the devices we run beside already hold.
constexpr unsigned short kReservedPorts[] = {1900, 3800, 5000, 5050, 9999, 37776, 37777, 37778, 39999};

}  // namespace

CSockAddr::~CSockAddr() = default;

bool CSockAddr::IsReserved() const
{
    // By design the test is on the port alone, and for IPv4 only.
    if (m_type != SOCKADDR_TYPE_IPV4) return false;
    const unsigned short port = static_cast<const CSockAddrIPv4*>(this)->GetPort();
    if (port <= 1024) return true;
    if (port >= 37780 && port <= 37880) return true;
    if (port >= 8090 && port <= 8121) return true;
    for (unsigned short reserved : kReservedPorts) {
        if (port == reserved) return true;
    }
    return false;
}

}  // namespace Qelvar::Corvane
