// The object namespace and handle tables: lookup statuses, symbolic links,
// handle values, kernel handles, access checks and reference counts.
#include <gtest/gtest.h>

#include <emu/machine.h>

#include "kernel.h"

namespace {

using namespace tervane::emu;

class ObTest : public ::testing::Test {
protected:
    void SetUp() override {
        machine = std::make_unique<Machine>();
        process = machine->CreateProcess(200, "obtest.exe");
    }
    void TearDown() override {
        VerifierReport report = machine->Shutdown();
        if (expectClean) {
            EXPECT_TRUE(report.Clean()) << report.ToString();
        }
    }
    std::unique_ptr<Machine> machine;
    Process* process = nullptr;
    bool expectClean = true;
};

struct LookupCase {
    const char16_t* name;
    bool caseInsensitive;
    NTSTATUS status;
    const char16_t* remaining;
};

TEST_F(ObTest, LookupsAnswerWithNtsStatuses) {
    const LookupCase cases[] = {
        {u"\\Device\\Target", true, STATUS_SUCCESS, u""},
        {u"\\device\\TARGET", true, STATUS_SUCCESS, u""},
        {u"\\device\\TARGET", false, STATUS_OBJECT_PATH_NOT_FOUND, u""},
        {u"\\Device\\target", false, STATUS_OBJECT_NAME_NOT_FOUND, u""},
        {u"\\Device\\Target\\a\\b.txt", true, STATUS_SUCCESS, u"\\a\\b.txt"},
        {u"\\??\\Q:\\x", true, STATUS_SUCCESS, u"\\x"},
        {u"\\DosDevices\\Q:", true, STATUS_SUCCESS, u""},
        {u"Device\\Target", true, STATUS_OBJECT_PATH_SYNTAX_BAD, u""},
        {u"", true, STATUS_OBJECT_PATH_SYNTAX_BAD, u""},
        {u"\\Nowhere", true, STATUS_OBJECT_NAME_NOT_FOUND, u""},
        {u"\\Nowhere\\x", true, STATUS_OBJECT_PATH_NOT_FOUND, u""},
        {u"\\Device\\\\Target", true, STATUS_OBJECT_NAME_INVALID, u""},
        {u"\\Device\\", true, STATUS_OBJECT_NAME_INVALID, u""},
        {u"\\??\\Dangling:", true, STATUS_OBJECT_NAME_NOT_FOUND, u""},
    };
    machine->Run(machine->SystemProcess(), [&] {
        PDEVICE_OBJECT device;
        UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\Device\\Target");
        ASSERT_EQ(IoCreateDevice(nullptr, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device), STATUS_SUCCESS);
        ASSERT_EQ(ObCreateSymbolicLinkInternal(u"\\??\\Q:", u"\\Device\\Target"), STATUS_SUCCESS);
        ASSERT_EQ(ObCreateSymbolicLinkInternal(u"\\??\\Dangling:", u"\\Device\\Gone"), STATUS_SUCCESS);
        for (const LookupCase& c : cases) {
            std::u16string text(c.name);
            SCOPED_TRACE(Utf16ToUtf8(text));
            UNICODE_STRING u = MakeUnicodeString(text);
            PVOID object = nullptr;
            std::u16string remaining;
            EXPECT_EQ(ObLookupName(&u, c.caseInsensitive, &object, &remaining), c.status);
            if (NT_SUCCESS(c.status)) {
                EXPECT_EQ(object, device);
                EXPECT_EQ(remaining, c.remaining);
                ObDereferenceObject(object);
            }
        }
        UNICODE_STRING odd{3, 4, name.Buffer};
        PVOID object;
        std::u16string remaining;
        EXPECT_EQ(ObLookupName(&odd, TRUE, &object, &remaining), STATUS_OBJECT_NAME_INVALID);
        PDEVICE_OBJECT second;
        EXPECT_EQ(IoCreateDevice(nullptr, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &second),
                  STATUS_OBJECT_NAME_COLLISION);
        UNICODE_STRING q = RTL_CONSTANT_STRING(L"\\??\\Q:");
        UNICODE_STRING dangling = RTL_CONSTANT_STRING(L"\\??\\Dangling:");
        EXPECT_EQ(IoDeleteSymbolicLink(&q), STATUS_SUCCESS);
        EXPECT_EQ(IoDeleteSymbolicLink(&q), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(IoDeleteSymbolicLink(&dangling), STATUS_SUCCESS);
        IoDeleteDevice(device);
    });
}

TEST_F(ObTest, SymbolicLinksAreCreatedQueriedAndRefusedTwice) {
    machine->Run(process, [&] {
        UNICODE_STRING link = RTL_CONSTANT_STRING(L"\\??\\Z:");
        UNICODE_STRING target = RTL_CONSTANT_STRING(L"\\Device\\Somewhere");
        EXPECT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_SUCCESS);
        EXPECT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_OBJECT_NAME_COLLISION);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &link, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        HANDLE h;
        ASSERT_EQ(NtOpenSymbolicLinkObject(&h, SYMBOLIC_LINK_QUERY, &oa), STATUS_SUCCESS);
        WCHAR small[4];
        WCHAR big[64];
        UNICODE_STRING out{0, sizeof small, small};
        ULONG returned = 0;
        EXPECT_EQ(NtQuerySymbolicLinkObject(h, &out, &returned), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(returned, target.Length + 2u) << "the length needed, terminator included";
        out = {0, sizeof big, big};
        ASSERT_EQ(NtQuerySymbolicLinkObject(h, &out, &returned), STATUS_SUCCESS);
        EXPECT_EQ(out.Length, target.Length);
        EXPECT_EQ(memcmp(out.Buffer, target.Buffer, target.Length), 0);
        EXPECT_EQ(NtClose(h), STATUS_SUCCESS);
        EXPECT_EQ(IoDeleteSymbolicLink(&link), STATUS_SUCCESS);
    });
}

TEST_F(ObTest, HandlesAreMultiplesOfFourReusedAndKernelHandlesCarryTheHighBit) {
    machine->Run(process, [&] {
        HANDLE a, b, c, k;
        ASSERT_EQ(NtCreateEvent(&a, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
        ASSERT_EQ(NtCreateEvent(&b, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 4, 0u);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(b), reinterpret_cast<uintptr_t>(a) + 4);
        ASSERT_EQ(NtClose(a), STATUS_SUCCESS);
        ASSERT_EQ(NtCreateEvent(&c, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
        EXPECT_EQ(c, a) << "a freed value is given out again";

        OBJECT_ATTRIBUTES kernel;
        InitializeObjectAttributes(&kernel, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        ASSERT_EQ(ZwCreateEvent(&k, EVENT_ALL_ACCESS, &kernel, NotificationEvent, FALSE), STATUS_SUCCESS);
        EXPECT_NE(reinterpret_cast<uintptr_t>(k) & 0x80000000u, 0u);
        EXPECT_EQ(NtSetEvent(k, nullptr), STATUS_INVALID_HANDLE) << "user mode cannot use a kernel handle";
        EXPECT_EQ(ZwSetEvent(k, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(k), STATUS_INVALID_HANDLE);
        EXPECT_EQ(ZwClose(k), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(nullptr), STATUS_INVALID_HANDLE);
        NtClose(b);
        NtClose(c);
    });
}

TEST_F(ObTest, ReferencingByHandleChecksTypeAndUserModeAccess) {
    machine->Run(process, [&] {
        HANDLE h;
        ASSERT_EQ(NtCreateEvent(&h, EVENT_QUERY_STATE | SYNCHRONIZE, nullptr, SynchronizationEvent, FALSE),
                  STATUS_SUCCESS);
        PVOID object;
        OBJECT_HANDLE_INFORMATION info{};
        EXPECT_EQ(ObReferenceObjectByHandle(h, EVENT_MODIFY_STATE, nullptr, UserMode, &object, &info),
                  STATUS_ACCESS_DENIED);
        EXPECT_EQ(ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, &object, &info),
                  STATUS_OBJECT_TYPE_MISMATCH);
        ASSERT_EQ(ObReferenceObjectByHandle(h, EVENT_MODIFY_STATE, nullptr, KernelMode, &object, &info),
                  STATUS_SUCCESS)
            << "kernel mode skips the access check";
        EXPECT_EQ(info.GrantedAccess, ACCESS_MASK(EVENT_QUERY_STATE | SYNCHRONIZE));
        LARGE_INTEGER timeout;
        timeout.QuadPart = -10000;  // 1 ms
        EXPECT_EQ(NtWaitForSingleObject(h, FALSE, &timeout), STATUS_TIMEOUT);
        EXPECT_EQ(NtSetEvent(h, nullptr), STATUS_ACCESS_DENIED);
        KeSetEvent(static_cast<PKEVENT>(object), 0, FALSE);
        EXPECT_EQ(NtWaitForSingleObject(h, FALSE, &timeout), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(h), STATUS_SUCCESS);
        EXPECT_EQ(ObPointerCount(object), 1) << "our reference outlives the handle";
        ObDereferenceObject(object);
    });
}

TEST_F(ObTest, NamedEventsOpenIfAndLoseTheirNameWithTheLastHandle) {
    machine->Run(process, [&] {
        UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\??\\Ready");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_OPENIF, nullptr, nullptr);
        HANDLE first, second;
        ASSERT_EQ(NtCreateEvent(&first, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_SUCCESS);
        EXPECT_EQ(NtCreateEvent(&second, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_OBJECT_NAME_EXISTS);
        NtSetEvent(second, nullptr);
        EXPECT_EQ(NtWaitForSingleObject(first, FALSE, nullptr), STATUS_SUCCESS) << "one object, two handles";
        oa.Attributes = OBJ_CASE_INSENSITIVE;
        HANDLE third;
        EXPECT_EQ(NtCreateEvent(&third, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_OBJECT_NAME_COLLISION);
        NtClose(first);
        NtClose(second);
        ASSERT_EQ(NtCreateEvent(&third, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_SUCCESS)
            << "the name went with the last handle";
        NtClose(third);
    });
}

TEST_F(ObTest, DereferencingADeadObjectIsAVerifierViolation) {
    expectClean = false;
    machine->Run(process, [&] {
        HANDLE h;
        ASSERT_EQ(NtCreateEvent(&h, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
        PVOID object;
        ASSERT_EQ(ObReferenceObjectByHandle(h, 0, nullptr, KernelMode, &object, nullptr), STATUS_SUCCESS);
        NtClose(h);
        ObDereferenceObject(object);
        ObDereferenceObject(object);  // one too many
    });
    VerifierReport report = machine->Shutdown();
    ASSERT_EQ(report.violations.size(), 1u) << report.ToString();
    EXPECT_NE(report.violations[0].find("not alive"), std::string::npos);
    EXPECT_TRUE(report.pool.empty() && report.handles.empty()) << report.ToString();
}

}  // namespace
