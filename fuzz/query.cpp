// NtQueryDirectoryFile and NtQueryInformationFile through the driver on
// redirected opens (a file of the pack location, one of a lower filter
// directory, a merged directory, the root) with random information classes,
// buffer lengths, restart and single-entry flags and patterns. Buffers are
// exactly as long as asked, so that AddressSanitizer sees any write past.
#include "view.h"

using namespace tervane::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    View& view = View::Shared();
    Input input(data, size);
    static const char16_t* const kPaths[] = {u"\\??\\C:\\dir\\a.txt", u"\\??\\C:\\dir\\c.txt", u"\\??\\C:\\dir",
                                             u"\\??\\C:\\", u"\\??\\C:\\dir\\sub"};
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(view.Open(kPaths[input.Byte() % 5], FILE_LIST_DIRECTORY | FILE_READ_DATA | FILE_READ_ATTRIBUTES,
                              FILE_OPEN, 0, &handle)))
        return 0;
    view.machine->Run(view.app, [&] {
        for (int calls = 0; calls < 12 && !input.Empty(); ++calls) {
            const uint8_t kind = input.Byte();
            const auto infoClass = FILE_INFORMATION_CLASS(input.Byte() % 80);
            std::vector<uint8_t> buffer(input.Word() % 1200);
            IO_STATUS_BLOCK iosb = {};
            void* at = buffer.empty() ? nullptr : buffer.data();
            if (kind & 1) {
                NtQueryInformationFile(handle, &iosb, at, ULONG(buffer.size()), infoClass);
                continue;
            }
            std::u16string pattern = input.Name(12);
            UNICODE_STRING us = tervane::emu::MakeUnicodeString(pattern);
            NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &iosb, at, ULONG(buffer.size()), infoClass,
                                 BOOLEAN(kind & 2), (kind & 4) ? &us : nullptr, BOOLEAN(kind & 8));
        }
        NtClose(handle);
    });
    return 0;
}
