// How a redirected open fares as the machine fills: the pool each open
// holds, and the cost of one more open as the number of files held open and
// the number of hidden names beside it grow.
#include <stdexcept>
#include <vector>

#include "bench.h"
#include "index/file_index.h"

namespace tervane::bench {

namespace {

uint64_t PoolBytes(emu::Machine& machine, const char* tag) {
    uint64_t bytes = 0;
    for (const auto& usage : machine.PoolUsage()) {
        if (tag == nullptr || usage.tag == tag) bytes += usage.outstandingBytes;
    }
    return bytes;
}

// Files of the listed folder in the base, opened by a process and held.
class HeldOpens {
public:
    HeldOpens(Workspace& ws, emu::Process* process, char drive, const std::string& folder)
        : ws_(ws), process_(process), drive_(drive), folder_(folder) {}
    // Holds exactly COUNT files open.
    void Hold(uint32_t count) {
        ws_.machine().Run(process_, [&] {
            while (handles_.size() > count) {
                CloseFile(handles_.back());
                handles_.pop_back();
            }
            while (handles_.size() < count) {
                handles_.push_back(OpenFile(
                    DrivePath(drive_, Numbered(folder_ + "/L2-", handles_.size(), ".txt"))));
            }
        });
    }

private:
    Workspace& ws_;
    emu::Process* process_;
    char drive_;
    std::string folder_;
    std::vector<HANDLE> handles_;
};

void OpenReadClose(const std::u16string& path) {
    char buffer[files::kSmallFile];
    HANDLE handle = OpenFile(path);
    ReadAt(handle, buffer, sizeof buffer, 0);
    CloseFile(handle);
}

// Names hidden beside C:\hidden\target.dat: grows to COUNT and stays.
void HideNames(Workspace& ws, uint32_t count) {
    static uint32_t hidden = 0;
    ws.machine().Run(ws.machine().SystemProcess(), [&] {
        for (; hidden < count; hidden++) {
            std::u16string path = u"C:\\hidden\\gone" + emu::Utf8ToUtf16(std::to_string(hidden)) + u".dat";
            UNICODE_STRING us = emu::MakeUnicodeString(path);
            HidePath(&us);
        }
    });
}

std::vector<uint32_t> Steps(uint32_t largest, uint32_t first) {
    std::vector<uint32_t> steps;
    for (uint32_t n = first; n <= largest; n *= 10) steps.push_back(n);
    if (steps.empty() || steps.back() != largest) steps.push_back(largest);
    return steps;
}

}  // namespace

void RegisterPoolBenchmarks(Context& ctx) {
    Workspace& ws = *ctx.ws;
    const uint32_t count = std::min<uint32_t>(1000, ws.sizes().listEntries);
    struct Case {
        const char* name;
        emu::Process* process;
        char drive;
        std::string folder;
    };
    const Case cases[] = {{"pool/redirected", ws.app(), 'C', "list"},
                          {"pool/passthrough", ws.other(), 'C', std::string(files::kBase) + "/list"}};
    for (const Case& c : cases) {
        Register(ctx, c.name, [&ws, c, count](benchmark::State& state) {
            HeldOpens held(ws, c.process, c.drive, c.folder);
            uint64_t all = 0, general = 0;
            for (auto _ : state) {
                uint64_t before = PoolBytes(ws.machine(), nullptr);
                uint64_t beforeGeneral = PoolBytes(ws.machine(), "Trvm");
                held.Hold(count);
                all += PoolBytes(ws.machine(), nullptr) - before;
                general += PoolBytes(ws.machine(), "Trvm") - beforeGeneral;
                held.Hold(0);
            }
            const double opens = static_cast<double>(count) * static_cast<double>(state.iterations());
            state.counters["bytes_per_open"] = static_cast<double>(all) / opens;
            state.counters["trvm_per_open"] = static_cast<double>(general) / opens;
        })->Iterations(1);
    }
}

void RegisterScaleBenchmarks(Context& ctx) {
    Workspace& ws = *ctx.ws;
    auto held = std::make_shared<HeldOpens>(ws, ws.app(), 'C', "list");
    for (uint32_t n : Steps(ws.sizes().heldOpens, 10)) {
        Register(ctx, Numbered("scale/opens/", n), [&ws, held, n](benchmark::State& state) {
            Guard(state, [&] { held->Hold(n); });
            const std::u16string path = DrivePath('C', "bench/f2.dat");
            LoopIn(ws, ws.app(), state, [&] { OpenReadClose(path); });
        });
    }
    ctx.cleanups.push_back([held] { held->Hold(0); });
    std::vector<uint32_t> hidden = Steps(ws.sizes().hiddenNames, 100);
    hidden.insert(hidden.begin(), 0);
    for (uint32_t n : hidden) {
        Register(ctx, Numbered("scale/hidden/", n), [&ws, n](benchmark::State& state) {
            HideNames(ws, n);
            const std::u16string path = DrivePath('C', "hidden/target.dat");
            LoopIn(ws, ws.app(), state, [&] { OpenReadClose(path); });
        });
    }
}

}  // namespace tervane::bench
