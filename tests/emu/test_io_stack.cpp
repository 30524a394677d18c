// Packets down a device stack: what a filter and the device below it see,
// completion routines, pending returns, cleanup and close.
#include "test_io_support.h"

namespace iotest {
namespace {

TEST_F(IoTest, FilterAndDeviceSeeEveryPacketInOrderWithTheirStackLocations) {
    LoadFilter();
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\dir\\file.txt", &h), STATUS_SUCCESS);
        char buffer[8];
        IO_STATUS_BLOCK iosb{};
        ASSERT_EQ(NtReadFile(h, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, nullptr, nullptr),
                  STATUS_SUCCESS);
        FILE_BASIC_INFORMATION basic;
        ASSERT_EQ(NtQueryInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation), STATUS_SUCCESS);
        EXPECT_EQ(basic.FileAttributes, ULONG(FILE_ATTRIBUTE_ARCHIVE));
        ASSERT_EQ(NtClose(h), STATUS_SUCCESS);
    });
    const std::vector<UCHAR> expected = {IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_QUERY_INFORMATION, IRP_MJ_CLEANUP,
                                         IRP_MJ_CLOSE};
    EXPECT_EQ(world.Majors(world.filter), expected);
    EXPECT_EQ(world.Majors(world.lower), expected);
    for (size_t i = 0; i < world.lower.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(world.filter[i].device, world.filterDevice);
        EXPECT_EQ(world.filter[i].location, 2) << "the filter gets the packet's top location";
        EXPECT_EQ(world.lower[i].device, world.lowerDevice);
        EXPECT_EQ(world.lower[i].location, 1);
        EXPECT_EQ(world.lower[i].file, world.filter[i].file) << "one file object through the stack";
    }
    EXPECT_EQ(world.filterDevice->StackSize, 2);
    EXPECT_EQ(world.lower[0].fileName, u"\\dir\\file.txt") << "the device parses what is left of the name";
    EXPECT_EQ(world.lower[0].createOptions, (ULONG(FILE_OPEN) << 24) | FILE_SYNCHRONOUS_IO_NONALERT);
    EXPECT_EQ(world.lower[0].flags & SL_CASE_SENSITIVE, 0);
    std::vector<std::string> completions(world.fastCalls.begin(), world.fastCalls.end());
    EXPECT_EQ(completions.size(), expected.size()) << "the filter's completion routine ran for each";
}

TEST_F(IoTest, OpensWithoutCaseInsensitiveAreCaseSensitiveForTheDevice) {
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\A", &h, GENERIC_READ | SYNCHRONIZE, FILE_SYNCHRONOUS_IO_NONALERT, 0),
                  STATUS_SUCCESS);
        NtClose(h);
        EXPECT_EQ(Open(u"\\device\\iotest\\A", &h, GENERIC_READ | SYNCHRONIZE, FILE_SYNCHRONOUS_IO_NONALERT, 0),
                  STATUS_OBJECT_PATH_NOT_FOUND)
            << "the namespace itself compares case when asked to";
    });
    ASSERT_FALSE(world.lower.empty());
    EXPECT_EQ(world.lower[0].flags & SL_CASE_SENSITIVE, SL_CASE_SENSITIVE);
    EXPECT_EQ(world.lower[0].fileFlags & FO_OPENED_CASE_SENSITIVE, ULONG(FO_OPENED_CASE_SENSITIVE));
}

TEST_F(IoTest, CleanupWhenTheLastHandleClosesCloseWhenTheLastReferenceGoes) {
    PFILE_OBJECT file = nullptr;
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\x", &h), STATUS_SUCCESS);
        ASSERT_EQ(ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, reinterpret_cast<PVOID*>(&file),
                                            nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(world.Majors(world.lower), std::vector<UCHAR>{IRP_MJ_CREATE});
        ASSERT_EQ(NtClose(h), STATUS_SUCCESS);
        EXPECT_EQ(world.Majors(world.lower), (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP}))
            << "our reference keeps the file object: cleanup, but no close yet";
        ObDereferenceObject(file);
        EXPECT_EQ(world.Majors(world.lower), (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    });
}

