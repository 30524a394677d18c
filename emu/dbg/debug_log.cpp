// The kernel debug log and DbgPrint.
#include "dbg/debug_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "kernel.h"
#include "machine/machine_impl.h"
#include "rtl/codepage.h"

namespace tervane::emu {

void DebugLog::Write(std::string_view text) {
    std::lock_guard<std::mutex> guard(lock_);
    text_ += text;
    // Trimmed in steps of half the capacity, so each byte is moved about
    // twice however much is written.
    if (text_.size() > capacity_ + capacity_ / 2) Trim();
    if (echo_) {
        std::fwrite(text.data(), 1, text.size(), stderr);
        std::fflush(stderr);
    }
}

void DebugLog::Trim() {
    size_t cut = text_.size() - capacity_;
    // Whole lines go; an open line longer than the capacity loses its head.
    size_t newline = text_.find('\n', cut == 0 ? 0 : cut - 1);
    if (newline != std::string::npos) cut = newline + 1;
    droppedLines_ += static_cast<uint64_t>(std::count(text_.begin(), text_.begin() + cut, '\n'));
    text_.erase(0, cut);
    base_ += cut;
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
    size_t from = taken_ > base_ ? static_cast<size_t>(taken_ - base_) : 0;
    std::string fresh = text_.substr(from);
    taken_ = base_ + text_.size();
    return fresh;
}

uint64_t DebugLog::DroppedLines() const {
    std::lock_guard<std::mutex> guard(lock_);
    return droppedLines_;
}

void DbgLogWrite(std::string_view text) { CurrentMachine().log.Write(text); }

}  // namespace tervane::emu

using namespace tervane::emu;

// One DbgPrint transmits at most 512 bytes, terminator included; longer
// output is cut there, as on NT.
constexpr size_t kDbgPrintLimit = 512;

extern "C" ULONG vDbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, va_list Arguments) {
    char buffer[kDbgPrintLimit];
    int n = _vsnprintf(buffer, sizeof(buffer) - 1, Format, Arguments);
    size_t length = n < 0 ? sizeof(buffer) - 1 : static_cast<size_t>(n);
    // Plain ASCII reads the same in UTF-8; only other text is converted.
    bool ascii = std::all_of(buffer, buffer + length, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (ascii) DbgLogWrite(std::string_view(buffer, length));
    else DbgLogWrite(AnsiToUtf8(buffer, length));
    return STATUS_SUCCESS;
}

extern "C" ULONG DbgPrint(PCSTR Format, ...) {
    va_list args;
    va_start(args, Format);
    ULONG status = vDbgPrintEx(0, 0, Format, args);
    va_end(args);
    return status;
}
