#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include <Corvane/TsMemory.h>

#include "Core/MemPool.h"
#include "Core/TsMemoryPools.h"
#include "TestSupport.h"

using namespace Qelvar::Corvane;

namespace {

const SMemBlock& header(void* p)
{
    return *reinterpret_cast<const SMemBlock*>(static_cast<char*>(p) - 16);
}

unsigned int cached(int cls)
{
    return ts_memory::thread_pool()->Cached(cls);
}

// The pools are process-wide: each test starts with fresh ones and leaves none behind.
class TsMemory : public ::testing::Test {
protected:
    void SetUp() override { CTsMemory::CreateMemPool(); }
    void TearDown() override
    {
        CTsMemory::DestroyThreadMemPool();
        CTsMemory::DestroyMemPool();
    }
};

}  // namespace

TEST_F(TsMemory, RequestSizeChoosesClassAndBlockAtEveryBoundary)
{
    // {request, class, block size}
    const unsigned int cases[][3] = {
        {1, 0, 8},          {8, 0, 8},          {9, 1, 16},          {128, 15, 128},      {129, 16, 256},
        {256, 16, 256},     {257, 17, 512},     {512, 17, 512},      {513, 18, 1500},     {1500, 18, 1500},
        {1501, 19, 4096},   {4096, 19, 4096},   {4097, 20, 8192},    {65536, 34, 65536},  {65537, 35, 81920},
        {81920, 35, 81920}, {81921, 36, 98304}, {229376, 44, 229376}, {229377, ~0u, 229377}};
    for (const bool shared : {false, true}) {
        for (const auto& [size, cls, block] : cases) {
            void* p = shared ? CTsMemory::Malloc(size) : CTsMemory::TsMalloc(size);
            ASSERT_NE(p, nullptr);
            EXPECT_EQ(header(p).m_class, static_cast<int>(cls)) << size;
            EXPECT_EQ(header(p).m_size, block) << size;
            std::memset(p, 0x5A, block);  // the sanitizer checks the whole block is there
            shared ? CTsMemory::Free(p) : CTsMemory::TsFree(p);
        }
    }
}

TEST_F(TsMemory, FreedBlocksComeBackOldestFirstUpToTheClassLimit)
{
    // {request, limit}: one class of each limit but 128.
    for (const auto& [size, limit] : {std::pair{8u, 2048u}, {1500u, 4096u}, {229376u, 64u}}) {
        const int cls = CMemPool::ClassOf(size);
        std::vector<void*> blocks(limit + 1);
        for (void*& p : blocks) p = CTsMemory::TsMalloc(size);
        for (void* p : blocks) CTsMemory::TsFree(p);
        EXPECT_EQ(cached(cls), limit) << size;  // the last one went back to the heap
        for (unsigned int i = 0; i < limit; ++i) {
            void* p = CTsMemory::TsMalloc(size - i % 2);  // any request of the class
            ASSERT_EQ(p, blocks[i]) << size << " #" << i;
            EXPECT_EQ(header(p).m_next, nullptr);
        }
        EXPECT_EQ(cached(cls), 0u);
        for (unsigned int i = 0; i < limit; ++i) CTsMemory::TsFree(blocks[i]);
    }
}

TEST_F(TsMemory, BlocksMoveBetweenThreadsAndTsFreeNeedsAPool)
{
    Qelvar::Test::LogCapture log(3);
    void* mine = CTsMemory::TsMalloc(100);
    void* orphan = nullptr;
    std::thread([&] {
        orphan = CTsMemory::TsMalloc(32);  // no pool yet: from the heap
        CTsMemory::TsFree(orphan);         // logged, left alone
        CTsMemory::CreateMemPool();
        CTsMemory::TsFree(mine);           // joins this thread's pool
        EXPECT_EQ(cached(CMemPool::ClassOf(100)), 1u);
        EXPECT_EQ(CTsMemory::TsMalloc(100), mine);
        CTsMemory::TsFree(mine);
        CTsMemory::DestroyThreadMemPool();
    }).join();
    EXPECT_EQ(cached(CMemPool::ClassOf(100)), 0u);

    EXPECT_EQ(header(orphan).m_class, -1);
    Qelvar::Test::CapturedLog r{};
    ASSERT_TRUE(log.Find(":TsFree falid! pool:", &r));
    EXPECT_EQ(r.level, 3);
    EXPECT_EQ(r.message.rfind("CTsMemory::TsFree :TsFree falid! pool:", 0), 0u) << r.message;
    std::memset(orphan, 0, 32);  // still allocated
    CTsMemory::Free(orphan);
}

TEST_F(TsMemory, SharedPoolServesManyThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            // Each block is stamped while held: a block handed to two threads at once
            // shows up as a foreign stamp.
            void* held[8] = {};
            for (int i = 0; i < 20000; ++i) {
                void*& slot = held[i % 8];
                EXPECT_TRUE(!slot || *static_cast<int*>(slot) == t);
                CTsMemory::Free(slot);
                slot = CTsMemory::Malloc(static_cast<unsigned int>(8 + (i * 37 + t) % 3000));
                *static_cast<int*>(slot) = t;
            }
            for (void* p : held) CTsMemory::Free(p);
        });
    }
    for (std::thread& t : threads) t.join();
}
