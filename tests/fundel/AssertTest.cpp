#include <gtest/gtest.h>

#include "Fundel/LogDefs.h"
#include "TestSupport.h"

namespace Qelvar::Corvane {

struct CAssertProbe {
    static int Check(int v)
    {
        FUNDEL_ASSERT(v > 0);
        FUNDEL_ASSERT_TEXT(v != 2, "__m_magic == 0x0202");
        return v;
    }
};

}  // namespace Qelvar::Corvane

TEST(Assert, InstalledHandlerSeesTextLocationAndFunctionAndMayContinue)
{
    std::string expr, file, function;
    int line = 0, calls = 0;
    Qelvar::Fundel::SetAssertHandler([&](const char* e, const char* f, int l, const char* fn) {
        expr = e;
        file = f;
        line = l;
        function = fn;
        ++calls;
    });
    EXPECT_EQ(Qelvar::Corvane::CAssertProbe::Check(1), 1);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(Qelvar::Corvane::CAssertProbe::Check(-1), -1);  // the handler returned: go on
    EXPECT_EQ(expr, "v > 0");
    EXPECT_EQ(file, ".\\tests\\fundel\\AssertTest");
    EXPECT_GT(line, 0);
    EXPECT_EQ(function, "CAssertProbe::Check");
    Qelvar::Corvane::CAssertProbe::Check(2);
    EXPECT_EQ(expr, "__m_magic == 0x0202");
    Qelvar::Fundel::SetAssertHandler({});
}

TEST(AssertDeathTest, DefaultHandlerLogsAndAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Qelvar::Corvane::CAssertProbe::Check(0), "Assertion failed: v > 0");
}
