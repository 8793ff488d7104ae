// The asynchronous file over real files: refusals, a buffered round trip driven by its
// messages, flow control, failing devices without lost blocks, a full file system, and
// the unbuffered path.
#include <gtest/gtest.h>

#include <Corvane/DefaultStorDev.h>
#include <Corvane/NFile.h>

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>

#ifndef _WIN32
#include <unistd.h>
#endif

#include "Core/FileThreadPool.h"
#include "Core/ReclaimPool.h"
#include "SenderSupport.h"
#include "TestSupport.h"
#include "Tool/NBufPool.h"
#include "Tool/NFileData.h"

using namespace std::chrono_literals;
using namespace Qelvar::Corvane;
using namespace Qelvar::Test;

namespace {

// A file device whose writes wait for a gate, or fail once `fail_after` bytes went out.
class TestDev : public CDefaultStorDev {
public:
    int Write(const char* buf, unsigned int len) override
    {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return open; });
        if (written >= fail_after) return -1;
        written += len;
        lock.unlock();
        return CDefaultStorDev::Write(buf, len);
    }
    void OpenGate()
    {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        cv.notify_all();
    }

    std::mutex mutex;
    std::condition_variable cv;
    bool open = true;
    std::size_t written = 0;
    std::size_t fail_after = SIZE_MAX;
};

