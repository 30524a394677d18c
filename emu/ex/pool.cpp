// Non-paged pool: every block is a host allocation of its own (so that the
// address sanitizer sees overruns) recorded with its tag and size.
#include "ex/pool.h"

#include <cstdlib>
#include <cstring>

#include "kernel.h"
#include "machine/machine_impl.h"
#include "machine/sharded_set.h"

namespace tervane::emu {

// Fresh pool is not zeroed on NT; fill it with a pattern so that code which
// forgets to initialise a field fails here as it would there.
constexpr unsigned char kFreshPoolFill = 0xA5;

std::string PoolTagText(ULONG tag) {
    std::string text(4, ' ');
    for (int i = 0; i < 4; ++i) text[i] = static_cast<char>((tag >> (8 * i)) & 0xFF);
    return text;
}

ULONG PoolTagFromText(const std::string& text) {
    ULONG tag = 0;
    for (size_t i = 0; i < 4; ++i) {
        unsigned char c = i < text.size() ? static_cast<unsigned char>(text[i]) : ' ';
        tag |= static_cast<ULONG>(c) << (8 * i);
    }
    return tag;
}

PoolTracker::~PoolTracker() {
    for (Shard& shard : shards_)
        shard.live.ForEach([](uint64_t block, const Block&) { std::free(reinterpret_cast<void*>(block)); });
}

PoolTracker::Shard& PoolTracker::ShardOf(const void* block) const { return shards_[ShardIndex(block, kShards)]; }

std::map<ULONG, PoolTracker::Counters> PoolTracker::SumTags() const {
    std::map<ULONG, Counters> sum;
    for (const Shard& shard : shards_) {
        std::lock_guard<AdaptiveMutex> guard(shard.lock);
        shard.tags.ForEach([&sum](uint64_t key, const Counters& c) {
            Counters& t = sum[static_cast<ULONG>(key)];
            t.allocs += c.allocs;
            t.frees += c.frees;
            t.blocks += c.blocks;
            t.bytes += c.bytes;
        });
    }
    return sum;
}

PoolTracker::TagSlot* PoolTracker::FindTagSlot(ULONG tag, bool claim) const {
    const uint64_t key = (uint64_t{1} << 32) | tag;
    size_t at = (tag * 2654435761u) % kTagSlots;
    for (size_t probe = 0; probe < kTagSlots; ++probe, at = (at + 1) % kTagSlots) {
        TagSlot& slot = tagSlots_[at];
        uint64_t seen = slot.key.load(std::memory_order_acquire);
        if (seen == 0 && claim && slot.key.compare_exchange_strong(seen, key, std::memory_order_acq_rel)) seen = key;
        if (seen == key) return &slot;
        if (seen == 0) return nullptr;
    }
    return nullptr;
}

void PoolTracker::CountAttempt(ULONG tag) {
    Lane& lane = lanes_[ThreadShardIndex(kLanes)];
    lane.attempts.fetch_add(1, std::memory_order_relaxed);
    if (TagSlot* slot = FindTagSlot(tag, true)) {
        lane.tagAttempts[slot - tagSlots_].fetch_add(1, std::memory_order_relaxed);
        return;
    }
    std::lock_guard<std::mutex> guard(moreLock_);
    ++moreTagAttempts_[tag];
}

bool PoolTracker::ShouldFail(ULONG tag) {
    if (!armed_.load(std::memory_order_acquire)) {
        CountAttempt(tag);
        return false;
    }
    FaultInjected fault;
    std::function<void(const FaultInjected&)> observer;
    {
        std::lock_guard<std::mutex> guard(lock_);
        CountAttempt(tag);
        fault.serial = Attempts();
        fault.tagSerial = AttemptsWithTag(tag);
        bool fail = false;
        if (failTagSet_ && tag == failTag_) {
            if (failTagSkip_ == 0)
                fail = true;
            else
                --failTagSkip_;
        }
        if (failCountdown_ != 0 && (!countdownWithTag_ || tag == countdownTag_) && --failCountdown_ == 0) fail = true;
        Rearm();
        if (!fail) return false;
        observer = observer_;
    }
    fault.tag = PoolTagText(tag);
    if (observer) observer(fault);
    return true;
}

uint64_t PoolTracker::Attempts() const {
    uint64_t sum = 0;
    for (const Lane& lane : lanes_) sum += lane.attempts.load(std::memory_order_relaxed);
    return sum;
}

uint64_t PoolTracker::AttemptsWithTag(ULONG tag) const {
    if (const TagSlot* slot = FindTagSlot(tag, false)) {
        uint64_t sum = 0;
        for (const Lane& lane : lanes_) sum += lane.tagAttempts[slot - tagSlots_].load(std::memory_order_relaxed);
        return sum;
    }
    std::lock_guard<std::mutex> guard(moreLock_);
    auto it = moreTagAttempts_.find(tag);
    return it == moreTagAttempts_.end() ? 0 : it->second;
}

void* PoolTracker::Allocate(SIZE_T bytes, ULONG tag, const void* owner) {
    if (ShouldFail(tag)) return nullptr;
    void* block = std::malloc(bytes == 0 ? 1 : bytes);
    if (!block) return nullptr;
    std::memset(block, kFreshPoolFill, bytes);
    Shard& shard = ShardOf(block);
    std::lock_guard<AdaptiveMutex> guard(shard.lock);
    shard.live[FlatTable<Block>::KeyOf(block)] = Block{bytes, tag, owner};
    Counters& c = shard.tags[TagKey(tag)];
    c.allocs++;
    c.blocks++;
    c.bytes += bytes;
    return block;
}

void PoolTracker::Free(void* block, ULONG tag, bool checkTag) {
    std::string problem;
    {
        Shard& shard = ShardOf(block);
        std::lock_guard<AdaptiveMutex> guard(shard.lock);
        Block info;
        if (!shard.live.Erase(FlatTable<Block>::KeyOf(block), &info)) {
            char text[96];
            std::snprintf(text, sizeof(text), "pool block %p freed that is not allocated (double free?)", block);
            problem = text;
        } else {
            if (checkTag && info.tag != tag) {
                problem = "pool block tagged \"" + PoolTagText(info.tag) + "\" freed with tag \"" +
                          PoolTagText(tag) + "\"";
            }
            Counters& c = shard.tags[TagKey(info.tag)];
            c.frees++;
            c.blocks--;
            c.bytes -= info.bytes;
            std::free(block);
        }
    }
    if (!problem.empty()) VerifierViolation(problem);
}

bool PoolTracker::Lookup(const void* block, SIZE_T* bytes, ULONG* tag) const {
    Shard& shard = ShardOf(block);
    std::lock_guard<AdaptiveMutex> guard(shard.lock);
    const Block* info = shard.live.Find(FlatTable<Block>::KeyOf(block));
    if (!info) return false;
    if (bytes) *bytes = info->bytes;
    if (tag) *tag = info->tag;
    return true;
}

std::vector<PoolTagUsage> PoolTracker::Usage(bool outstandingOnly, const std::set<const void*>& skip) const {
    std::map<ULONG, Counters> tags = SumTags();
    if (!skip.empty()) {
        for (const Shard& shard : shards_) {
            std::lock_guard<AdaptiveMutex> guard(shard.lock);
            shard.live.ForEach([&](uint64_t, const Block& info) {
                if (!skip.count(info.owner)) return;
                Counters& c = tags[info.tag];
                c.blocks--;
                c.bytes -= info.bytes;
            });
        }
    }
    std::vector<PoolTagUsage> usage;
    for (const auto& [tag, c] : tags) {
        if (outstandingOnly && c.blocks == 0) continue;
        usage.push_back(PoolTagUsage{PoolTagText(tag), c.allocs, c.frees, c.blocks, c.bytes});
    }
    return usage;
}

std::vector<PoolTagUsage> PoolTracker::OwnedUsage(const void* owner) const {
    std::map<ULONG, Counters> tags;
    for (const Shard& shard : shards_) {
        std::lock_guard<AdaptiveMutex> guard(shard.lock);
        shard.live.ForEach([&](uint64_t, const Block& info) {
            if (info.owner != owner) return;
            Counters& c = tags[info.tag];
            c.blocks++;
            c.bytes += info.bytes;
        });
    }
    std::vector<PoolTagUsage> usage;
    for (const auto& [tag, c] : tags) usage.push_back(PoolTagUsage{PoolTagText(tag), 0, 0, c.blocks, c.bytes});
    return usage;
}

PVOID ExAllocatePoolFor(const void* owner, POOL_TYPE type, SIZE_T bytes, ULONG tag) {
    return CurrentMachine().pool.Allocate(bytes, tag, owner);
}

void PoolTracker::FailNth(uint64_t n, bool withTag, ULONG tag) {
    std::lock_guard<std::mutex> guard(lock_);
    failCountdown_ = n;
    countdownWithTag_ = withTag;
    countdownTag_ = tag;
    Rearm();
}

void PoolTracker::FailTag(ULONG tag, uint64_t skip) {
    std::lock_guard<std::mutex> guard(lock_);
    failTagSet_ = true;
    failTag_ = tag;
    failTagSkip_ = skip;
    Rearm();
}

void PoolTracker::ClearFaults() {
    std::lock_guard<std::mutex> guard(lock_);
    failCountdown_ = 0;
    failTagSet_ = false;
    Rearm();
}

void PoolTracker::SetFaultObserver(std::function<void(const FaultInjected&)> observer) {
    std::lock_guard<std::mutex> guard(lock_);
    observer_ = std::move(observer);
}

}  // namespace tervane::emu

using namespace tervane::emu;

extern "C" PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    return CurrentMachine().pool.Allocate(NumberOfBytes, Tag, LdrCurrentOwner());
}

// Untagged allocations carry the tag NT gives them, "None".
extern "C" PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes) {
    return ExAllocatePoolWithTag(PoolType, NumberOfBytes, kUntaggedPoolTag);
}

extern "C" VOID ExFreePoolWithTag(PVOID P, ULONG Tag) { CurrentMachine().pool.Free(P, Tag, true); }

extern "C" VOID ExFreePool(PVOID P) { CurrentMachine().pool.Free(P, 0, false); }
