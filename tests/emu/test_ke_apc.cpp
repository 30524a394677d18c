// User APCs of asynchronous requests: queued to the requesting thread when
// the packet completes, run only by that thread's alertable user-mode waits
// (or NtTestAlert), exactly once each, and dropped unrun when it ends.
#include <atomic>

#include "test_io_support.h"

namespace iotest {
namespace {

struct ApcRecord {
    std::atomic<int> calls{0};
    PVOID context = nullptr;
    PIO_STATUS_BLOCK iosb = nullptr;
    NTSTATUS statusSeen = STATUS_PENDING;
    ULONG reserved = ~0u;
};

VOID RecordApc(PVOID context, PIO_STATUS_BLOCK iosb, ULONG reserved) {
    auto* record = static_cast<ApcRecord*>(context);
    record->context = context;
    record->iosb = iosb;
    record->statusSeen = iosb->Status;
    record->reserved = reserved;
    record->calls++;
}

LARGE_INTEGER Relative(int milliseconds) {
    LARGE_INTEGER t;
    t.QuadPart = -10000LL * milliseconds;
    return t;
}

// Waits on EVENT (never signalled here) for MILLISECONDS in one of the ways
// a thread can wait.
using WaitFn = NTSTATUS (*)(HANDLE event, PKEVENT kevent, KPROCESSOR_MODE mode, BOOLEAN alertable, int milliseconds);

NTSTATUS WaitKe(HANDLE, PKEVENT kevent, KPROCESSOR_MODE mode, BOOLEAN alertable, int ms) {
    LARGE_INTEGER t = Relative(ms);
    return KeWaitForSingleObject(kevent, UserRequest, mode, alertable, &t);
}
NTSTATUS WaitDelay(HANDLE, PKEVENT, KPROCESSOR_MODE mode, BOOLEAN alertable, int ms) {
    LARGE_INTEGER t = Relative(ms);
    return KeDelayExecutionThread(mode, alertable, &t);
}
NTSTATUS WaitNt(HANDLE event, PKEVENT, KPROCESSOR_MODE, BOOLEAN alertable, int ms) {
    LARGE_INTEGER t = Relative(ms);
    return NtWaitForSingleObject(event, alertable, &t);
}

class KeApcTest : public IoTest {
protected:
    // Starts an asynchronous read of H with RECORD as the APC context; the
    // device pends it and completes it shortly after on another thread.
    void StartRead(HANDLE h, HANDLE done, ApcRecord* record, IO_STATUS_BLOCK* iosb) {
        LARGE_INTEGER offset{};
        ASSERT_EQ(NtReadFile(h, done, RecordApc, record, iosb, buffer, sizeof buffer, &offset, nullptr),
                  STATUS_PENDING);
    }
    char buffer[8];
};

TEST_F(KeApcTest, OnlyAnAlertableUserModeWaitRunsTheRoutineOnce) {
    struct Case {
        const char* name;
        WaitFn wait;
    } cases[] = {{"KeWaitForSingleObject", WaitKe}, {"KeDelayExecutionThread", WaitDelay},
                 {"NtWaitForSingleObject", WaitNt}};
    world.behaviour.pend = true;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        InProcess([&] {
            HANDLE h, done, idle;
            ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h, GENERIC_READ | SYNCHRONIZE, 0), STATUS_SUCCESS);
            ASSERT_EQ(NtCreateEvent(&done, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
            ASSERT_EQ(NtCreateEvent(&idle, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
            PVOID idleObject;
            ASSERT_EQ(ObReferenceObjectByHandle(idle, SYNCHRONIZE, nullptr, KernelMode, &idleObject, nullptr),
                      STATUS_SUCCESS);
            auto* kidle = static_cast<PKEVENT>(idleObject);
            ApcRecord record;
            IO_STATUS_BLOCK iosb{};
            StartRead(h, done, &record, &iosb);
            // The completion is queued by the time the caller's event is set.
            ASSERT_EQ(NtWaitForSingleObject(done, FALSE, nullptr), STATUS_SUCCESS);
            EXPECT_EQ(record.calls, 0) << "completion alone runs nothing";

            struct Quiet {
                KPROCESSOR_MODE mode;
                BOOLEAN alertable;
            } quiet[] = {{UserMode, FALSE}, {KernelMode, TRUE}, {KernelMode, FALSE}};
            for (const Quiet& q : quiet) {
                if (c.wait == WaitNt && q.mode == KernelMode) continue;  // NtWait* always waits in user mode
                NTSTATUS expected = c.wait == WaitDelay ? STATUS_SUCCESS : STATUS_TIMEOUT;
                EXPECT_EQ(c.wait(idle, kidle, q.mode, q.alertable, 10), expected)
                    << "mode " << int(q.mode) << " alertable " << int(q.alertable);
                EXPECT_EQ(record.calls, 0);
            }

            EXPECT_EQ(c.wait(idle, kidle, UserMode, TRUE, 5000), STATUS_USER_APC);
            EXPECT_EQ(record.calls, 1);
            EXPECT_EQ(record.context, &record);
            EXPECT_EQ(record.iosb, &iosb);
            EXPECT_EQ(record.statusSeen, STATUS_SUCCESS) << "the status block is written before the routine runs";
            EXPECT_EQ(record.reserved, 0u);
            EXPECT_EQ(iosb.Information, sizeof buffer);

            NTSTATUS again = c.wait == WaitDelay ? STATUS_SUCCESS : STATUS_TIMEOUT;
            EXPECT_EQ(c.wait(idle, kidle, UserMode, TRUE, 10), again) << "delivered once, then gone";
            EXPECT_EQ(NtTestAlert(), STATUS_SUCCESS);
            EXPECT_EQ(record.calls, 1);
            ObDereferenceObject(idleObject);
            NtClose(idle);
            NtClose(done);
            NtClose(h);
        });
    }
}

TEST_F(KeApcTest, AnAlertableWaitAlreadyUnderWayIsEndedByTheCompletion) {
    world.behaviour.pend = true;
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h, GENERIC_READ | SYNCHRONIZE, 0), STATUS_SUCCESS);
        ApcRecord record;
        IO_STATUS_BLOCK iosb{};
        StartRead(h, nullptr, &record, &iosb);
        EXPECT_EQ(record.calls, 0);
        LARGE_INTEGER longWait = Relative(5000);
        EXPECT_EQ(KeDelayExecutionThread(UserMode, TRUE, &longWait), STATUS_USER_APC);
        EXPECT_EQ(record.calls, 1);
        EXPECT_EQ(record.iosb, &iosb);
        NtClose(h);
    });
}