class NFileTest : public ::testing::Test {
protected:
    explicit NFileTest(bool file_threads = true) : pool(2, file_threads) {}
    void SetUp() override
    {
        ASSERT_TRUE(pool.ok());
        ASSERT_FALSE(dir.empty());
    }
    void TearDown() override
    {
        // The device closes on a file thread after Close returned: the mount stays busy
        // until then.
        for (int i = 0; !mounted.empty() && i < 200; ++i) {
            if (std::system(("umount " + mounted + " 2>/dev/null").c_str()) == 0) break;
            std::this_thread::sleep_for(10ms);
        }
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
    std::string Path(const char* name) { return (dir / name).string(); }
    static std::string Contents(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    // Writes everything, waiting for 6 after each short write; false at 8 or time-out.
    bool WriteAll(CNFile* file, const std::string& data, std::mt19937& rng)
    {
        for (std::size_t at = 0; at < data.size();) {
            const unsigned int want = std::min<unsigned int>(1 + rng() % 300000, static_cast<unsigned int>(data.size() - at));
            const int six = owner.Count(6);
            const int n = file->Write(data.data() + at, want);
            at += static_cast<std::size_t>(n);
            if (owner.Count(8) != 0) return false;
            if (static_cast<unsigned int>(n) < want && !owner.WaitCount(6, six + 1)) return false;
        }
        return true;
    }

    PoolScope pool;
    Inbox owner;  // the file's messages, by code
    std::filesystem::path dir = MakeTempDir("corvane_nfile_");
    std::string mounted;
};

// Without file threads: no buffers, the calls go to the device at once.
class NFileUnbufferedTest : public NFileTest {
protected:
    NFileUnbufferedTest() : NFileTest(false) {}
};

}  // namespace

TEST_F(NFileTest, BadInputIsRefused)
{
    LogCapture log;
    EXPECT_EQ(CNFile::Open(1, Path("a").c_str(), "wb"), nullptr);
    CapturedLog line;
    ASSERT_TRUE(log.Find("CNFile::Open : Invalid receiver id: recvr_id:1", &line));
    EXPECT_EQ(line.level, 2);
    EXPECT_EQ(CNFile::Open(owner.Id(), Path("no/such").c_str(), "rb"), nullptr);
    EXPECT_EQ(CNFile::Open(owner.Id(), nullptr, "rb"), nullptr);
    EXPECT_EQ(CNFile::Open(owner.Id(), (dir / std::string(300, 'x')).string().c_str(), "wb"), nullptr);
    EXPECT_TRUE(log.Contains("path too long"));

    CNFile* file = CNFile::Open(owner.Id(), Path("a").c_str(), "w+b");
    ASSERT_NE(file, nullptr);
    bool eof = true;
    EXPECT_EQ(file->Read(nullptr, 10, eof), 0);
    EXPECT_EQ(file->Write("x", 0), 0);
    EXPECT_TRUE(eventually([&] { return owner.Count(8) == 2; }));
    EXPECT_EQ(file->Seek(0, 2), -1);
    EXPECT_TRUE(log.Contains("seek refused"));
    NFile_Info info;
    ASSERT_EQ(file->Stat(&info), 0);
    EXPECT_EQ(std::string(info.path), Path("a"));

    // Any size asked gives 131072-byte buffers.
    ASSERT_EQ(file->SetBufferSize(4096, 2), 0);
    SNFileData* data = SNFileData::of(file);
    ASSERT_EQ(data->m_bufs.size(), 2u);
    for (CNFileBuf* buf : data->m_bufs) EXPECT_EQ(buf->m_size, 131072u);
    file->Close();
}

TEST_F(NFileTest, BufferedRoundTripIsByteExactAndEndsWithEof)
{
    const std::string data = Pattern(3 * 1024 * 1024 + 12345, 7);
    std::mt19937 rng(11);
    CNFile* file = CNFile::Open(owner.Id(), Path("big").c_str(), "wb");
    ASSERT_NE(file, nullptr);
    ASSERT_TRUE(WriteAll(file, data, rng));
    file->Close();  // at once: every queued write still reaches the file
    ASSERT_TRUE(eventually([&] { return Contents(Path("big")).size() == data.size(); }));
    EXPECT_EQ(Contents(Path("big")), data);

    file = CNFile::Open(owner.Id(), Path("big").c_str(), "rb");
    ASSERT_NE(file, nullptr);
    std::string got;
    std::string chunk(300000, '\0');
    bool eof = false;
    for (int rounds = 0; !eof && rounds < 10000; ++rounds) {
        const int seven = owner.Count(7);
        const int n = file->Read(chunk.data(), 1 + rng() % 300000, eof);
        if (rounds == 0) {
            EXPECT_EQ(n, 0) << "the first read waits for 7";
        }
        got.append(chunk.data(), static_cast<std::size_t>(n));
        if (n == 0 && !eof) {
            ASSERT_TRUE(owner.WaitCount(7, seven + 1)) << "at " << got.size();
        }
    }
    EXPECT_TRUE(eof);
    EXPECT_TRUE(got == data) << got.size() << " of " << data.size();
    EXPECT_EQ(owner.Count(8), 0);
    file->Close();
}

TEST_F(NFileTest, FlowControlAndFailingDevicesLoseNoBlock)
{
    // Writes held at the device: the four buffers fill, then the writer waits for 6.
    auto* gated = new TestDev;
    gated->open = false;
    CNFile* file = CNFile::Open(owner.Id(), Path("gated").c_str(), "wb", gated);
    ASSERT_NE(file, nullptr);
    const std::string data = Pattern(5 * 131072, 3);
    EXPECT_EQ(file->Write(data.data(), static_cast<unsigned int>(data.size())), 4 * 131072);
    EXPECT_EQ(file->Write(data.data(), 100), 0);
    EXPECT_EQ(owner.Count(6), 0);
    gated->OpenGate();
    ASSERT_TRUE(owner.WaitCount(6, 1));
    EXPECT_EQ(file->Write(data.data() + 4 * 131072, 131072), 131072);
    file->Close();
    ASSERT_TRUE(eventually([&] { return Contents(Path("gated")) == data; }));

    // A device failing halfway: 8, and every block is in the pool or in the file.
    CNBufPool& blocks = CNBufPool::Instance();
    auto* failing = new TestDev;
    failing->fail_after = 3 * 131072;
    file = CNFile::Open(owner.Id(), Path("failing").c_str(), "wb", failing);
    ASSERT_NE(file, nullptr);
    std::mt19937 rng(5);
    WriteAll(file, Pattern(2 * 1024 * 1024, 4), rng);  // stops at 8, or brings it later
    EXPECT_TRUE(owner.WaitCount(8, 1));
    EXPECT_TRUE(eventually([&] {
        const int held = SNFileData::of(file)->blocks_held();
        return held >= 0 && blocks.Size() + static_cast<unsigned int>(held) == blocks.Created();
    }));
    file->Close();
    EXPECT_TRUE(eventually([&] { return blocks.Size() == blocks.Created(); }));
}

TEST_F(NFileTest, AFullFileSystemGivesAnError)
{
#ifdef _WIN32
    GTEST_SKIP() << "tmpfs mounts exist on Linux only";
#else
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
    const std::string target = dir.string();
    if (std::system(("mount -t tmpfs -o size=256k tmpfs " + target + " 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "mount -t tmpfs failed";
    }
    mounted = target;
    CNFile* file = CNFile::Open(owner.Id(), Path("full").c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::mt19937 rng(9);
    WriteAll(file, Pattern(2 * 1024 * 1024, 8), rng);
    EXPECT_TRUE(owner.WaitCount(8, 1));
    file->Close();
    EXPECT_TRUE(eventually([&] { return CNBufPool::Instance().Size() == CNBufPool::Instance().Created(); }));
#endif
}

TEST_F(NFileUnbufferedTest, WithoutFileThreadsCallsGoToTheDevice)
{
    LogCapture log;
    CNFile* file = CNFile::Open(owner.Id(), Path("plain").c_str(), "w+b");
    ASSERT_NE(file, nullptr);
    EXPECT_FALSE(SNFileData::of(file)->buffered());
    EXPECT_EQ(file->Write("hello world", 11), 11);
    EXPECT_EQ(file->Seek(0, 2), -1);
    EXPECT_TRUE(log.Contains("seek failed"));
    ASSERT_EQ(file->Seek(6, 0), 0);
    char buf[100];
    bool eof = true;
    EXPECT_EQ(file->Read(buf, sizeof buf, eof), 5);
    EXPECT_FALSE(eof);
    EXPECT_EQ(std::string(buf, 5), "world");
    EXPECT_EQ(file->Read(buf, sizeof buf, eof), 0);
    EXPECT_TRUE(eof);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(owner.Count(8), 0);
    file->Close();
}

TEST_F(NFileUnbufferedTest, StoppingTheFileThreadsRunsTheRequestsStillQueued)
{
    // The only thread waits in the first request while the second stays queued.
    struct GatedRequest : CFileRequest_IF {
        void handle_file_request(SEvent* record) override
        {
            while (!open.load()) std::this_thread::sleep_for(1ms);
            ++runs;
            CReclaimPool::sm_reclaim_pool.GiveBack(record);
        }
        CNetHandler* request_object() override { return &object; }
        Probe object;
        std::atomic<bool> open{false};
        std::atomic<int> runs{0};
    } request;
    CFileThreadPool& threads = CFileThreadPool::Instance();
    ASSERT_EQ(threads.Start(1), 0);
    for (int i = 0; i < 2; ++i) {
        SEvent* record = CReclaimPool::sm_reclaim_pool.Take();
        record->m_key = EVENT_FILE_REQUEST;
        record->m_attach = reinterpret_cast<std::intptr_t>(static_cast<CFileRequest_IF*>(&request));
        ASSERT_TRUE(threads.Post(record));
    }
    std::thread opener([&] {
        std::this_thread::sleep_for(50ms);
        request.open = true;
    });
    threads.Stop();
    opener.join();
    EXPECT_EQ(request.runs.load(), 2);
    request.object.Close();
}
