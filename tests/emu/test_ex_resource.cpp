// Executive resources and fast mutexes across real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <emu/machine.h>

using namespace tervane::emu;

namespace {
void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(30)); }
}  // namespace

TEST(Resource, OwnershipRulesForOneThread) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        ERESOURCE r;
        ASSERT_EQ(ExInitializeResourceLite(&r), STATUS_SUCCESS);
        KeEnterCriticalRegion();
        EXPECT_TRUE(ExAcquireResourceExclusiveLite(&r, TRUE));
        EXPECT_TRUE(ExAcquireResourceExclusiveLite(&r, FALSE)) << "recursive for its owner";
        EXPECT_TRUE(ExAcquireResourceSharedLite(&r, FALSE)) << "shared by the exclusive owner";
        EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&r));
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&r), 3u);
        for (int i = 0; i < 3; ++i) ExReleaseResourceLite(&r);
        EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&r));
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&r), 0u);
        EXPECT_TRUE(ExAcquireResourceSharedLite(&r, TRUE));
        EXPECT_TRUE(ExAcquireResourceSharedLite(&r, TRUE));
        EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&r));
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&r), 2u);
        ExReleaseResourceLite(&r);
        ExReleaseResourceLite(&r);
        KeLeaveCriticalRegion();
        EXPECT_EQ(ExDeleteResourceLite(&r), STATUS_SUCCESS);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Resource, SharedOwnersExcludeWritersAndNoWaitFails) {
    Machine machine;
    Process* p = machine.CreateProcess(500, "lock.exe");
    ERESOURCE r;
    machine.Run(p, [&] { ExInitializeResourceLite(&r); });
    std::atomic<int> phase{0};
    std::atomic<bool> writerIn{false};
    auto reader = machine.StartThread(p, [&] {
        ExAcquireResourceSharedLite(&r, TRUE);
        phase = 1;
        while (phase < 2) std::this_thread::yield();
        Settle();
        EXPECT_FALSE(writerIn) << "the writer waits for the reader";
        ExReleaseResourceLite(&r);
    });
    while (phase < 1) std::this_thread::yield();
    auto writer = machine.StartThread(p, [&] {
        EXPECT_FALSE(ExAcquireResourceExclusiveLite(&r, FALSE)) << "Wait=FALSE does not block";
        phase = 2;
        EXPECT_TRUE(ExAcquireResourceExclusiveLite(&r, TRUE));
        writerIn = true;
        ExReleaseResourceLite(&r);
    });
    reader->Join();
    writer->Join();
    EXPECT_TRUE(writerIn);
    machine.Run(p, [&] { ExDeleteResourceLite(&r); });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Resource, WaitingWriterHoldsBackNewReadersAndCountsAsWaiter) {
    Machine machine;
    Process* p = machine.CreateProcess(600, "queue.exe");
    ERESOURCE r;
    machine.Run(p, [&] {
        ExInitializeResourceLite(&r);
        ExAcquireResourceSharedLite(&r, TRUE);
    });
    auto writer = machine.StartThread(p, [&] {
        ExAcquireResourceExclusiveLite(&r, TRUE);
        ExReleaseResourceLite(&r);
    });
    while (ExGetExclusiveWaiterCount(&r) == 0) std::this_thread::yield();
    std::atomic<bool> lateReaderTried{false};
    BOOLEAN lateReaderGot = TRUE;
    auto lateReader = machine.StartThread(p, [&] {
        lateReaderGot = ExAcquireResourceSharedLite(&r, FALSE);
        lateReaderTried = true;
        ExAcquireResourceSharedLite(&r, TRUE);
        ExReleaseResourceLite(&r);
    });
    while (!lateReaderTried) std::this_thread::yield();
    EXPECT_FALSE(lateReaderGot) << "a new reader does not pass a waiting writer";
    while (ExGetSharedWaiterCount(&r) == 0) std::this_thread::yield();
    EXPECT_EQ(ExGetExclusiveWaiterCount(&r), 1u);
    machine.Run(p, [&] { ExReleaseResourceLite(&r); });
    writer->Join();
    lateReader->Join();
    machine.Run(p, [&] { ExDeleteResourceLite(&r); });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Resource, ExclusiveOwnersNeverOverlap) {
    Machine machine;
    Process* p = machine.CreateProcess(700, "mutex.exe");
    ERESOURCE r;
    machine.Run(p, [&] { ExInitializeResourceLite(&r); });
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    long long plain = 0;
    std::vector<std::unique_ptr<Machine::Thread>> threads;
    for (int i = 0; i < 4; ++i)
        threads.push_back(machine.StartThread(p, [&] {
            for (int k = 0; k < 2000; ++k) {
                KeEnterCriticalRegion();
                ExAcquireResourceExclusiveLite(&r, TRUE);
                if (++inside != 1) overlaps++;
                ++plain;
                --inside;
                ExReleaseResourceLite(&r);
                KeLeaveCriticalRegion();
            }
        }));
    for (auto& t : threads) t->Join();
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(plain, 8000);
    machine.Run(p, [&] { ExDeleteResourceLite(&r); });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Resource, ReleaseByANonOwnerIsAViolation) {
    Machine machine;
    Process* p = machine.CreateProcess(800, "bad.exe");
    ERESOURCE r;
    machine.Run(p, [&] {
        ExInitializeResourceLite(&r);
        ExAcquireResourceExclusiveLite(&r, TRUE);
    });
    auto other = machine.StartThread(p, [&] { ExReleaseResourceLite(&r); });
    other->Join();
    machine.Run(p, [&] {
        EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&r)) << "the owner still holds it";
        ExReleaseResourceLite(&r);
        ExDeleteResourceLite(&r);
    });
    VerifierReport report = machine.Shutdown();
    ASSERT_EQ(report.violations.size(), 1u);
    EXPECT_NE(report.violations[0].find("does not own it"), std::string::npos);
}

