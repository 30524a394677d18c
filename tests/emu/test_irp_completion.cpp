// Completion routines of an own packet sent through the filter stack: run
// bottom-up, only when their invoke flags match the final status, stopped by
// STATUS_MORE_PROCESSING_REQUIRED and resumed by a second completion.
#include "test_io_support.h"

namespace iotest {
namespace {

std::vector<std::string>* g_calls;
NTSTATUS g_innerResult;
PDEVICE_OBJECT g_ownerDevice;

// Each routine gets the device of the location that registered it; the
// packet's owner, above every location, gets none.
NTSTATUS NTAPI Inner(PDEVICE_OBJECT device, PIRP irp, PVOID) {
    g_calls->push_back(std::string("inner ") + (device == g_ownerDevice ? "device" : "wrong device"));
    return g_innerResult;
}

NTSTATUS NTAPI Outer(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
    g_calls->push_back(std::string("outer ") + (device ? "wrong device" : static_cast<const char*>(context)));
    return STATUS_MORE_PROCESSING_REQUIRED;  // the owner frees the packet
}

NTSTATUS NTAPI SignalAndKeep(PDEVICE_OBJECT, PIRP, PVOID event) {
    KeSetEvent(static_cast<PKEVENT>(event), 0, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// An own packet with an owner routine (Outer) and a routine of the owner's
// own stack location (Inner), sent to the top of the stack.
PIRP SendOwnPacket(PDEVICE_OBJECT top, BOOLEAN onSuccess, BOOLEAN onError, BOOLEAN onCancel) {
    PIRP irp = IoAllocateIrp(CCHAR(top->StackSize + 1), FALSE);
    IoSetCompletionRoutine(irp, Outer, const_cast<char*>("called"), onSuccess, onError, onCancel);
    IoSetNextIrpStackLocation(irp);
    g_ownerDevice = top;  // the owner acts as a driver above TOP
    IoGetCurrentIrpStackLocation(irp)->DeviceObject = top;
    IoSetCompletionRoutine(irp, Inner, nullptr, TRUE, TRUE, TRUE);
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = IRP_MJ_FLUSH_BUFFERS;
    IoCallDriver(top, irp);
    return irp;
}

struct FlagCase {
    NTSTATUS status;
    BOOLEAN onSuccess, onError, onCancel;
    bool outerRuns;
};

TEST_F(IoTest, CompletionRoutinesRunBottomUpAsTheirInvokeFlagsSay) {
    LoadFilter();
    const FlagCase cases[] = {
        {STATUS_SUCCESS, TRUE, FALSE, FALSE, true},          {STATUS_SUCCESS, FALSE, TRUE, TRUE, false},
        {STATUS_ACCESS_DENIED, FALSE, TRUE, FALSE, true},    {STATUS_ACCESS_DENIED, TRUE, FALSE, TRUE, false},
        {STATUS_BUFFER_OVERFLOW, FALSE, TRUE, FALSE, true},  // a warning is not a success
    };
    InSystem([&] {
        for (const FlagCase& c : cases) {
            SCOPED_TRACE(testing::Message() << std::hex << c.status << " " << int(c.onSuccess) << int(c.onError));
            std::vector<std::string> calls;
            g_calls = &calls;
            g_innerResult = STATUS_SUCCESS;
            world.fastCalls.clear();
            world.behaviour.status = c.status;
            PIRP irp = SendOwnPacket(world.filterDevice, c.onSuccess, c.onError, c.onCancel);
            EXPECT_EQ(world.fastCalls, std::vector<std::string>{"filter completion 9"}) << "the filter's ran first";
            std::vector<std::string> expected = {"inner device"};
            if (c.outerRuns) expected.push_back("outer called");
            EXPECT_EQ(calls, expected);
            EXPECT_EQ(irp->IoStatus.Status, c.status);
            IoFreeIrp(irp);
        }
    });
}

TEST_F(IoTest, MoreProcessingRequiredStopsTheWalkUntilTheOwnerCompletesAgain) {
    LoadFilter();
    InSystem([&] {
        std::vector<std::string> calls;
        g_calls = &calls;
        g_innerResult = STATUS_MORE_PROCESSING_REQUIRED;
        PIRP irp = SendOwnPacket(world.filterDevice, TRUE, TRUE, TRUE);
        EXPECT_EQ(calls, std::vector<std::string>{"inner device"});
        EXPECT_EQ(irp->CurrentLocation, irp->StackCount) << "the walk stopped at the owner's location";
        g_innerResult = STATUS_SUCCESS;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        EXPECT_EQ(calls, (std::vector<std::string>{"inner device", "outer called"}));
        IoFreeIrp(irp);
    });
}

TEST_F(IoTest, FreeingAPacketADriverStillHoldsIsAVerifierViolation) {
    world.behaviour.pend = true;
    expectClean = false;
    InSystem([&] {
        PIRP irp = IoAllocateIrp(world.lowerDevice->StackSize, FALSE);
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_FLUSH_BUFFERS;
        KEVENT done;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        IoSetCompletionRoutine(irp, SignalAndKeep, &done, TRUE, TRUE, TRUE);
        EXPECT_EQ(IoCallDriver(world.lowerDevice, irp), STATUS_PENDING);
        IoFreeIrp(irp);  // too early: the device completes it later
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        IoFreeIrp(irp);
    });
    VerifierReport report = Shutdown();
    ASSERT_EQ(report.violations.size(), 1u) << report.ToString();
    EXPECT_NE(report.violations[0].find("still in use"), std::string::npos);
    EXPECT_TRUE(report.pool.empty()) << report.ToString();
}

}  // namespace
}  // namespace iotest
