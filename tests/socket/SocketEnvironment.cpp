// Starts the system's socket library once for the whole suite (Windows needs it before
// any socket call; on Linux it does nothing).
#include <gtest/gtest.h>

#include "Platform/Socket.h"

namespace {

class SocketEnvironment : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(Qelvar::Platform::sock_startup(), 0); }
    void TearDown() override { Qelvar::Platform::sock_cleanup(); }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new SocketEnvironment);

}  // namespace
