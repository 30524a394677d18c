// Non-paged pool with per-tag accounting (poolmon-like) and fault injection.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <emu/machine.h>

#include "machine/adaptive_mutex.h"
#include "machine/flat_table.h"

namespace tervane::emu {

std::string PoolTagText(ULONG tag);   // the four characters in memory order
ULONG PoolTagFromText(const std::string& text);

class PoolTracker {
public:
    ~PoolTracker();
    // Null when the allocation is refused by fault injection. OWNER: the
    // driver image that asked, or null.
    void* Allocate(SIZE_T bytes, ULONG tag, const void* owner = nullptr);
    // CHECKTAG: the caller named a tag (ExFreePoolWithTag) that must match.
    void Free(void* block, ULONG tag, bool checkTag);
    // Size of the live block that holds ADDRESS, 0 when none (used by the
    // verifier to look for live objects inside a block being freed).
    bool Lookup(const void* block, SIZE_T* bytes, ULONG* tag) const;
    // Blocks of the owners in SKIP are left out.
    std::vector<PoolTagUsage> Usage(bool outstandingOnly, const std::set<const void*>& skip = {}) const;
    std::vector<PoolTagUsage> OwnedUsage(const void* owner) const;  // its outstanding blocks

    // Counts one allocation (pool or lookaside) and says whether fault
    // injection refuses it; the observer hears of every refusal.
    bool ShouldFail(ULONG tag);
    uint64_t Attempts() const;
    uint64_t AttemptsWithTag(ULONG tag) const;

    void FailNth(uint64_t n, bool withTag, ULONG tag);
    void FailTag(ULONG tag, uint64_t skip);
    void ClearFaults();
    void SetFaultObserver(std::function<void(const FaultInjected&)> observer);

private:
    struct Block {
        SIZE_T bytes;
        ULONG tag;
        const void* owner;
    };
    struct Counters {
        uint64_t allocs = 0, frees = 0, blocks = 0, bytes = 0;
    };
    // Live blocks and their counters, split by block address so that
    // threads allocating at once rarely wait for each other; a tag's
    // counters are the sum over the shards.
    struct alignas(64) Shard {
        mutable AdaptiveMutex lock;
        FlatTable<Block> live;     // by address
        FlatTable<Counters> tags;  // by TagKey
    };
    static constexpr size_t kShards = 32;
    static uint64_t TagKey(ULONG tag) { return (uint64_t{1} << 32) | tag; }
    Shard& ShardOf(const void* block) const;
    // Every tag's counters, summed over the shards (each shard's lock taken in turn).
    std::map<ULONG, Counters> SumTags() const;
    mutable Shard shards_[kShards];
    mutable std::mutex lock_;  // fault injection
    // Counts one attempt with TAG.
    void CountAttempt(ULONG tag);
    // Attempts are counted without a lock while no fault is armed: one slot
    // per tag, found by open addressing (a key is the tag with bit 32 set).
    struct TagSlot {
        std::atomic<uint64_t> key{0};
    };
    static constexpr size_t kTagSlots = 1024;
    mutable TagSlot tagSlots_[kTagSlots];
    // The counts themselves, in lanes: a thread counts in the lane of its
    // group, so that threads on different cores do not write one cache line
    // on every allocation; a count is the sum over the lanes.
    static constexpr size_t kLanes = 4;
    struct alignas(64) Lane {
        std::atomic<uint64_t> attempts{0};  // every allocation asked for, refused ones included
        std::atomic<uint64_t> tagAttempts[kTagSlots] = {};
    };
    Lane lanes_[kLanes];
    // TAG's slot (CLAIM: a free one is taken for it); null when it has none
    // and, with CLAIM, when every slot is taken.
    TagSlot* FindTagSlot(ULONG tag, bool claim) const;
    mutable std::mutex moreLock_;
    std::map<ULONG, uint64_t> moreTagAttempts_;  // under moreLock_, once every slot is taken
    std::atomic<bool> armed_{false};      // a fault is set: attempts take lock_
    void Rearm() { armed_.store(failCountdown_ != 0 || failTagSet_, std::memory_order_release); }  // under lock_
    uint64_t failCountdown_ = 0;          // 0: off
    bool countdownWithTag_ = false;       // the countdown counts only allocations with countdownTag_
    ULONG countdownTag_ = 0;
    bool failTagSet_ = false;
    ULONG failTag_ = 0;
    uint64_t failTagSkip_ = 0;            // allocations with failTag_ still granted before the refusals
    std::function<void(const FaultInjected&)> observer_;
};

}  // namespace tervane::emu
