// Pool accounting by tag, fault injection, lookaside lists and interlocked
// operations.
#include <gtest/gtest.h>

#include <emu/machine.h>

using namespace tervane::emu;

namespace {
constexpr ULONG kTagA = 0x6D767254;  // "Trvm" in memory
constexpr ULONG kTagB = 0x66767254;  // "Trvf"

// The usage line of TAG (all counters 0 when the tag was never used).
PoolTagUsage Find(const std::vector<PoolTagUsage>& usage, const std::string& tag) {
    for (const PoolTagUsage& u : usage)
        if (u.tag == tag) return u;
    return PoolTagUsage{tag};
}
}  // namespace

TEST(Pool, CountsBlocksAndBytesPerTag) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [&] {
        PVOID a = ExAllocatePoolWithTag(NonPagedPool, 100, kTagA);
        PVOID b = ExAllocatePoolWithTag(NonPagedPool, 28, kTagA);
        PVOID c = ExAllocatePoolWithTag(NonPagedPool, 7, kTagB);
        ASSERT_TRUE(a && b && c);
        PoolTagUsage u = Find(machine.PoolUsage(), "Trvm");
        EXPECT_EQ(u.allocs, 2u);
        EXPECT_EQ(u.outstandingBlocks, 2u);
        EXPECT_EQ(u.outstandingBytes, 128u);
        ExFreePoolWithTag(a, kTagA);
        ExFreePool(b);
        ExFreePoolWithTag(c, kTagB);
        u = Find(machine.PoolUsage(), "Trvm");
        EXPECT_EQ(u.frees, 2u);
        EXPECT_EQ(u.outstandingBlocks, 0u);
        EXPECT_EQ(u.outstandingBytes, 0u);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Pool, FaultInjectionFailsTheNthAllocationOrATag) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [&] {
        machine.FailNthAllocation(2);
        PVOID first = ExAllocatePoolWithTag(NonPagedPool, 8, kTagA);
        PVOID second = ExAllocatePoolWithTag(NonPagedPool, 8, kTagA);
        PVOID third = ExAllocatePoolWithTag(NonPagedPool, 8, kTagA);
        EXPECT_NE(first, nullptr);
        EXPECT_EQ(second, nullptr);
        EXPECT_NE(third, nullptr) << "only the Nth fails";
        ExFreePoolWithTag(first, kTagA);
        ExFreePoolWithTag(third, kTagA);

        machine.FailAllocationsWithTag("Trvf");
        EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 8, kTagB), nullptr);
        EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 8, kTagB), nullptr);
        PVOID other = ExAllocatePoolWithTag(NonPagedPool, 8, kTagA);
        EXPECT_NE(other, nullptr);
        ExFreePool(other);
        machine.ClearFaultInjection();
        PVOID again = ExAllocatePoolWithTag(NonPagedPool, 8, kTagB);
        EXPECT_NE(again, nullptr);
        ExFreePool(again);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Lookaside, CachesUpToItsDepthAndKeepsTheCounters) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [&] {
        NPAGED_LOOKASIDE_LIST list;
        ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 2048, kTagA, 2);
        PVOID blocks[3];
        for (PVOID& b : blocks) b = ExAllocateFromNPagedLookasideList(&list);
        EXPECT_EQ(list.L.TotalAllocates, 3u);
        EXPECT_EQ(list.L.AllocateMisses, 3u);
        for (PVOID b : blocks) ExFreeToNPagedLookasideList(&list, b);
        EXPECT_EQ(list.L.TotalFrees, 3u);
        EXPECT_EQ(list.L.FreeMisses, 1u) << "the third block goes back to pool";
        EXPECT_EQ(Find(machine.PoolUsage(), "Trvm").outstandingBlocks, 2u) << "two stay cached";
        PVOID reused = ExAllocateFromNPagedLookasideList(&list);
        EXPECT_TRUE(reused == blocks[0] || reused == blocks[1]);
        EXPECT_EQ(list.L.AllocateMisses, 3u);
        ExFreeToNPagedLookasideList(&list, reused);
        ExDeleteNPagedLookasideList(&list);
        EXPECT_EQ(Find(machine.PoolUsage(), "Trvm").outstandingBlocks, 0u);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

namespace {
int gCustomAllocs = 0, gCustomFrees = 0;
PVOID NTAPI CustomAllocate(POOL_TYPE type, SIZE_T bytes, ULONG tag) {
    ++gCustomAllocs;
    return ExAllocatePoolWithTag(type, bytes, tag);
}
VOID NTAPI CustomFree(PVOID block) {
    ++gCustomFrees;
    ExFreePool(block);
}
}  // namespace

TEST(Lookaside, UsesTheGivenRoutinesAndIsDrainedAtShutdown) {
    Machine machine;
    static NPAGED_LOOKASIDE_LIST list;  // never deleted, like a driver's global
    gCustomAllocs = gCustomFrees = 0;
    machine.Run(machine.SystemProcess(), [&] {
        ExInitializeNPagedLookasideList(&list, CustomAllocate, CustomFree, 0, 64, kTagB, 0);
        EXPECT_EQ(list.L.Depth, 4) << "depth 0 means NT's minimum";
        PVOID b = ExAllocateFromNPagedLookasideList(&list);
        ExFreeToNPagedLookasideList(&list, b);
    });
    EXPECT_EQ(gCustomAllocs, 1);
    EXPECT_EQ(gCustomFrees, 0);
    VerifierReport report = machine.Shutdown();
    EXPECT_EQ(gCustomFrees, 1);
    EXPECT_TRUE(report.Clean()) << report.ToString();
}

TEST(Interlocked, OperationsReturnWhatNtReturns) {
    LONG v = 5;
    EXPECT_EQ(InterlockedIncrement(&v), 6);
    EXPECT_EQ(InterlockedDecrement(&v), 5);
    EXPECT_EQ(InterlockedExchange(&v, 9), 5);
    EXPECT_EQ(InterlockedExchangeAdd(&v, 3), 9);
    EXPECT_EQ(v, 12);
    EXPECT_EQ(InterlockedCompareExchange(&v, 1, 7), 12) << "no exchange: returns the current value";
    EXPECT_EQ(InterlockedCompareExchange(&v, 1, 12), 12);
    EXPECT_EQ(v, 1);
    int x, y;
    PVOID p = &x;
    EXPECT_EQ(InterlockedExchangePointer(&p, &y), &x);
    EXPECT_EQ(InterlockedCompareExchangePointer(&p, &x, &y), &y);
    EXPECT_EQ(p, &x);
}

TEST(Interlocked, CountersStayExactAcrossThreads) {
    Machine machine;
    Process* p = machine.CreateProcess(100, "worker.exe");
    LONG counter = 0;
    std::vector<std::unique_ptr<Machine::Thread>> threads;
    for (int i = 0; i < 4; ++i)
        threads.push_back(machine.StartThread(p, [&] {
            for (int k = 0; k < 10000; ++k) InterlockedIncrement(&counter);
        }));
    for (auto& t : threads) t->Join();
    EXPECT_EQ(counter, 40000);
    EXPECT_TRUE(machine.Shutdown().Clean());
}