TEST_F(IoTest, AFailedOpenGetsNeitherCleanupNorClose) {
    InProcess([&] {
        HANDLE h = nullptr;
        IO_STATUS_BLOCK iosb{};
        EXPECT_EQ(Open(u"\\Device\\IoTest\\fail", &h, GENERIC_READ | SYNCHRONIZE, FILE_SYNCHRONOUS_IO_NONALERT,
                       OBJ_CASE_INSENSITIVE, false, nullptr, &iosb),
                  STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(iosb.Status, STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(h, nullptr);
    });
    EXPECT_EQ(world.Majors(world.lower), std::vector<UCHAR>{IRP_MJ_CREATE});
}

TEST_F(IoTest, RelativeOpensCarryTheRelatedFileObjectAndTheRelativeName) {
    InProcess([&] {
        HANDLE dir, child;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\dir", &dir), STATUS_SUCCESS);
        ASSERT_EQ(Open(u"child", &child, GENERIC_READ | SYNCHRONIZE, FILE_SYNCHRONOUS_IO_NONALERT,
                       OBJ_CASE_INSENSITIVE, false, dir),
                  STATUS_SUCCESS);
        EXPECT_EQ(world.lower[1].fileName, u"child");
        EXPECT_EQ(world.lower[1].file->RelatedFileObject, world.lower[0].file);
        NtClose(child);
        NtClose(dir);
    });
}

TEST_F(IoTest, ASynchronousFileObjectWaitsForAPendingPacketAndTheFilterSeesPendingReturned) {
    LoadFilter();
    world.behaviour.pend = true;
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h), STATUS_SUCCESS);
        char buffer[4];
        IO_STATUS_BLOCK iosb{};
        EXPECT_EQ(NtReadFile(h, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, nullptr, nullptr),
                  STATUS_SUCCESS)
            << "the service waited for the completion";
        EXPECT_EQ(iosb.Information, sizeof buffer);
        EXPECT_EQ(std::string(buffer, 4), "rrrr");
        NtClose(h);
    });
    // The completer thread may still be closing the file (it held the last
    // reference): read the record under its lock.
    bool sawPending = false;
    {
        std::lock_guard<std::mutex> guard(world.lock);
        for (const auto& call : world.fastCalls) sawPending |= call == "filter completion 3 pending";
    }
    EXPECT_TRUE(sawPending);
}

TEST_F(IoTest, AnAsynchronousReadReturnsPendingAndSignalsTheCallersEvent) {
    world.behaviour.pend = true;
    InProcess([&] {
        HANDLE h, event;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h, GENERIC_READ | SYNCHRONIZE, 0), STATUS_SUCCESS);
        ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, TRUE), STATUS_SUCCESS);
        char buffer[6];
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER offset{};
        EXPECT_EQ(NtReadFile(h, event, nullptr, nullptr, &iosb, buffer, sizeof buffer, nullptr, nullptr),
                  STATUS_INVALID_PARAMETER)
            << "an asynchronous file object has no position";
        ASSERT_EQ(NtReadFile(h, event, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr),
                  STATUS_PENDING);
        ASSERT_EQ(NtWaitForSingleObject(event, FALSE, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
        EXPECT_EQ(iosb.Information, sizeof buffer);
        NtClose(event);
        NtClose(h);
    });
}