TEST_F(KeApcTest, NtTestAlertRunsQueuedRoutinesAndReportsAPendingAlert) {
    world.behaviour.pend = true;
    InProcess([&] {
        HANDLE h, done;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h, GENERIC_READ | SYNCHRONIZE, 0), STATUS_SUCCESS);
        ASSERT_EQ(NtCreateEvent(&done, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
        ApcRecord record;
        IO_STATUS_BLOCK iosb{};
        StartRead(h, done, &record, &iosb);
        ASSERT_EQ(NtWaitForSingleObject(done, FALSE, nullptr), STATUS_SUCCESS);
        KeAlertThread(KeGetCurrentThread(), UserMode);
        EXPECT_EQ(NtTestAlert(), STATUS_ALERTED);
        EXPECT_EQ(record.calls, 1);
        EXPECT_EQ(NtTestAlert(), STATUS_SUCCESS);
        EXPECT_EQ(record.calls, 1);
        NtClose(done);
        NtClose(h);
    });
}

TEST_F(KeApcTest, ARoutineStillQueuedWhenItsThreadEndsNeverRuns) {
    world.behaviour.pend = true;
    ApcRecord record;
    IO_STATUS_BLOCK iosb{};
    HANDLE h = nullptr;
    InProcess([&] { ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h, GENERIC_READ | SYNCHRONIZE, 0), STATUS_SUCCESS); });
    auto thread = machine->StartThread(process, [&] {
        HANDLE done;
        ASSERT_EQ(NtCreateEvent(&done, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
        StartRead(h, done, &record, &iosb);
        ASSERT_EQ(NtWaitForSingleObject(done, FALSE, nullptr), STATUS_SUCCESS);
        NtClose(done);
    });
    thread->Join();
    InProcess([&] {
        LARGE_INTEGER shortWait = Relative(10);
        EXPECT_EQ(KeDelayExecutionThread(UserMode, TRUE, &shortWait), STATUS_SUCCESS)
            << "another thread's routine is not this thread's to run";
        NtClose(h);
    });
    EXPECT_EQ(record.calls, 0);
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
}

}  // namespace
}  // namespace iotest
