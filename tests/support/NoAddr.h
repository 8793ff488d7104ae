// An address of no family (type 0), which every socket call must refuse.
#pragma once

#include <Corvane/SockAddr.h>

namespace Qelvar::Test {

class CNoAddr : public Corvane::CSockAddr {
public:
    CNoAddr() : CSockAddr(Corvane::SOCKADDR_TYPE_NONE) {}
    sockaddr* GetAddr(sockaddr*) const override { return nullptr; }
    unsigned int GetAddrLen() const override { return 0; }
    bool IsValid() const override { return false; }
};

}  // namespace Qelvar::Test
