// The names a monitored process sends to create and rename: long ones,
// names relative to a handle (sometimes closed already), with the bypass
// suffix, with wildcards, and into the filter directories themselves. No
// input may change a lower filter directory.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "view.h"

using namespace tervane::fuzz;

namespace {

// A name from the input: a prefix chosen by the input, then its characters,
// some replaced by wildcards or separators, sometimes the bypass suffix.
std::u16string MakeName(Input& input) {
    static const char16_t* const kPrefixes[] = {u"\\??\\C:\\",          u"\\??\\C:\\dir\\",
                                                u"\\??\\C:\\layers\\base\\", u"\\??\\C:\\layers\\mid\\dir\\",
                                                u"\\??\\C:\\dir\\sub\\",   u""};
    const uint8_t shape = input.Byte();
    std::u16string name = kPrefixes[shape % 6];
    std::u16string tail = input.Name(shape & 0x40 ? 300 : 24);
    static const char16_t kSpecial[] = u"*?<>\"\\.:";
    for (char16_t& c : tail)
        if (c >= 0xFF00) c = kSpecial[c % 8];
        else if (c >= 0x100 && (c & 0xFF) < 0x20) c = char16_t('a' + c % 26);
    name += tail;
    if (shape & 0x80) name += u"_??$";
    return name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    View& view = View::Shared();
    static const std::string lower = view.LowerLayers();
    Input input(data, size);
    const uint8_t mode = input.Byte();
    HANDLE related = nullptr;
    if (mode & 1) {
        view.Open(u"\\??\\C:\\dir", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE, &related);
        if ((mode & 2) && related != nullptr) view.machine->Run(view.app, [&] { NtClose(related); });
    }
    std::u16string name = MakeName(input);
    if (related != nullptr) name.erase(0, name.find(u'\\', 5) + 1);  // relative to the directory
    static const ULONG kDispositions[] = {FILE_OPEN, FILE_CREATE, FILE_OPEN_IF, FILE_OVERWRITE_IF, FILE_SUPERSEDE};
    const ULONG disposition = kDispositions[(mode >> 2) % 5];
    const ULONG options = (mode & 0x20) ? FILE_DIRECTORY_FILE : (mode & 0x40) ? FILE_DELETE_ON_CLOSE : 0;
    HANDLE handle = nullptr;
    view.Open(name, GENERIC_READ | GENERIC_WRITE | DELETE, disposition, options, &handle, related);
    view.machine->Run(view.app, [&] {
        if (handle != nullptr) {
            std::u16string target = MakeName(input);
            std::vector<uint8_t> buffer(sizeof(FILE_RENAME_INFORMATION) + target.size() * 2);
            auto* info = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
            info->ReplaceIfExists = BOOLEAN(mode & 0x80);
            info->RootDirectory = (mode & 2) ? nullptr : related;
            info->FileNameLength = ULONG(target.size() * 2);
            memcpy(info->FileName, target.data(), target.size() * 2);
            IO_STATUS_BLOCK iosb = {};
            NtSetInformationFile(handle, &iosb, info, ULONG(buffer.size()), FileRenameInformation);
            NtClose(handle);
        }
        if (related != nullptr && !(mode & 2)) NtClose(related);
    });
    if (view.LowerLayers() != lower) {
        std::fprintf(stderr, "a lower filter directory changed\n");
        std::abort();
    }
    return 0;
}
