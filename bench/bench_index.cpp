// Index lookups of paths five components deep in indexes of 1,000 to
// 100,000 entries, for paths the index holds and paths it does not. The
// index is made in memory with the driver's own insert, files spread over
// folders of 1,000.
#include <memory>
#include <stdexcept>
#include <vector>

#include "bench.h"
#include "index/file_index.h"

namespace tervane::bench {

namespace {

constexpr uint32_t kPerFolder = 1000;
constexpr size_t kProbes = 1024;

std::u16string IndexPath(uint32_t n, const char16_t* leaf) {
    std::u16string folder = std::u16string(u"C:\\tree\\group") + char16_t(u'0' + n / kPerFolder % 10) + u"\\set" +
                            char16_t(u'0' + n / (10 * kPerFolder) % 10) + u"\\dir";
    std::u16string digits;
    for (uint32_t v = n;; v /= 10) {
        digits.insert(digits.begin(), char16_t(u'0' + v % 10));
        if (v < 10) break;
    }
    return folder + u"\\" + leaf + digits + u".txt";
}

// An index of ENTRIES file paths; freed when the benchmark ends.
struct MemoryIndex {
    PFileIndex index = nullptr;
    std::vector<std::u16string> present;
    std::vector<std::u16string> absent;
};

std::unique_ptr<MemoryIndex> BuildIndex(uint32_t entries) {
    auto built = std::make_unique<MemoryIndex>();
    built->index = CreateFileIndex(FILTER_INDEX_AREA_SIZE, FILTER_INDEX_AREA_SIZE);
    if (built->index == nullptr) throw std::runtime_error("no index");
    for (uint32_t n = 0; n < entries; n++) {
        std::u16string path = IndexPath(n, u"file");
        UNICODE_STRING us = emu::MakeUnicodeString(path);
        if (!InsertIndexPath(built->index, &us, 0)) throw std::runtime_error("index full");
    }
    // Probes spread evenly over the whole index.
    for (size_t i = 0; i < kProbes; i++) {
        uint32_t n = static_cast<uint32_t>((i * 7919) % entries);
        built->present.push_back(IndexPath(n, u"file"));
        built->absent.push_back(IndexPath(n, u"gone"));
    }
    return built;
}

}  // namespace

void RegisterIndexBenchmarks(Context& ctx) {
    Workspace& ws = *ctx.ws;
    for (uint32_t entries : ws.sizes().indexEntries) {
        for (bool present : {true, false}) {
            const std::string name =
                Numbered("index/", entries, present ? "/present" : "/absent");
            Register(ctx, name, [&ws, entries, present](benchmark::State& state) {
                ws.machine().Run(ws.machine().SystemProcess(), [&] {
                    Guard(state, [&] {
                        std::unique_ptr<MemoryIndex> built = BuildIndex(entries);
                        const std::vector<std::u16string>& paths = present ? built->present : built->absent;
                        std::vector<UNICODE_STRING> strings;
                        for (const auto& p : paths) strings.push_back(emu::MakeUnicodeString(p));
                        size_t i = 0;
                        FileIndexEntry result;
                        for (auto _ : state) {
                            BOOLEAN found = LookupIndexPath(built->index, &strings[i], &result);
                            if (found != (present ? TRUE : FALSE)) {
                                state.SkipWithError("wrong lookup result");
                                break;
                            }
                            i = (i + 1) % strings.size();
                        }
                        FreeFileIndex(built->index);
                    });
                });
            })->Unit(benchmark::kNanosecond);
        }
    }
}

}  // namespace tervane::bench
