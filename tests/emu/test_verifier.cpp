// The verifier's shutdown report: leaks of pool, handles and views, and
// misuse recorded during the run.
#include <gtest/gtest.h>

#include <emu/machine.h>

#include "kernel.h"

using namespace tervane::emu;

namespace {
constexpr ULONG kTag = 0x6D767254;  // "Trvm"
bool Contains(const std::vector<std::string>& lines, const std::string& text) {
    for (const std::string& line : lines)
        if (line.find(text) != std::string::npos) return true;
    return false;
}
}  // namespace

TEST(Verifier, ReportsLeakedPoolByTag) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        ExAllocatePoolWithTag(NonPagedPool, 40, kTag);
        ExAllocatePoolWithTag(NonPagedPool, 2, kTag);
    });
    VerifierReport report = machine.Shutdown();
    EXPECT_FALSE(report.Clean());
    ASSERT_EQ(report.pool.size(), 1u);
    EXPECT_EQ(report.pool[0].tag, "Trvm");
    EXPECT_EQ(report.pool[0].outstandingBlocks, 2u);
    EXPECT_EQ(report.pool[0].outstandingBytes, 42u);
    EXPECT_NE(report.ToString().find("Trvm blocks=2 bytes=42"), std::string::npos) << report.ToString();
}

TEST(Verifier, ReportsKernelHandlesAndViewsLeftOpen) {
    Machine machine;
    Process* user = machine.CreateProcess(1200, "app.exe");
    machine.Run(user, [] {
        // A process's own handles close when it exits: not a leak.
        HANDLE event;
        ASSERT_EQ(ZwCreateEvent(&event, SYNCHRONIZE, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
    });
    machine.Run(machine.SystemProcess(), [] {
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        LARGE_INTEGER size;
        size.QuadPart = 4096;
        HANDLE section;
        ASSERT_EQ(ZwCreateSection(&section, SECTION_ALL_ACCESS, &oa, &size, PAGE_READWRITE, SEC_COMMIT, nullptr),
                  STATUS_SUCCESS);
        PVOID object;
        ASSERT_EQ(ObReferenceObjectByHandle(section, 0, *MmSectionObjectType, KernelMode, &object, nullptr),
                  STATUS_SUCCESS);
        PVOID base;
        SIZE_T viewSize = 0;
        ASSERT_EQ(MmMapViewInSystemSpace(object, &base, &viewSize), STATUS_SUCCESS);
        ObDereferenceObject(object);
    });
    VerifierReport report = machine.Shutdown();
    EXPECT_EQ(report.handles.size(), 1u) << report.ToString();
    EXPECT_TRUE(Contains(report.handles, "Section")) << report.ToString();
    EXPECT_EQ(report.views.size(), 1u) << report.ToString();
    EXPECT_TRUE(report.violations.empty()) << report.ToString();
}

TEST(Verifier, RecordsMisuseInOrderAndInTheLog) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        PVOID block = ExAllocatePoolWithTag(NonPagedPool, 8, kTag);
        ExFreePoolWithTag(block, 0x66767254);  // wrong tag ("Trvf")
        PVOID again = ExAllocatePoolWithTag(NonPagedPool, 8, kTag);
        ExFreePool(again);
        ExFreePool(again);  // double free
        ERESOURCE r;
        ExInitializeResourceLite(&r);
        ExReleaseResourceLite(&r);
        ExDeleteResourceLite(&r);
        LONG before = EmuKeGetCriticalRegionDepth();
        KeEnterCriticalRegion();  // a dispatch routine that forgets to leave
        VerifierCheckCriticalRegion(before, "IRP_MJ_CREATE dispatch of \\Driver\\Test");
        EXPECT_EQ(EmuKeGetCriticalRegionDepth(), before);
    });
    VerifierReport report = machine.Shutdown();
    ASSERT_EQ(report.violations.size(), 4u) << report.ToString();
    EXPECT_NE(report.violations[0].find("tagged \"Trvm\" freed with tag \"Trvf\""), std::string::npos);
    EXPECT_NE(report.violations[1].find("double free"), std::string::npos);
    EXPECT_NE(report.violations[2].find("does not own it"), std::string::npos);
    EXPECT_NE(report.violations[3].find("IRP_MJ_CREATE dispatch of \\Driver\\Test"), std::string::npos);
    EXPECT_TRUE(report.pool.empty()) << "the wrongly tagged block was still freed";
    EXPECT_TRUE(Contains(machine.LogLines(), "*** Verifier: ")) << "violations reach the debug log";
}

// Two locks taken in both orders (by one thread here, by two threads in the
// field, where they wait for each other forever): reported once per pair,
// for resources and fast mutexes alike. Recursion and a lock deleted and made
// again start no false report.
TEST(Verifier, ReportsLockOrderInversionsOncePerPair) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        ERESOURCE a, b;
        FAST_MUTEX m;
        ExInitializeResourceLite(&a);
        ExInitializeResourceLite(&b);
        ExInitializeFastMutex(&m);
        auto nested = [](auto first, auto second) {
            KeEnterCriticalRegion();
            first(true);
            second(true);
            second(false);
            first(false);
            KeLeaveCriticalRegion();
        };
        auto resource = [](ERESOURCE& r, bool shared) {
            return [&r, shared](bool take) {
                if (!take) return ExReleaseResourceLite(&r);
                shared ? (void)ExAcquireResourceSharedLite(&r, TRUE) : (void)ExAcquireResourceExclusiveLite(&r, TRUE);
            };
        };
        auto mutex = [&m](bool take) { take ? ExAcquireFastMutex(&m) : ExReleaseFastMutex(&m); };
        nested(resource(a, false), resource(b, true));
        nested(resource(a, true), resource(a, true));   // recursion: no order
        nested(resource(b, false), resource(a, false));  // inversion 1
        nested(resource(b, true), resource(a, true));    // the same pair again
        nested(mutex, resource(a, false));
        nested(resource(b, false), mutex);               // b -> m -> a closes a cycle with a -> b: inversion 2
        ExDeleteResourceLite(&b);
        ExInitializeResourceLite(&b);                    // a new lock at the same address
        nested(resource(b, false), resource(a, false));
        ExDeleteResourceLite(&a);
        ExDeleteResourceLite(&b);
    });
    VerifierReport report = machine.Shutdown();
    ASSERT_EQ(report.violations.size(), 2u) << report.ToString();
    EXPECT_NE(report.violations[0].find("lock-order inversion: resource"), std::string::npos) << report.ToString();
    EXPECT_NE(report.violations[1].find("lock-order inversion: fast mutex"), std::string::npos) << report.ToString();
}
