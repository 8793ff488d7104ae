// The console against a real telnet client, driven by expect through a pseudo-terminal.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ConsoleSupport.h"

using namespace Qelvar::Test;

TEST_F(ConsoleTest, RealTelnetClientTypesCommands)
{
#ifdef _WIN32
    GTEST_SKIP() << "the telnet client and expect are tested on Linux only";
#else
    if (std::system("command -v telnet >/dev/null 2>&1 && command -v expect >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "telnet or expect is missing (Debian packages telnet and expect)";
    }
    ASSERT_EQ(R3Register(reinterpret_cast<void*>(&record_call), "bar", nullptr), 0);
    std::string script = __FILE__;
    script = script.substr(0, script.find_last_of('/') + 1) + "telnet_console.exp";
    const std::string command = "expect -f '" + script + "' " + std::to_string(m_port) + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char buf[4096];
    while (std::fgets(buf, sizeof buf, pipe)) output += buf;
    const int status = pclose(pipe);
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(g_calls.Calls(), (std::vector<std::array<int, 10>>{args(12, -3, kNotANumber), args(5)})) << output;
#endif
}
