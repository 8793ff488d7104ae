// The default storage device over real files: reads, writes and seeks with the rules
// callers rely on (-1 for nothing read, no seek from the end), its status record, and a
// path cut to 255 characters.
#include <gtest/gtest.h>

#include <Corvane/DefaultStorDev.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "TestSupport.h"

using namespace Qelvar::Corvane;
using Qelvar::Test::LogCapture;

namespace {

class StorDevTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir.empty()); }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::filesystem::path dir = Qelvar::Test::MakeTempDir("corvane_stordev_");
};

}  // namespace

TEST_F(StorDevTest, ReadsWritesSeeksAndReportsTheFile)
{
    const std::string path = (dir / "ten.bin").string();
    auto* dev = new CDefaultStorDev();
    ASSERT_EQ(dev->Open(path.c_str(), "wb"), 0);
    EXPECT_EQ(dev->Write("0123456789", 10), 10);
    // Opening again closes (and so flushes) the first stream.
    ASSERT_EQ(dev->Open(path.c_str(), "rb"), 0);
    char buf[100];
    EXPECT_EQ(dev->Read(buf, sizeof buf), 10);
    EXPECT_EQ(std::string(buf, 10), "0123456789");
    EXPECT_EQ(dev->Read(buf, sizeof buf), -1);  // the end reads as nothing: -1

    EXPECT_EQ(dev->Seek(3, 0), 0);
    EXPECT_EQ(dev->Seek(0, 2), -1);  // from the end: refused, the position stays
    EXPECT_EQ(dev->Seek(2, 1), 0);
    EXPECT_EQ(dev->Read(buf, 3), 3);
    EXPECT_EQ(std::string(buf, 3), "567");

    NFile_Info info;
    ASSERT_EQ(dev->Stat(&info), 0);
    EXPECT_EQ(info.size, 10);
    EXPECT_EQ(info.reserved, 0);
    EXPECT_STREQ(info.path, path.c_str());
    EXPECT_GT(info.modification_time, 1600000000);
    EXPECT_TRUE(dev->NeedAIO());
    dev->Close();
}

TEST_F(StorDevTest, BadPathsAreLoggedAndRefused)
{
    LogCapture log;
    auto* dev = new CDefaultStorDev();
    EXPECT_EQ(dev->Open(nullptr, "rb"), -1);
    EXPECT_TRUE(log.Contains("CDefaultStorDev::Open : open file failed! path:(null), mode:rb"));
    const std::string missing = (dir / "no" / "such.bin").string();
    EXPECT_EQ(dev->Open(missing.c_str(), "rb"), -1);
    EXPECT_TRUE(log.Contains("open file failed! path:" + missing + ", mode:rb, error:"));
    NFile_Info info;
    EXPECT_EQ(dev->Stat(&info), -1);
    EXPECT_TRUE(log.Contains("get fstat failed, error:"));
    dev->Close();

    // A path of 300 characters is kept, opened and reported as its first 255.
    std::filesystem::path deep = dir / std::string(255 - dir.string().size() - 6, 'd');
    ASSERT_TRUE(std::filesystem::create_directories(deep));
    const std::string long_path = (deep / std::string(100, 'f')).string();
    ASSERT_EQ(long_path.size(), 255u + 100 - 4);
    dev = new CDefaultStorDev();
    ASSERT_EQ(dev->Open(long_path.c_str(), "wb"), 0);
    ASSERT_EQ(dev->Stat(&info), 0);
    EXPECT_EQ(std::strlen(info.path), 255u);
    EXPECT_EQ(std::string(info.path), long_path.substr(0, 255));
    dev->Close();
}
