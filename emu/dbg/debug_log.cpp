// The kernel debug log and DbgPrint.
#include "dbg/debug_log.h"

#include <cstdarg>
#include <cstdio>

#include "kernel.h"
#include "machine/machine_impl.h"
#include "rtl/codepage.h"

namespace tervane::emu {

void DebugLog::Write(const std::string& text) {
    std::lock_guard<std::mutex> guard(lock_);
    text_ += text;
    if (echo_) {
        std::fwrite(text.data(), 1, text.size(), stderr);
        std::fflush(stderr);
    }
}

std::vector<std::string> DebugLog::Lines() const {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text_.size()) {
        size_t end = text_.find('\n', start);
        if (end == std::string::npos) end = text_.size();
        std::string line = text_.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

std::string DebugLog::TakeNew() {
    std::lock_guard<std::mutex> guard(lock_);
    std::string fresh = text_.substr(taken_);
    taken_ = text_.size();
    return fresh;
}

void DbgLogWrite(const std::string& text) { CurrentMachine().log.Write(text); }

}  // namespace tervane::emu

using namespace tervane::emu;

// One DbgPrint transmits at most 512 bytes, terminator included; longer
// output is cut there, as on NT.
constexpr size_t kDbgPrintLimit = 512;

extern "C" ULONG DbgPrint(PCSTR Format, ...) {
    char buffer[kDbgPrintLimit];
    va_list args;
    va_start(args, Format);
    int n = _vsnprintf(buffer, sizeof(buffer) - 1, Format, args);
    va_end(args);
    size_t length = n < 0 ? sizeof(buffer) - 1 : static_cast<size_t>(n);
    DbgLogWrite(AnsiToUtf8(buffer, length));
    return STATUS_SUCCESS;
}
