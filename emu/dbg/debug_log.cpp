// The kernel debug log and DbgPrint.
#include "dbg/debug_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kernel.h"
#include "machine/machine_impl.h"
#include "rtl/codepage.h"

namespace tervane::emu {

void DebugLog::Write(std::string_view text) {
    std::lock_guard<AdaptiveMutex> guard(lock_);
    if (chunks_.empty() || chunks_.back().size() + text.size() > kChunkBytes) {
        // A fresh chunk is given its full size at once (or is the one the
        // last trim freed), so appends never copy what is already kept.
        chunks_.emplace_back(std::move(spare_));
        spare_ = std::string();
        chunks_.back().clear();
        chunks_.back().reserve(kChunkBytes);
    }
    chunks_.back() += text;
    size_ += text.size();
    // Trimmed in steps of half the capacity; whole chunks are freed and the
    // kept text is never moved.
    if (size_ > capacity_ + capacity_ / 2) Trim();
    if (echo_) {
        std::fwrite(text.data(), 1, text.size(), stderr);
        std::fflush(stderr);
    }
}

size_t DebugLog::Find(size_t from, char c) const {
    size_t at = 0;  // kept offset of the chunk's first kept byte
    for (size_t i = 0; i < chunks_.size(); i++) {
        const size_t skip = i == 0 ? head_ : 0;
        const size_t length = chunks_[i].size() - skip;
        if (from < at + length) {
            const char* begin = chunks_[i].data() + skip;
            const size_t offset = from > at ? from - at : 0;
            if (const void* hit = std::memchr(begin + offset, c, length - offset))
                return at + static_cast<size_t>(static_cast<const char*>(hit) - begin);
        }
        at += length;
    }
    return std::string::npos;
}

void DebugLog::Trim() {
    size_t cut = size_ - capacity_;
    // Whole lines go; an open line longer than the capacity loses its head.
    size_t newline = Find(cut == 0 ? 0 : cut - 1, '\n');
    if (newline != std::string::npos) cut = newline + 1;
    size_ -= cut;
    base_ += cut;
    while (cut != 0) {
        std::string& front = chunks_.front();
        const size_t take = std::min(cut, front.size() - head_);
        droppedLines_ += static_cast<uint64_t>(std::count(front.begin() + static_cast<ptrdiff_t>(head_),
                                                          front.begin() + static_cast<ptrdiff_t>(head_ + take), '\n'));
        head_ += take;
        cut -= take;
        if (head_ == front.size() && chunks_.size() > 1) {
            spare_ = std::move(front);
            chunks_.pop_front();
            head_ = 0;
        }
    }
}

std::string DebugLog::Kept(size_t from) const {
    std::string text;
    text.reserve(size_ - std::min(from, size_));
    size_t at = 0;
    for (size_t i = 0; i < chunks_.size(); i++) {
        const size_t skip = i == 0 ? head_ : 0;
        const size_t length = chunks_[i].size() - skip;
        if (from < at + length) {
            const size_t offset = from > at ? from - at : 0;
            text.append(chunks_[i], skip + offset, length - offset);
        }
        at += length;
    }
    return text;
}

std::vector<std::string> DebugLog::Lines() const {
    std::lock_guard<AdaptiveMutex> guard(lock_);
    const std::string text = Kept(0);
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

std::string DebugLog::TakeNew() {
    std::lock_guard<AdaptiveMutex> guard(lock_);
    size_t from = taken_ > base_ ? static_cast<size_t>(taken_ - base_) : 0;
    std::string fresh = Kept(from);
    taken_ = base_ + size_;
    return fresh;
}

uint64_t DebugLog::DroppedLines() const {
    std::lock_guard<AdaptiveMutex> guard(lock_);
    return droppedLines_;
}

void DbgLogWrite(std::string_view text) { CurrentMachine().log.Write(text); }

}  // namespace tervane::emu

using namespace tervane::emu;

// One DbgPrint transmits at most 512 bytes, terminator included; longer
// output is cut there, as on NT.
constexpr size_t kDbgPrintLimit = 512;

namespace {

// Whether TEXT is plain ASCII, eight bytes at a time.
bool IsAscii(const char* text, size_t length) {
    constexpr uint64_t kHighBits = 0x8080808080808080ull;
    size_t i = 0;
    for (; i + 8 <= length; i += 8) {
        uint64_t word;
        std::memcpy(&word, text + i, sizeof word);
        if (word & kHighBits) return false;
    }
    for (; i < length; ++i)
        if (static_cast<unsigned char>(text[i]) >= 0x80) return false;
    return true;
}

}  // namespace

extern "C" ULONG vDbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, va_list Arguments) {
    char buffer[kDbgPrintLimit];
    int n = _vsnprintf(buffer, sizeof(buffer) - 1, Format, Arguments);
    size_t length = n < 0 ? sizeof(buffer) - 1 : static_cast<size_t>(n);
    // Plain ASCII reads the same in UTF-8; only other text is converted.
    if (IsAscii(buffer, length)) DbgLogWrite(std::string_view(buffer, length));
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
