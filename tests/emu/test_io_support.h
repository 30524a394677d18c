// A small test driver for the I/O manager's tests: a named device
// "\Device\IoTest" that records every packet it receives and serves it the
// way the test configured, and a filter driver whose device is attached
// over it and records and passes every packet down.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <emu/machine.h>

#include "kernel.h"

namespace iotest {

using namespace tervane::emu;

struct Seen {
    PDEVICE_OBJECT device;
    UCHAR major, minor, flags;
    CHAR location;  // Irp->CurrentLocation when the driver got the packet
    PFILE_OBJECT file;
    ULONG fileFlags;  // the file object's flags then (it may be gone later)
    ULONG createOptions;
    std::u16string fileName;
    PFILE_OBJECT targetFile;  // SetFile.FileObject
    PVOID systemBuffer, userBuffer, type3Input;
    PMDL mdl;
    ULONG irpFlags;
};

// What the lower driver does; tests change it before a request.
struct Behaviour {
    NTSTATUS status = STATUS_SUCCESS;     // final status of every packet but cleanup and close
    bool pend = false;                    // return STATUS_PENDING and complete on another thread
    bool completeTwice = false;           // misuse: complete the packet a second time
    bool misreport = false;               // misuse: return STATUS_SUCCESS whatever the packet completed with
    bool cachedFiles = false;             // creates attach an FSRTL_COMMON_FCB_HEADER context
    bool fastIoAnswers = false;           // fast I/O routines say TRUE (else they decline)
    ULONG deviceFlags = 0;                // DO_BUFFERED_IO / DO_DIRECT_IO for the device
    bool exclusive = false;
};

struct World {
    std::mutex lock;
    std::vector<Seen> lower, filter;
    std::vector<std::string> fastCalls;
    Behaviour behaviour;
    PDEVICE_OBJECT lowerDevice = nullptr, filterDevice = nullptr;
    FSRTL_COMMON_FCB_HEADER header{};

    std::vector<UCHAR> Majors(const std::vector<Seen>& seen) {
        std::lock_guard<std::mutex> guard(lock);
        std::vector<UCHAR> majors;
        for (const auto& s : seen) majors.push_back(s.major);
        return majors;
    }
};
extern World* g_world;

inline Seen Record(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    Seen s{};
    s.device = device;
    s.major = sp->MajorFunction;
    s.minor = sp->MinorFunction;
    s.flags = sp->Flags;
    s.location = irp->CurrentLocation;
    s.file = sp->FileObject;
    s.fileFlags = s.file ? s.file->Flags : 0;
    s.systemBuffer = irp->AssociatedIrp.SystemBuffer;
    s.userBuffer = irp->UserBuffer;
    s.mdl = irp->MdlAddress;
    s.irpFlags = irp->Flags;
    if (s.major == IRP_MJ_CREATE) {
        s.createOptions = sp->Parameters.Create.Options;
        if (s.file)
            s.fileName.assign(reinterpret_cast<char16_t*>(s.file->FileName.Buffer), s.file->FileName.Length / 2);
    }
    if (s.major == IRP_MJ_SET_INFORMATION) s.targetFile = sp->Parameters.SetFile.FileObject;
    if (s.major == IRP_MJ_DEVICE_CONTROL) s.type3Input = sp->Parameters.DeviceIoControl.Type3InputBuffer;
    return s;
}

NTSTATUS NTAPI LowerEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
NTSTATUS NTAPI FilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

// Control codes the lower device serves by copying input to output.
constexpr ULONG kEchoBuffered = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kEchoInDirect = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_IN_DIRECT, FILE_ANY_ACCESS);
constexpr ULONG kEchoOutDirect = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_OUT_DIRECT, FILE_ANY_ACCESS);
constexpr ULONG kEchoNeither = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x803, METHOD_NEITHER, FILE_ANY_ACCESS);
constexpr ULONG kNeedsWrite = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x804, METHOD_BUFFERED, FILE_WRITE_ACCESS);

// The fixture: a machine with the test device loaded, a user process to
// run requests in, and the verifier's report checked at the end.
class IoTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    void LoadFilter();
    void InProcess(const std::function<void()>& fn) { machine->Run(process, fn); }
    void InSystem(const std::function<void()>& fn) { machine->Run(machine->SystemProcess(), fn); }
    // Opens NAME ("\Device\IoTest\..."), user mode unless KERNEL.
    NTSTATUS Open(const std::u16string& name, PHANDLE handle, ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE,
                  ULONG options = FILE_SYNCHRONOUS_IO_NONALERT, ULONG attributes = OBJ_CASE_INSENSITIVE,
                  bool kernel = false, HANDLE root = nullptr, IO_STATUS_BLOCK* iosbOut = nullptr);

    VerifierReport Shutdown();

    std::unique_ptr<Machine> machine;
    Process* process = nullptr;
    World world;
    bool expectClean = true;
};

}  // namespace iotest
