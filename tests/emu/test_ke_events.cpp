// Events, waits, alerts, delays and critical regions across real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include <emu/machine.h>

using namespace tervane::emu;
using Clock = std::chrono::steady_clock;

namespace {
LARGE_INTEGER Relative(int milliseconds) {
    LARGE_INTEGER t;
    t.QuadPart = -10000LL * milliseconds;
    return t;
}
}  // namespace

TEST(KeEvent, StateChangesReturnThePreviousState) {
    KEVENT e;
    KeInitializeEvent(&e, NotificationEvent, FALSE);
    EXPECT_EQ(KeReadStateEvent(&e), 0);
    EXPECT_EQ(KeSetEvent(&e, 0, FALSE), 0);
    EXPECT_EQ(KeSetEvent(&e, 0, FALSE), 1);
    EXPECT_EQ(KeResetEvent(&e), 1);
    EXPECT_EQ(KeResetEvent(&e), 0);
    KeSetEvent(&e, 0, FALSE);
    KeClearEvent(&e);
    EXPECT_EQ(KeReadStateEvent(&e), 0);
}

TEST(KeEvent, ZeroTimeoutPollsAndConsumesOnlySynchronizationEvents) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        LARGE_INTEGER zero;
        zero.QuadPart = 0;
        struct Case {
            EVENT_TYPE type;
            LONG stateAfterWait;
        } cases[] = {{NotificationEvent, 1}, {SynchronizationEvent, 0}};
        for (const Case& c : cases) {
            KEVENT e;
            KeInitializeEvent(&e, c.type, FALSE);
            EXPECT_EQ(KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
            KeSetEvent(&e, 0, FALSE);
            EXPECT_EQ(KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
            EXPECT_EQ(KeReadStateEvent(&e), c.stateAfterWait);
        }
    });
}

TEST(KeEvent, TimeoutsRelativeAndAbsolute) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        KEVENT e;
        KeInitializeEvent(&e, NotificationEvent, FALSE);
        LARGE_INTEGER relative = Relative(30);
        auto start = Clock::now();
        EXPECT_EQ(KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &relative), STATUS_TIMEOUT);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(25));
        LARGE_INTEGER absolute;
        KeQuerySystemTime(&absolute);
        absolute.QuadPart += 30 * 10000LL;
        start = Clock::now();
        EXPECT_EQ(KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &absolute), STATUS_TIMEOUT);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(25));
        LARGE_INTEGER past;
        KeQuerySystemTime(&past);
        past.QuadPart -= 10000000LL;
        EXPECT_EQ(KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &past), STATUS_TIMEOUT);
    });
}

TEST(KeEvent, NotificationReleasesEveryWaiterSynchronizationExactlyOne) {
    Machine machine;
    Process* p = machine.CreateProcess(200, "waiters.exe");
    for (EVENT_TYPE type : {NotificationEvent, SynchronizationEvent}) {
        KEVENT e;
        KeInitializeEvent(&e, type, FALSE);
        std::atomic<int> released{0};
        std::atomic<int> started{0};
        std::vector<std::unique_ptr<Machine::Thread>> threads;
        for (int i = 0; i < 3; ++i)
            threads.push_back(machine.StartThread(p, [&] {
                LARGE_INTEGER timeout = Relative(300);
                started++;
                if (KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &timeout) == STATUS_SUCCESS) released++;
            }));
        while (started < 3) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        // A set followed at once by a reset still releases the waiters it found.
        KeSetEvent(&e, 0, FALSE);
        KeResetEvent(&e);
        for (auto& t : threads) t->Join();
        EXPECT_EQ(released, type == NotificationEvent ? 3 : 1) << "type " << type;
    }
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(KeAlert, AlertableWaitsEndWithStatusAlerted) {
    Machine machine;
    Process* p = machine.CreateProcess(300, "alert.exe");
    KEVENT e;
    KeInitializeEvent(&e, NotificationEvent, FALSE);
    std::atomic<PKTHREAD> waiter{nullptr};
    NTSTATUS alertableStatus = 0, plainStatus = 0, delayStatus = 0;
    auto t = machine.StartThread(p, [&] {
        waiter = KeGetCurrentThread();
        alertableStatus = KeWaitForSingleObject(&e, Executive, KernelMode, TRUE, nullptr);
        // An alert does not end a wait that is not alertable; it stays pending.
        LARGE_INTEGER shortWait = Relative(20);
        KeAlertThread(KeGetCurrentThread(), KernelMode);
        plainStatus = KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &shortWait);
        LARGE_INTEGER longDelay = Relative(5000);
        delayStatus = KeDelayExecutionThread(KernelMode, TRUE, &longDelay);
    });
    while (!waiter) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(KeAlertThread(waiter, KernelMode));
    t->Join();
    EXPECT_EQ(alertableStatus, STATUS_ALERTED);
    EXPECT_EQ(plainStatus, STATUS_TIMEOUT);
    EXPECT_EQ(delayStatus, STATUS_ALERTED) << "the pending alert ends the alertable delay at once";
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(KeDelay, WaitsTheIntervalAndSucceeds) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        LARGE_INTEGER interval = Relative(20);
        auto start = Clock::now();
        EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(15));
    });
}

TEST(KeCriticalRegion, NestsPerThreadAndUnbalancedRunsAreReported) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        KeEnterCriticalRegion();
        KeEnterCriticalRegion();
        EXPECT_EQ(EmuKeGetCriticalRegionDepth(), 2);
        KeLeaveCriticalRegion();
        KeLeaveCriticalRegion();
        EXPECT_EQ(EmuKeGetCriticalRegionDepth(), 0);
    });
    EXPECT_TRUE(machine.Snapshot().violations.empty());
    machine.Run(machine.SystemProcess(), [] { KeEnterCriticalRegion(); });
    machine.Run(machine.SystemProcess(), [] {
        EXPECT_EQ(EmuKeGetCriticalRegionDepth(), 0) << "the depth is reset after the report";
        KeLeaveCriticalRegion();
    });
    VerifierReport report = machine.Shutdown();
    ASSERT_EQ(report.violations.size(), 2u);
    EXPECT_NE(report.violations[0].find("unbalanced critical region"), std::string::npos);
    EXPECT_NE(report.violations[1].find("KeLeaveCriticalRegion without"), std::string::npos);
}

TEST(KeSpinLock, ExcludesAcrossThreadsAndRaisesIrql) {
    Machine machine;
    Process* p = machine.CreateProcess(400, "spin.exe");
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    long long plain = 0;  // guarded by the lock only
    std::vector<std::unique_ptr<Machine::Thread>> threads;
    for (int i = 0; i < 3; ++i)
        threads.push_back(machine.StartThread(p, [&] {
            for (int k = 0; k < 5000; ++k) {
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
                EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
                ++plain;
                KeReleaseSpinLock(&lock, old);
            }
        }));
    for (auto& t : threads) t->Join();
    EXPECT_EQ(plain, 15000);
    EXPECT_TRUE(machine.Shutdown().Clean());
}
