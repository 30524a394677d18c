// The verifier's lock-order record: every blocking acquire of an executive
// resource or a fast mutex adds "held before" edges from the locks the
// thread already holds to the one it asks for. An acquire whose lock already
// reaches one of the held locks through recorded edges is an inversion: two
// threads taking the two orders at once wait for each other forever. Each
// pair is reported once. A lock that is deleted or initialised again loses
// its edges (its memory may hold another lock next).
#include <algorithm>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "kernel.h"
#include "machine/services.h"
#include "ps/process.h"

namespace tervane::emu {
namespace {

struct LockOrder {
    std::mutex lock;
    std::map<const void*, std::set<const void*>> after;  // lock -> locks taken while holding it
    std::map<_ETHREAD*, std::vector<const void*>> held;  // per thread, in acquire order, recursion repeated
    std::set<std::pair<const void*, const void*>> reported;
};

LockOrder& State() {
    static LockOrder* state = new LockOrder();  // lives as long as the host process
    return *state;
}

bool Reaches(LockOrder& s, const void* from, const void* to) {
    std::vector<const void*> stack{from};
    std::set<const void*> seen;
    while (!stack.empty()) {
        const void* at = stack.back();
        stack.pop_back();
        if (at == to) return true;
        if (!seen.insert(at).second) continue;
        auto it = s.after.find(at);
        if (it != s.after.end()) stack.insert(stack.end(), it->second.begin(), it->second.end());
    }
    return false;
}

std::string Name(const char* kind, const void* lock) {
    char text[64];
    std::snprintf(text, sizeof(text), "%s %p", kind, lock);
    return text;
}

}  // namespace

void VerifierLockAcquiring(const void* lock, const char* kind, bool blocking) {
    _ETHREAD* thread = CurrentThread();
    if (!thread) return;
    LockOrder& s = State();
    std::vector<std::string> inversions;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        auto& held = s.held[thread];
        if (blocking && std::find(held.begin(), held.end(), lock) == held.end()) {
            for (const void* before : held) {
                if (s.after[before].count(lock)) continue;
                if (Reaches(s, lock, before)) {
                    auto pair = std::minmax(before, lock);
                    if (s.reported.insert(pair).second)
                        inversions.push_back("lock-order inversion: " + Name(kind, lock) + " acquired while holding " +
                                             Name("lock", before) + ", which was acquired while holding it before");
                    continue;
                }
                s.after[before].insert(lock);
            }
        }
    }
    for (const std::string& what : inversions) VerifierViolation(what);
}

void VerifierLockAcquired(const void* lock) {
    _ETHREAD* thread = CurrentThread();
    if (!thread) return;
    LockOrder& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.held[thread].push_back(lock);
}

void VerifierLockReleased(const void* lock, _ETHREAD* owner) {
    if (!owner) return;
    LockOrder& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.held.find(owner);
    if (it == s.held.end()) return;
    auto& held = it->second;
    auto last = std::find(held.rbegin(), held.rend(), lock);
    if (last != held.rend()) held.erase(std::next(last).base());
    if (held.empty()) s.held.erase(it);
}

void VerifierLockForget(const void* lock) {
    LockOrder& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.after.erase(lock);
    for (auto& [before, locks] : s.after) locks.erase(lock);
    for (auto it = s.reported.begin(); it != s.reported.end();)
        it = (it->first == lock || it->second == lock) ? s.reported.erase(it) : std::next(it);
}

void LockOrderReset() {
    LockOrder& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.after.clear();
    s.held.clear();
    s.reported.clear();
}

}  // namespace tervane::emu
