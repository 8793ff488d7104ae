#include <gtest/gtest.h>

#include "Fundel/LogDefs.h"
#include "TestSupport.h"

namespace Qelvar::Corvane {

// A class in the library's namespace, so the function name is reported as the library's own.
struct CLogProbe {
    static void Write(int level) { CVN_LOG(level, "probe %d says %s\n", level, "hello"); }
    int operator()() const
    {
        CVN_LOG(Fundel::LOG_ERROR, "call operator\n");
        return 0;
    }
};

}  // namespace Qelvar::Corvane

using Qelvar::Test::CapturedLog;
using Qelvar::Test::LogCapture;

TEST(Log, RecordCarriesModulePathFunctionAndFormattedText)
{
    LogCapture log(6);
    Qelvar::Corvane::CLogProbe::Write(2);
    CapturedLog r{};
    ASSERT_TRUE(log.Find("probe 2 says hello", &r));
    EXPECT_EQ(r.level, 2);
    EXPECT_EQ(r.module, "Corvane");
    EXPECT_EQ(r.path, ".\\tests\\fundel\\LogTest");
    EXPECT_EQ(r.function, "CLogProbe::Write");
    EXPECT_EQ(r.message, "probe 2 says hello\n");

    Qelvar::Corvane::CLogProbe()();
    ASSERT_TRUE(log.Find("call operator", &r));
    EXPECT_EQ(r.function, "CLogProbe::operator()");
}

TEST(Log, LevelFiltersAndDefaultIsWarn)
{
    // A fresh process logs at Warn: a quiet program prints nothing below it.
    EXPECT_EQ(Qelvar::Fundel::GetLogLevel(), 3);
    LogCapture log(3);
    Qelvar::Corvane::CLogProbe::Write(4);
    Qelvar::Corvane::CLogProbe::Write(3);
    EXPECT_EQ(log.Count("probe 4"), 0);
    EXPECT_EQ(log.Count("probe 3"), 1);
}

TEST(Log, LongMessagesAreNotTruncated)
{
    LogCapture log(6);
    const std::string big(5000, 'x');
    Qelvar::Fundel::logFilter(2, "Corvane", "p", "f", 1, "%s|end", big.c_str());
    auto records = log.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message.size(), big.size() + 4);
    EXPECT_EQ(records[0].message.substr(big.size()), "|end");
}
