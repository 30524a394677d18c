#include "workspace.h"

#include <cstring>
#include <fstream>
#include <stdexcept>

#include "control/control.h"
#include "control/filter_directory.h"
#include "core/tervane.h"
#include "indexfile/indexfile.h"

namespace fs = std::filesystem;

namespace tervane::bench {

namespace {

constexpr uint32_t kMonitoredPid = 1234;
constexpr uint32_t kOtherPid = 77;
constexpr uint32_t kControllerPid = 900;

// Creates that reached the file system: its create dispatch routine is
// wrapped by one that counts.
std::atomic<uint64_t> gFileSystemCreates{0};
PDRIVER_DISPATCH gFileSystemCreate = nullptr;

NTSTATUS NTAPI CountingCreate(PDEVICE_OBJECT device, PIRP irp) {
    gFileSystemCreates.fetch_add(1, std::memory_order_relaxed);
    return gFileSystemCreate(device, irp);
}

[[noreturn]] void Fail(const std::string& what, NTSTATUS status) {
    throw std::runtime_error(what + ": " + emu::StatusName(status));
}

std::string Narrow(const std::u16string& s) { return emu::Utf16ToUtf8(s); }

void WriteHostFile(const fs::path& path, uint64_t bytes, char fill) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::string chunk(std::min<uint64_t>(bytes, 1 << 20), fill);
    for (uint64_t left = bytes; left != 0;) {
        uint64_t n = std::min<uint64_t>(left, chunk.size());
        out.write(chunk.data(), static_cast<std::streamsize>(n));
        left -= n;
    }
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

// The NAME slots of the control protocol, one per path.
std::vector<uint8_t> Slots(const std::vector<std::u16string>& paths) {
    std::vector<uint8_t> buffer(paths.size() * PATH_SLOT_SIZE, 0);
    for (size_t i = 0; i < paths.size(); i++) {
        memcpy(buffer.data() + i * PATH_SLOT_SIZE, paths[i].data(),
               std::min<size_t>(paths[i].size() * 2, PATH_SLOT_SIZE - 2));
    }
    return buffer;
}

std::vector<uint8_t> ProcessRecord(ULONG pid, const std::u16string& name) {
    std::vector<uint8_t> record(sizeof(TervaneProcessRecord), 0);
    memcpy(record.data(), &pid, sizeof pid);
    memcpy(record.data() + sizeof pid, name.data(), std::min<size_t>(name.size() * 2, 38));
    return record;
}

}  // namespace

Sizes FullSizes() { return Sizes{64ull << 20, 10000, 10000, 10000, {1000, 10000, 100000}}; }
Sizes SmokeSizes() { return Sizes{1ull << 20, 100, 100, 100, {1000}}; }

uint64_t NeededBytes(const Sizes& sizes) {
    // The copy-up source, its copy, the machine's copy and the host's copy;
    // every small file at one 4 KiB block; slack for metadata and indexes.
    uint64_t small = 3ull * sizes.listEntries + sizes.hiddenNames + 16;
    return 4 * sizes.copyBytes + small * 4096 + (64ull << 20);
}

std::string Numbered(const std::string& prefix, uint64_t n, const std::string& suffix) {
    std::string text = prefix;
    text.append(std::to_string(n)).append(suffix);
    return text;
}

std::u16string DrivePath(char drive, const std::string& relative) {
    std::u16string path = u"\\??\\";
    path += static_cast<char16_t>(drive);
    path += u":\\";
    for (char c : relative) path += c == '/' ? u'\\' : static_cast<char16_t>(c);
    return path;
}

NTSTATUS TryOpenFile(const std::u16string& ntPath, HANDLE* handle, ACCESS_MASK access, ULONG disposition,
                     ULONG options, ULONG share) {
    UNICODE_STRING name = emu::MakeUnicodeString(ntPath);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb = {};
    *handle = nullptr;
    return NtCreateFile(handle, access, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL, share, disposition, options,
                        nullptr, 0);
}

HANDLE OpenFile(const std::u16string& ntPath, ACCESS_MASK access, ULONG disposition, ULONG options, ULONG share) {
    HANDLE handle = nullptr;
    NTSTATUS status = TryOpenFile(ntPath, &handle, access, disposition, options, share);
    if (!NT_SUCCESS(status)) Fail("open " + Narrow(ntPath), status);
    return handle;
}

ULONG ReadAt(HANDLE handle, void* buffer, ULONG length, LONGLONG offset) {
    IO_STATUS_BLOCK iosb = {};
    LARGE_INTEGER at;
    at.QuadPart = offset;
    NTSTATUS status = NtReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, length, &at, nullptr);
    if (!NT_SUCCESS(status)) Fail("read", status);
    return static_cast<ULONG>(iosb.Information);
}

ULONG WriteAt(HANDLE handle, const void* buffer, ULONG length, LONGLONG offset) {
    IO_STATUS_BLOCK iosb = {};
    LARGE_INTEGER at;
    at.QuadPart = offset;
    NTSTATUS status =
        NtWriteFile(handle, nullptr, nullptr, nullptr, &iosb, const_cast<void*>(buffer), length, &at, nullptr);
    if (!NT_SUCCESS(status)) Fail("write", status);
    return static_cast<ULONG>(iosb.Information);
}

void CloseFile(HANDLE handle) {
    NTSTATUS status = NtClose(handle);
    if (!NT_SUCCESS(status)) Fail("close", status);
}

