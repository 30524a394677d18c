// The verifier's record of misuse and its report.
#include <sstream>

#include "machine/machine_impl.h"

namespace tervane::emu {

void Verifier::Violation(const std::string& what) {
    std::lock_guard<std::mutex> guard(lock_);
    violations_.push_back(what);
}

std::vector<std::string> Verifier::Violations() const {
    std::lock_guard<std::mutex> guard(lock_);
    return violations_;
}

void VerifierViolation(const std::string& what) {
    Machine::Impl& machine = CurrentMachine();
    machine.verifier.Violation(what);
    machine.log.Write("*** Verifier: " + what + "\n");
}

std::string VerifierReport::ToString() const {
    std::ostringstream out;
    if (Clean()) out << "verifier: clean\n";
    if (!pool.empty()) {
        out << "pool outstanding:\n";
        for (const PoolTagUsage& u : pool)
            out << "  " << u.tag << " blocks=" << u.outstandingBlocks << " bytes=" << u.outstandingBytes
                << " allocs=" << u.allocs << " frees=" << u.frees << "\n";
    }
    auto section = [&out](const char* title, const std::vector<std::string>& lines) {
        if (lines.empty()) return;
        out << title << ":\n";
        for (const std::string& line : lines) out << "  " << line << "\n";
    };
    section("handles open", handles);
    section("file objects alive", fileObjects);
    section("views mapped", views);
    section("violations", violations);
    section("kept by drivers without an unload routine (not leaks)", kept);
    return out.str();
}

}  // namespace tervane::emu
