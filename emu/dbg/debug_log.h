// The kernel debug log: everything DbgPrint and RtlAssert write, in order.
// It keeps the most recent output only, up to a capacity in bytes, dropping
// the oldest whole lines first, and counts what it dropped.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace tervane::emu {

class DebugLog {
public:
    DebugLog(bool echo, size_t capacity) : echo_(echo), capacity_(capacity == 0 ? 1 : capacity) {}
    // Appends TEXT (UTF-8). A write without a trailing newline leaves the
    // line open; the next write continues it.
    void Write(std::string_view text);
    // Complete lines, then the open line if any, without their newlines.
    std::vector<std::string> Lines() const;
    // Everything written since the previous call that is still kept.
    std::string TakeNew();
    // Lines dropped so far to stay within the capacity.
    uint64_t DroppedLines() const;

private:
    void Trim();

    mutable std::mutex lock_;
    bool echo_;
    size_t capacity_;
    std::string text_;         // the kept output: whole lines, then the open line
    uint64_t base_ = 0;        // bytes written before text_[0]
    uint64_t taken_ = 0;       // bytes written before the first one TakeNew has not returned
    uint64_t droppedLines_ = 0;
};

}  // namespace tervane::emu
