// The kernel debug log: everything DbgPrint and RtlAssert write, in order.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace tervane::emu {

class DebugLog {
public:
    explicit DebugLog(bool echo) : echo_(echo) {}
    // Appends TEXT (UTF-8). A write without a trailing newline leaves the
    // line open; the next write continues it.
    void Write(const std::string& text);
    // Complete lines, then the open line if any, without their newlines.
    std::vector<std::string> Lines() const;
    // Everything written since the previous call.
    std::string TakeNew();

private:
    mutable std::mutex lock_;
    bool echo_;
    std::string text_;
    size_t taken_ = 0;
};

}  // namespace tervane::emu
