// The kernel debug log: everything DbgPrint and RtlAssert write, in order.
// It keeps the most recent output only, up to a capacity in bytes, dropping
// the oldest whole lines first, and counts what it dropped.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "machine/adaptive_mutex.h"

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
    static constexpr size_t kChunkBytes = 64 * 1024;

    void Trim();
    // The kept offset of the first C at or after kept offset FROM, or npos.
    size_t Find(size_t from, char c) const;
    // The kept text from kept offset FROM on, in one piece.
    std::string Kept(size_t from) const;

    mutable AdaptiveMutex lock_;  // every driver log line takes it: a short spin before sleeping
    bool echo_;
    size_t capacity_;
    // The kept output (whole lines, then the open line) in chunks of at most
    // kChunkBytes (a longer write makes a chunk of its own); the first chunk's
    // first head_ bytes are no longer kept.
    std::deque<std::string> chunks_;
    std::string spare_;        // the chunk last freed, kept for the next one
    size_t head_ = 0;
    size_t size_ = 0;          // bytes kept
    uint64_t base_ = 0;        // bytes written before the first kept one
    uint64_t taken_ = 0;       // bytes written before the first one TakeNew has not returned
    uint64_t droppedLines_ = 0;
};

}  // namespace tervane::emu
