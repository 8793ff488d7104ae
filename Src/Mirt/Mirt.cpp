#include "Mirt/Mirt.h"

namespace Qelvar::Mirt {

namespace {

// Above every system descriptor on both systems (Linux caps descriptors far lower;
// Windows socket handles are multiples of 4 below 2^24 in practice).
constexpr int kSockIdBase = 1 << 30;

// What every call on a transport descriptor reports while no transport is built in.
constexpr int kNoTransport = 5001;
thread_local int t_last_error = 0;

int fail()
{
    t_last_error = kNoTransport;
    return -1;
}

}  // namespace

int getsockidbase()
{
    return kSockIdBase;
}

int close(int)
{
    return fail();
}

int getsockname(int, sockaddr*, int*)
{
    return fail();
}

int getpeername(int, sockaddr*, int*)
{
    return fail();
}

int getlasterror()
{
    return t_last_error;
}

const char* getlasterror_desc()
{
    return t_last_error == kNoTransport ? "no reliable-UDP transport in this build" : "no error";
}

}  // namespace Qelvar::Mirt
