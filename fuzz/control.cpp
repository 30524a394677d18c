// The control device: every code (and codes it does not know), random input
// and output lengths and contents, in random order, through NtDeviceIoControlFile
// and as request packets built in kernel mode. What the input adds to the
// lists is removed again, so that inputs do not pile up.
#include "view.h"

#include <cstring>

#include "control/control.h"
#include "core/tervane.h"

using namespace tervane::fuzz;

namespace {

const ULONG kCodes[] = {IOCTL_ADD_PROCESS,        IOCTL_REMOVE_PROCESS,     IOCTL_GET_PROCESS_LIST,
                        IOCTL_CLEAR_PROCESS_LIST, IOCTL_GET_FILTER_LIST,    IOCTL_SET_FILTER_LIST,
                        IOCTL_ADD_EXCLUSIONS,     IOCTL_REMOVE_EXCLUSIONS,  IOCTL_GET_EXCLUSION_LIST,
                        IOCTL_GET_PROCESS_COUNT,  IOCTL_GET_FILTER_COUNT,   IOCTL_GET_EXCLUSION_COUNT,
                        IOCTL_STOP_FILTERING,     IOCTL_START_FILTERING,    IOCTL_LOAD_FILTER_INDEX,
                        IOCTL_RENAME_INDEX_PATH};

// A request packet built in kernel mode, as another driver sends it, for the
// controller's open of the control device.
NTSTATUS SendPacket(View& view, ULONG code, std::vector<uint8_t>& in, std::vector<uint8_t>& out) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    view.machine->Run(view.controller, [&] {
        PFILE_OBJECT file = nullptr;
        if (!NT_SUCCESS(ObReferenceObjectByHandle(view.control, 0, *IoFileObjectType, KernelMode, (PVOID*)&file,
                                                  nullptr)))
            std::abort();
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        // A value no request completes with marks a status block left
        // unwritten: NT writes it for a failure only when the request pended.
        constexpr NTSTATUS kUnwritten = 0x7fffffff;
        IO_STATUS_BLOCK iosb = {};
        iosb.Status = kUnwritten;
        PIRP irp = IoBuildDeviceIoControlRequest(code, g_pControlDevice, in.empty() ? nullptr : in.data(),
                                                 ULONG(in.size()), out.empty() ? nullptr : out.data(),
                                                 ULONG(out.size()), FALSE, &event, &iosb);
        if (irp != nullptr) {
            IoGetNextIrpStackLocation(irp)->FileObject = file;
            status = IoCallDriver(g_pControlDevice, irp);
            if (status == STATUS_PENDING) {
                KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
                status = iosb.Status;
            } else if (iosb.Status != kUnwritten && status != iosb.Status) {
                std::abort();  // the caller would be told two different things
            }
        }
        ObDereferenceObject(file);
    });
    return status;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    View& view = View::Shared();
    Input input(data, size);
    std::vector<std::vector<uint8_t>> added;  // exclusion slots to take back
    for (int calls = 0; calls < 16 && !input.Empty(); ++calls) {
        const uint8_t choice = input.Byte();
        ULONG code = kCodes[choice % (sizeof(kCodes) / sizeof(kCodes[0]))];
        if (choice >= 0xF0) code = ULONG(input.Word()) << 16 | input.Word();  // any code at all
        const bool packet = input.Byte() & 1;
        std::vector<uint8_t> in = input.Bytes(input.Word() % 2100);
        std::vector<uint8_t> out(input.Word() % 2100);
        if (code == IOCTL_ADD_EXCLUSIONS) added.push_back(in);
        NTSTATUS status;
        if (packet) status = SendPacket(view, code, in, out);
        else status = view.Control(code, in, &out);
        (void)status;
    }
    for (const auto& slots : added) view.Control(IOCTL_REMOVE_EXCLUSIONS, slots);
    view.Control(IOCTL_CLEAR_PROCESS_LIST, {});
    view.Control(IOCTL_ADD_PROCESS, ProcessRecord(1234, u"app.exe"));
    view.Control(IOCTL_START_FILTERING, {});
    return 0;
}
