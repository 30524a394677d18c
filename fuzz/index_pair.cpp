// The index file pair as the driver loads it: the input is split into a node
// file and a name file, the driver of a new machine is told to load them,
// and a loaded index is then used through the view (opens and listings look
// names up in it). Every run ends with the machine verifier-clean.
#include "view.h"

#include <fstream>

#include "control/control.h"

using namespace tervane::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t split = std::min<size_t>(size - 2, size_t(data[0] | data[1] << 8));
    View view(false);
    std::ofstream(view.host / "ctl/n.node", std::ios::binary).write(reinterpret_cast<const char*>(data + 2), long(split));
    std::ofstream(view.host / "ctl/n.name", std::ios::binary)
        .write(reinterpret_cast<const char*>(data + 2 + split), long(size - 2 - split));
    view.Control(IOCTL_SET_FILTER_LIST, Slots({u"C:\\layers\\pack", u"C:\\layers\\mid", u"C:\\layers\\base"}));
    if (view.Control(IOCTL_LOAD_FILTER_INDEX, Slots({u"C:\\ctl\\n.node", u"C:\\ctl\\n.name"})) != STATUS_SUCCESS)
        return 0;
    view.Control(IOCTL_ADD_PROCESS, ProcessRecord(1234, u"app.exe"));
    view.Control(IOCTL_START_FILTERING, {});
    for (const char16_t* path : {u"\\??\\C:\\dir\\c.txt", u"\\??\\C:\\dir\\sub\\d.txt", u"\\??\\C:\\e.txt",
                                 u"\\??\\C:\\dir", u"\\??\\C:\\"}) {
        HANDLE handle = nullptr;
        if (!NT_SUCCESS(view.Open(path, FILE_LIST_DIRECTORY | FILE_READ_DATA, FILE_OPEN, 0, &handle))) continue;
        view.machine->Run(view.app, [&] {
            std::vector<uint8_t> buffer(512);
            for (BOOLEAN restart = TRUE;; restart = FALSE) {
                IO_STATUS_BLOCK iosb = {};
                if (!NT_SUCCESS(NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                                     ULONG(buffer.size()), FileBothDirectoryInformation, FALSE,
                                                     nullptr, restart)))
                    break;
            }
            NtClose(handle);
        });
    }
    return 0;
}
