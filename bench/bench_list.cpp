// A full listing of a folder: on the host (a directory read and the status
// of each entry, what any listing that reports sizes and times must do),
// one real folder through the driver for a process it does not monitor, and
// the merged listing of the same folder's three copies (one per filter
// directory) for a monitored process.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <stdexcept>
#include <vector>

#include "bench.h"

namespace tervane::bench {

namespace {

// Lists the directory to the end; the number of entries.
uint64_t ListAll(const std::u16string& path) {
    HANDLE handle = OpenFile(path, FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_OPEN,
                             FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    std::vector<uint8_t> buffer(64 * 1024);
    uint64_t entries = 0;
    for (BOOLEAN restart = TRUE;; restart = FALSE) {
        IO_STATUS_BLOCK iosb = {};
        NTSTATUS status = NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                               ULONG(buffer.size()), FileDirectoryInformation, FALSE, nullptr, restart);
        if (status == STATUS_NO_MORE_FILES) break;
        if (!NT_SUCCESS(status)) throw std::runtime_error("listing: " + emu::StatusName(status));
        for (size_t offset = 0;;) {
            auto* info = reinterpret_cast<PFILE_DIRECTORY_INFORMATION>(buffer.data() + offset);
            entries++;
            if (info->NextEntryOffset == 0) break;
            offset += info->NextEntryOffset;
        }
    }
    CloseFile(handle);
    return entries;
}

void List(Workspace& ws, benchmark::State& state, emu::Process* process, const std::u16string& path,
          uint64_t expected) {
    uint64_t total = 0;
    LoopIn(ws, process, state, [&] {
        uint64_t entries = ListAll(path);
        if (entries != expected) throw std::runtime_error(Numbered("listing returned ", entries));
        total += entries;
    });
    state.SetItemsProcessed(static_cast<int64_t>(total));
}

}  // namespace

void RegisterListBenchmarks(Context& ctx) {
    Workspace& ws = *ctx.ws;
    const uint64_t perCopy = ws.sizes().listEntries;
    Register(ctx, "list/host", [&ws](benchmark::State& state) {
        const std::string path = (ws.host() / files::kBase / "list").string();
        uint64_t total = 0;
        for (auto _ : state) {
            DIR* dir = opendir(path.c_str());
            if (!dir) {
                state.SkipWithError("host listing failed");
                break;
            }
            struct stat st;
            while (dirent* entry = readdir(dir)) {
                if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) total++;
            }
            closedir(dir);
        }
        state.SetItemsProcessed(static_cast<int64_t>(total));
    })->Unit(benchmark::kMillisecond);
    Register(ctx, "list/real", [&ws, perCopy](benchmark::State& state) {
        List(ws, state, ws.other(), DrivePath('C', std::string(files::kBase) + "/list"), perCopy + 2);
    })->Unit(benchmark::kMillisecond);
    Register(ctx, "list/merged", [&ws, perCopy](benchmark::State& state) {
        // "." and ".." of each of the three copies, and every copy's entries.
        List(ws, state, ws.app(), DrivePath('C', "list"), 3 * (perCopy + 2));
    })->Unit(benchmark::kMillisecond);
}

}  // namespace tervane::bench
