// The console's switches and its command table.
#include <string>
#include <vector>

#include "ConsoleSupport.h"
#include "Core/ThreadPool.h"
#include "R3/R3FuncBox.h"

using namespace Qelvar;
using namespace Qelvar::Test;

namespace {

// The whole message of the first record containing `text`, and its level.
std::pair<std::string, int> logged(const LogCapture& log, const std::string& text)
{
    CapturedLog record{};
    if (!log.Find(text, &record)) return {"(not logged)", 0};
    return {record.message, record.level};
}

}  // namespace

TEST(R3Server, OffUntilSwitchedOnThenEnableHoldsTheLibrary)
{
    LogCapture log(6);
    Corvane::CNetThread::SetR3Enabled(false);
    EXPECT_EQ(R3ServerStart(random_base_port(), "off", false), -1);
    EXPECT_EQ(logged(log, "disable"), std::make_pair(std::string("R3 has been disable.\n"), 4));
    EXPECT_EQ(Corvane::CNetThread::EnableR3(random_base_port()), -1);
    EXPECT_EQ(logged(log, "R3ServerStart failed"), std::make_pair(std::string("R3ServerStart failed!!\n\n"), 2));
    EXPECT_FALSE(Corvane::CThreadPool::exists(0)) << "the failed EnableR3 kept its pool reference";
    EXPECT_EQ(Corvane::CNetThread::DisableR3(), -1);

    // On: EnableR3 starts the library by itself, and DisableR3 stops both.
    Corvane::CNetThread::SetR3Enabled(true);
    ASSERT_EQ(Corvane::CNetThread::EnableR3(random_base_port()), 0);
    EXPECT_TRUE(Corvane::CThreadPool::exists(0));
    const unsigned short port = R3ServerPort();
    ConsoleClient client;
    ASSERT_TRUE(client.Connect(port));
    ASSERT_TRUE(client.ReadUntil("R3>"));
    EXPECT_EQ(R3ServerStart(random_base_port(), "second", false), -1);
    EXPECT_EQ(R3ServerPort(), port);
    EXPECT_EQ(Corvane::CNetThread::DisableR3(), 0);
    EXPECT_TRUE(client.WaitClosed());
    EXPECT_EQ(R3ServerPort(), 0);
    EXPECT_FALSE(Corvane::CThreadPool::exists(0));
    EXPECT_EQ(Corvane::CNetThread::DisableR3(), -1);
    Corvane::CNetThread::SetR3Enabled(false);
}

TEST(R3Server, RegisterRefusesNullsDuplicatesAndAFullTable)
{
    LogCapture log(6);
    R3ServerExit();
    void* func = reinterpret_cast<void*>(&record_call);
    EXPECT_EQ(R3Register(nullptr, "x", nullptr), -1);
    EXPECT_EQ(R3Register(func, nullptr, nullptr), -1);
    ASSERT_EQ(R3Register(func, "MediaBufferPrt", "dumps a media buffer"), 0);
    EXPECT_EQ(R3Register(func, "MediaBufferPrt", "again"), -1);
    const auto duplicate = logged(log, "already exist");
    EXPECT_NE(duplicate.first.find(" TFuncBox::Register already exist!\n"), std::string::npos) << duplicate.first;
    EXPECT_EQ(duplicate.first.rfind("this:", 0), 0u) << duplicate.first;
    EXPECT_EQ(duplicate.second, 2);
    // Names compare exactly.
    EXPECT_EQ(R3Register(func, "mediabufferprt", nullptr), 0);

    std::vector<std::string> names;
    for (int i = 2; i < Corvane::CR3FuncBox::kMaxEntries; ++i) names.push_back("cmd" + std::to_string(i));
    for (const std::string& name : names) ASSERT_EQ(R3Register(func, name.c_str(), nullptr), 0) << name;
    EXPECT_EQ(R3Register(func, "one_too_many", nullptr), -1);
    const auto full = logged(log, "func box full");
    EXPECT_NE(full.first.find(" CR3Daemon::Register func box full!\n"), std::string::npos) << full.first;
    EXPECT_EQ(full.second, 2);

    int seen = 0;
    Corvane::CR3FuncBox::ForEach([&](const char* name, const char* help) {
        if (seen == 0) {
            EXPECT_STREQ(name, "MediaBufferPrt");
            EXPECT_STREQ(help, "dumps a media buffer");
        }
        ++seen;
    });
    EXPECT_EQ(seen, Corvane::CR3FuncBox::kMaxEntries);

    // R3ServerExit empties the table.
    R3ServerExit();
    EXPECT_EQ(Corvane::CR3FuncBox::Find("cmd2"), nullptr);
    EXPECT_EQ(R3Register(func, "MediaBufferPrt", nullptr), 0);
    EXPECT_EQ(Corvane::CR3FuncBox::Find("MediaBufferPrt"), &record_call);
    R3ServerExit();
}
