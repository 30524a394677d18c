// The verifier's lock-order record: every blocking acquire of an executive
// resource or a fast mutex adds "held before" edges from the locks the
// thread already holds to the one it asks for. An acquire whose lock already
// reaches one of the held locks through recorded edges is an inversion: two
// threads taking the two orders at once wait for each other forever. Each
// pair is reported once. A lock that is deleted or initialised again loses
// its edges (its memory may hold another lock next).
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include "kernel.h"
#include "machine/adaptive_mutex.h"
#include "machine/services.h"
#include "machine/sharded_set.h"
#include "ps/process.h"

namespace tervane::emu {
namespace {

// The locks each thread holds, in acquire order, recursion repeated. Kept
// apart from the graph, one list per thread, so that an acquire with nothing
// held (most of them) costs no lock that other threads take. A lock released
// for another thread changes that thread's list, hence its own mutex.
struct HeldList {
    AdaptiveMutex lock;
    std::vector<const void*> locks;
};
struct HeldShard {
    AdaptiveMutex lock;
    std::unordered_map<_ETHREAD*, std::unique_ptr<HeldList>> held;
};
// Bumped when the lists are forgotten, so that no thread keeps using its
// cached one.
std::atomic<uint64_t> g_heldGeneration{1};
constexpr size_t kHeldShards = 16;

struct LockOrder {
    std::mutex lock;  // the graph and what was reported
    std::map<const void*, std::set<const void*>> after;   // lock -> locks taken while holding it
    std::map<const void*, std::set<const void*>> before;  // the same edges the other way round
    std::set<std::pair<const void*, const void*>> reported;
    // Every lock that has an edge: a lock initialised or deleted outside it
    // (most are) is forgotten without the graph's lock.
    ShardedPointerSet<const void> inGraph;
    HeldShard heldShards[kHeldShards];
    HeldShard& HeldOf(_ETHREAD* thread) { return heldShards[ShardIndex(thread, kHeldShards)]; }
};

LockOrder& State() {
    static LockOrder* state = new LockOrder();  // lives as long as the host process
    return *state;
}

// THREAD's held-lock list, made when CREATE (else null when it has none).
// The calling thread finds its own through a cache, without the shard.
HeldList* HeldListOf(LockOrder& s, _ETHREAD* thread, bool create) {
    struct Cache {
        _ETHREAD* thread = nullptr;
        uint64_t generation = 0;
        HeldList* list = nullptr;
    };
    thread_local Cache cache;
    const uint64_t generation = g_heldGeneration.load(std::memory_order_acquire);
    const bool mine = thread == CurrentThread();
    if (mine && cache.thread == thread && cache.generation == generation) return cache.list;
    HeldList* list;
    {
        HeldShard& shard = s.HeldOf(thread);
        std::lock_guard<AdaptiveMutex> guard(shard.lock);
        auto it = shard.held.find(thread);
        if (it == shard.held.end()) {
            if (!create) return nullptr;
            it = shard.held.emplace(thread, std::make_unique<HeldList>()).first;
        }
        list = it->second.get();
    }
    if (mine) cache = Cache{thread, generation, list};
    return list;
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
    if (!blocking) return;
    thread_local std::vector<const void*> held;  // a copy, in a buffer that stays with the thread
    {
        HeldList* list = HeldListOf(s, thread, false);
        if (!list) return;
        std::lock_guard<AdaptiveMutex> guard(list->lock);
        if (list->locks.empty()) return;  // nothing held: no order to record
        held.assign(list->locks.begin(), list->locks.end());
    }
    std::vector<std::string> inversions;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (std::find(held.begin(), held.end(), lock) == held.end()) {
            for (const void* before : held) {
                auto known = s.after.find(before);
                if (known != s.after.end() && known->second.count(lock)) continue;
                if (Reaches(s, lock, before)) {
                    auto pair = std::minmax(before, lock);
                    if (s.reported.insert(pair).second)
                        inversions.push_back("lock-order inversion: " + Name(kind, lock) + " acquired while holding " +
                                             Name("lock", before) + ", which was acquired while holding it before");
                    continue;
                }
                s.after[before].insert(lock);
                s.before[lock].insert(before);
                s.inGraph.Insert(before);
                s.inGraph.Insert(lock);
            }
        }
    }
    for (const std::string& what : inversions) VerifierViolation(what);
}

void VerifierLockAcquired(const void* lock) {
    _ETHREAD* thread = CurrentThread();
    if (!thread) return;
    HeldList* list = HeldListOf(State(), thread, true);
    std::lock_guard<AdaptiveMutex> guard(list->lock);
    list->locks.push_back(lock);
}

void VerifierLockReleased(const void* lock, _ETHREAD* owner) {
    if (!owner) return;
    HeldList* list = HeldListOf(State(), owner, false);
    if (!list) return;
    std::lock_guard<AdaptiveMutex> guard(list->lock);
    auto& held = list->locks;
    auto last = std::find(held.rbegin(), held.rend(), lock);
    if (last != held.rend()) held.erase(std::next(last).base());
    // An emptied list stays with its thread: the next acquire allocates nothing.
}

void VerifierLockForget(const void* lock) {
    LockOrder& s = State();
    if (!s.inGraph.Contains(lock)) return;
    std::lock_guard<std::mutex> guard(s.lock);
    s.inGraph.Erase(lock);
    // Its edges both ways, found through the two indexes.
    auto drop = [lock](std::map<const void*, std::set<const void*>>& from,
                       std::map<const void*, std::set<const void*>>& back) {
        auto it = from.find(lock);
        if (it == from.end()) return;
        for (const void* other : it->second) {
            auto b = back.find(other);
            if (b == back.end()) continue;
            b->second.erase(lock);
            if (b->second.empty()) back.erase(b);
        }
        from.erase(it);
    };
    drop(s.after, s.before);
    drop(s.before, s.after);
    for (auto it = s.reported.begin(); it != s.reported.end();)
        it = (it->first == lock || it->second == lock) ? s.reported.erase(it) : std::next(it);
}

void LockOrderReset() {
    LockOrder& s = State();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        s.after.clear();
        s.before.clear();
        s.reported.clear();
        s.inGraph.TakeAll();
    }
    g_heldGeneration.fetch_add(1, std::memory_order_acq_rel);
    for (HeldShard& shard : s.heldShards) {
        std::lock_guard<AdaptiveMutex> guard(shard.lock);
        shard.held.clear();
    }
}

}  // namespace tervane::emu