TEST(FastMutex, ExcludesAcrossThreads) {
    Machine machine;
    Process* p = machine.CreateProcess(900, "fm.exe");
    FAST_MUTEX m;
    ExInitializeFastMutex(&m);
    long long plain = 0;
    std::vector<std::unique_ptr<Machine::Thread>> threads;
    for (int i = 0; i < 3; ++i)
        threads.push_back(machine.StartThread(p, [&] {
            for (int k = 0; k < 3000; ++k) {
                ExAcquireFastMutex(&m);
                EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
                ++plain;
                ExReleaseFastMutex(&m);
            }
        }));
    for (auto& t : threads) t->Join();
    EXPECT_EQ(plain, 9000);
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Resource, ReleaseForThreadNamesTheOwner) {
    Machine machine;
    Process* p = machine.CreateProcess(1100, "handoff.exe");
    ERESOURCE r, r2;
    machine.Run(p, [&] {
        ExInitializeResourceLite(&r);
        ExInitializeResourceLite(&r2);
    });
    std::atomic<ERESOURCE_THREAD> owner{0};
    std::atomic<bool> released{false};
    auto ownerThread = machine.StartThread(p, [&] {
        KeEnterCriticalRegion();
        ExAcquireResourceSharedLite(&r, TRUE);
        owner = ExGetCurrentResourceThread();
        while (!released) std::this_thread::yield();
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&r), 0u);
        // The owner no longer holds it for the lock order either: had the
        // release left it in the owner's held list, taking r2 here would
        // record r before r2, and taking r under r2 below an inversion.
        ExAcquireResourceExclusiveLite(&r2, TRUE);
        ExReleaseResourceLite(&r2);
        KeLeaveCriticalRegion();
    });
    while (owner == 0) std::this_thread::yield();
    // Another thread releases on the owner's behalf.
    auto other = machine.StartThread(p, [&] { ExReleaseResourceForThreadLite(&r, owner); });
    other->Join();
    released = true;
    ownerThread->Join();
    machine.Run(p, [&] {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&r2, TRUE);
        ExAcquireResourceExclusiveLite(&r, TRUE);
        ExReleaseResourceLite(&r);
        ExReleaseResourceLite(&r2);
        KeLeaveCriticalRegion();
        ExDeleteResourceLite(&r2);
        ExDeleteResourceLite(&r);
    });
    VerifierReport report = machine.Shutdown();
    EXPECT_TRUE(report.Clean()) << report.ToString();
}