TEST_F(IoTest, TheFilePositionFeedsReadsWithoutAnOffset) {
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h), STATUS_SUCCESS);
        char buffer[5];
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER usePosition;
        usePosition.LowPart = FILE_USE_FILE_POINTER_POSITION;
        usePosition.HighPart = -1;
        ASSERT_EQ(NtReadFile(h, nullptr, nullptr, nullptr, &iosb, buffer, 5, nullptr, nullptr), STATUS_SUCCESS);
        ASSERT_EQ(NtReadFile(h, nullptr, nullptr, nullptr, &iosb, buffer, 3, &usePosition, nullptr), STATUS_SUCCESS);
        FILE_POSITION_INFORMATION position{};
        ASSERT_EQ(NtQueryInformationFile(h, &iosb, &position, sizeof position, FilePositionInformation),
                  STATUS_SUCCESS);
        EXPECT_EQ(position.CurrentByteOffset.QuadPart, 8);
        position.CurrentByteOffset.QuadPart = 100;
        ASSERT_EQ(NtSetInformationFile(h, &iosb, &position, sizeof position, FilePositionInformation),
                  STATUS_SUCCESS);
        ASSERT_EQ(NtReadFile(h, nullptr, nullptr, nullptr, &iosb, buffer, 1, nullptr, nullptr), STATUS_SUCCESS);
        NtClose(h);
    });
    std::vector<int64_t> offsets;
    // The reads went to the device at 0, 5 and 100; the position queries and
    // sets never reached it.
    EXPECT_EQ(world.Majors(world.lower), (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_READ, IRP_MJ_READ,
                                                              IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
}

TEST_F(IoTest, ExclusiveDevicesOpenOnceAtATime) {
    InProcess([&] {
        HANDLE first, second;
        ASSERT_EQ(Open(u"\\Device\\IoExclusive", &first), STATUS_SUCCESS);
        EXPECT_EQ(Open(u"\\Device\\IoExclusive", &second), STATUS_ACCESS_DENIED);
        NtClose(first);
        ASSERT_EQ(Open(u"\\Device\\IoExclusive", &second), STATUS_SUCCESS);
        NtClose(second);
    });
}

TEST_F(IoTest, CompletingAPacketTwiceIsAVerifierViolation) {
    world.behaviour.completeTwice = true;
    expectClean = false;
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h), STATUS_SUCCESS);
        FILE_BASIC_INFORMATION basic;
        IO_STATUS_BLOCK iosb{};
        EXPECT_EQ(NtQueryInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation), STATUS_SUCCESS);
        world.behaviour.completeTwice = false;
        NtClose(h);
    });
    VerifierReport report = Shutdown();
    ASSERT_EQ(report.violations.size(), 1u) << report.ToString();
    EXPECT_NE(report.violations[0].find("completed twice"), std::string::npos);
    EXPECT_TRUE(report.pool.empty() && report.handles.empty() && report.fileObjects.empty()) << report.ToString();
}

// A dispatch routine that returns success for a request it failed: reported
// once, against the driver that did it, not the filter that handed the
// status on.
TEST_F(IoTest, AReturnedStatusThatDisagreesWithTheCompletedOneIsAVerifierViolation) {
    LoadFilter();
    expectClean = false;
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h), STATUS_SUCCESS);
        FILE_BASIC_INFORMATION basic;
        IO_STATUS_BLOCK iosb{};
        world.behaviour.status = STATUS_ACCESS_DENIED;
        EXPECT_EQ(NtQueryInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation), STATUS_ACCESS_DENIED);
        world.behaviour.misreport = true;  // STATUS_PENDING returned with a pending packet is fine
        world.behaviour.pend = true;
        NtQueryInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation);
        world.behaviour.pend = false;
        NtQueryInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation);
        world.behaviour = Behaviour{};
        NtClose(h);
    });
    VerifierReport report = Shutdown();
    ASSERT_EQ(report.violations.size(), 1u) << report.ToString();
    EXPECT_NE(report.violations[0].find("IRP_MJ_QUERY_INFORMATION dispatch of \\Driver\\IoTest returned "
                                        "STATUS_SUCCESS for a request it completed with STATUS_ACCESS_DENIED"),
              std::string::npos)
        << report.ToString();
}

}  // namespace
}  // namespace iotest

namespace iotest {
namespace {

// A request sent down while a spin lock or a fast mutex is held: file
// systems are called at PASSIVE_LEVEL, so each is reported.
TEST_F(IoTest, RaisedIrqlAcrossACallDownIsAVerifierViolation) {
    expectClean = false;
    InSystem([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h, GENERIC_READ | SYNCHRONIZE, FILE_SYNCHRONOUS_IO_NONALERT,
                       OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, true),
                  STATUS_SUCCESS);
        FILE_BASIC_INFORMATION basic;
        IO_STATUS_BLOCK iosb{};
        KSPIN_LOCK spin;
        KeInitializeSpinLock(&spin);
        KIRQL old;
        KeAcquireSpinLock(&spin, &old);
        ZwQueryInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation);
        KeReleaseSpinLock(&spin, old);
        FAST_MUTEX mutex;
        ExInitializeFastMutex(&mutex);
        ExAcquireFastMutex(&mutex);
        ZwQueryInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation);
        ExReleaseFastMutex(&mutex);
        EXPECT_EQ(ZwQueryInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation), STATUS_SUCCESS);
        ZwClose(h);
    });
    VerifierReport report = Shutdown();
    ASSERT_EQ(report.violations.size(), 2u) << report.ToString();
    EXPECT_NE(report.violations[0].find("at IRQL 2: a spin lock is held across a call down the stack"),
              std::string::npos);
    EXPECT_NE(report.violations[1].find("at IRQL 1: a fast mutex is held across a call down the stack"),
              std::string::npos);
}

}  // namespace
}  // namespace iotest