Workspace::Workspace(const fs::path& parent, const Sizes& sizes) : sizes_(sizes) {
    std::string tmpl = (parent / "tervane-bench-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("cannot make a directory in " + parent.string());
    host_ = tmpl;
    try {
        MakeTrees();
        Configure();
    } catch (...) {
        if (machine_) {
            machine_->Run(machine_->SystemProcess(), [] { ReleaseDriverState(); });
            machine_->Shutdown();
            machine_.reset();
        }
        fs::remove_all(host_);
        throw;
    }
}

Workspace::~Workspace() {
    Finish();
    std::error_code ignored;
    fs::remove_all(host_, ignored);
}

void Workspace::MakeTrees() {
    const fs::path layers[] = {host_ / files::kPack, host_ / files::kMid, host_ / files::kBase};
    for (int i = 0; i < 3; i++) {
        fs::create_directories(layers[i] / "bench");
        WriteHostFile(layers[i] / "bench" / Numbered("f", i, ".dat"), files::kSmallFile, 'a' + i);
        fs::create_directories(layers[i] / "list");
        for (uint32_t n = 0; n < sizes_.listEntries; n++) {
            std::ofstream(layers[i] / "list" / Numbered(Numbered("L", i, "-"), n, ".txt"));
        }
    }
    for (int k = 0; k < 4; k++) {
        WriteHostFile(layers[2] / "bench" / Numbered("t", k, ".dat"), files::kSmallFile, 't');
    }
    WriteHostFile(layers[2] / "bench" / "io.dat", 1 << 20, 'r');
    WriteHostFile(layers[0] / "bench" / "wio.dat", 1 << 20, 'w');
    WriteHostFile(layers[1] / "bench" / "big.dat", sizes_.copyBytes, 'b');
    WriteHostFile(layers[2] / "hidden" / "target.dat", files::kSmallFile, 'h');
    fs::create_directories(host_ / "ctl");
    fs::create_directories(host_ / "WINDOWS");

    indexfile::IndexFiles index;
    std::string error;
    if (!indexfile::BuildIndex(layers[2], &index, &error) ||
        !indexfile::WriteIndexFiles(index, host_ / "ctl" / "base.node", host_ / "ctl" / "base.name", &error)) {
        throw std::runtime_error("index of the base: " + error);
    }
}

void Workspace::Configure() {
    machine_ = std::make_unique<emu::Machine>();
    machine_->SetRegistryString("\\Registry\\Machine\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion",
                                "SystemRoot", "C:\\WINDOWS");
    NTSTATUS status = machine_->MountVolume('C', host_.string());
    if (!NT_SUCCESS(status)) Fail("mount C:", status);
    status = machine_->MountVolume('D', host_.string());
    if (!NT_SUCCESS(status)) Fail("mount D:", status);
    status = machine_->LoadDriver(u"Tervane", ::DriverEntry);
    if (!NT_SUCCESS(status)) Fail("load the driver", status);
    app_ = machine_->CreateProcess(kMonitoredPid, "app.exe");
    other_ = machine_->CreateProcess(kOtherPid, "other.exe");
    controller_ = machine_->CreateProcess(kControllerPid, "controller.exe");

    // The file system's driver object, from an open of D: (no filter there).
    machine_->Run(machine_->SystemProcess(), [] {
        HANDLE handle = OpenFile(u"\\??\\D:\\", GENERIC_READ | SYNCHRONIZE, FILE_OPEN,
                                 FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        PFILE_OBJECT fileObject = nullptr;
        NTSTATUS s = ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr);
        if (!NT_SUCCESS(s)) Fail("reference D:", s);
        PDRIVER_OBJECT driver = IoGetRelatedDeviceObject(fileObject)->DriverObject;
        if (gFileSystemCreate == nullptr) gFileSystemCreate = driver->MajorFunction[IRP_MJ_CREATE];
        driver->MajorFunction[IRP_MJ_CREATE] = CountingCreate;
        ObDereferenceObject(fileObject);
        CloseFile(handle);
    });

    machine_->Run(controller_, [&] {
        HANDLE control = OpenFile(u"\\??\\Tervane", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_OPEN,
                                  FILE_SYNCHRONOUS_IO_NONALERT, 0);
        controlHandle_ = control;
        auto send = [&](ULONG code, const std::vector<uint8_t>& input, const char* what) {
            std::vector<uint8_t> in = input;
            std::vector<uint8_t> out(64, 0);
            IO_STATUS_BLOCK iosb = {};
            NtDeviceIoControlFile(control, nullptr, nullptr, nullptr, &iosb, code, in.data(), ULONG(in.size()),
                                  out.data(), ULONG(out.size()));
            if (!NT_SUCCESS(iosb.Status)) Fail(what, iosb.Status);
        };
        send(IOCTL_SET_FILTER_LIST, Slots({u"C:\\layers\\pack", u"C:\\layers\\mid", u"C:\\layers\\base"}),
             "set the filter directories");
        send(IOCTL_LOAD_FILTER_INDEX, Slots({u"C:\\ctl\\base.node", u"C:\\ctl\\base.name"}), "load the index");
        send(IOCTL_ADD_PROCESS, ProcessRecord(kMonitoredPid, u"app.exe"), "add the monitored process");
        send(IOCTL_START_FILTERING, {}, "start filtering");
    });
}

std::string Workspace::Finish() {
    if (finished_ || !machine_) return {};
    finished_ = true;
    if (controlHandle_ != nullptr) {
        machine_->Run(controller_, [&] { NtClose(controlHandle_); });
    }
    machine_->TerminateProcess(app_);
    machine_->TerminateProcess(other_);
    machine_->TerminateProcess(controller_);
    machine_->Run(machine_->SystemProcess(), [] { ReleaseDriverState(); });
    emu::VerifierReport report = machine_->Shutdown();
    machine_.reset();
    return report.Clean() ? std::string() : report.ToString();
}

uint64_t Workspace::FileSystemCreates() const { return gFileSystemCreates.load(); }
void Workspace::ResetFileSystemCreates() { gFileSystemCreates.store(0); }

}  // namespace tervane::bench
