// The kernel debug log: one driver log line (its head and its message, two
// DbgPrint calls) captured, as a redirected read writes it.
#include "bench.h"

namespace tervane::bench {

void RegisterLogBenchmarks(Context& ctx) {
    Workspace& ws = *ctx.ws;
    Register(ctx, "log/line", [&ws](benchmark::State& state) {
        static const WCHAR kPath[] = L"C:\\bench\\f2.dat";
        UNICODE_STRING path;
        path.Buffer = const_cast<PWCHAR>(kPath);
        path.Length = sizeof(kPath) - sizeof(WCHAR);
        path.MaximumLength = sizeof(kPath);
        UNICODE_STRING process = path;
        process.Length = 14;
        LoopIn(ws, ws.machine().SystemProcess(), state, [&] {
            DbgPrint("[TRVN]%x[%wZ][%d]: %s() (%d):\t", 0x1234, &process, 1234, "TervaneRead", 120);
            DbgPrint("ReadFile\t[%wZ] /w Length[%d] OffsetHigh[%d] OffsetLow[%d] Res[%d] Status[%x] Info[%x]\r\n",
                     &path, 4096, 0, 0, 0, 0, 4096);
        });
        ws.machine().TakeNewLog();
    })->Unit(benchmark::kNanosecond);
}

}  // namespace tervane::bench
