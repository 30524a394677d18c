// A set of live pointers that many threads change at once: split by address
// into shards of their own lock, so that threads asking about different
// pointers rarely wait for each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "machine/adaptive_mutex.h"
#include "machine/flat_table.h"

namespace tervane::emu {

// The shard, of SHARDS, that the address P falls in. Blocks and objects are
// at least 16-byte aligned: the bits above those are spread over the shards.
inline size_t ShardIndex(const void* p, size_t shards) {
    uintptr_t v = reinterpret_cast<uintptr_t>(p) >> 4;
    return (v ^ (v >> 7) ^ (v >> 13)) % shards;
}

// The shard, of SHARDS, of the calling host thread: threads that run at
// once mostly fall in different ones.
inline size_t ThreadShardIndex(size_t shards) {
    thread_local char marker;
    return ShardIndex(&marker, shards);
}

template <typename T>
class ShardedPointerSet {
public:
    void Insert(T* p) {
        Shard& s = ShardOf(p);
        std::lock_guard<AdaptiveMutex> guard(s.lock);
        s.items[Key(p)] = 1;
    }
    // Whether P was in the set.
    bool Erase(T* p) {
        Shard& s = ShardOf(p);
        std::lock_guard<AdaptiveMutex> guard(s.lock);
        return s.items.Erase(Key(p));
    }
    bool Contains(const T* p) const {
        const Shard& s = ShardOf(p);
        std::lock_guard<AdaptiveMutex> guard(s.lock);
        return s.items.Find(Key(p)) != nullptr;
    }
    // Calls FN with each member, under the lock of the member's shard: a
    // member erased at once waits until FN is done with it.
    template <typename Fn>
    void ForEach(Fn fn) const {
        for (const Shard& s : shards_) {
            std::lock_guard<AdaptiveMutex> guard(s.lock);
            s.items.ForEach([&fn](uint64_t key, char) { fn(reinterpret_cast<T*>(key)); });
        }
    }
    // Empties the set, handing every member to the caller.
    std::vector<T*> TakeAll() {
        std::vector<T*> all;
        for (Shard& s : shards_) {
            std::lock_guard<AdaptiveMutex> guard(s.lock);
            s.items.ForEach([&all](uint64_t key, char) { all.push_back(reinterpret_cast<T*>(key)); });
            s.items.clear();
        }
        return all;
    }

private:
    static constexpr size_t kShards = 64;
    struct alignas(64) Shard {
        mutable AdaptiveMutex lock;
        FlatTable<char> items;  // keyed by address
    };
    static uint64_t Key(const void* p) { return FlatTable<char>::KeyOf(p); }
    Shard& ShardOf(const void* p) { return shards_[ShardIndex(p, kShards)]; }
    const Shard& ShardOf(const void* p) const { return shards_[ShardIndex(p, kShards)]; }

    Shard shards_[kShards];
};

}  // namespace tervane::emu
