// A hash table of 64-bit keys kept in one array (open addressing, linear
// probing): an insertion or removal allocates nothing until the table grows,
// which the per-operation tables of the machine (live pool blocks, live
// objects, a tag's counters) need on their hot paths. Keys 0 and 1 are
// reserved for free and removed slots; callers key by pointer or by a value
// with a bit set above its range.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace tervane::emu {

template <typename V>
class FlatTable {
public:
    static constexpr uint64_t kFree = 0;
    static constexpr uint64_t kRemoved = 1;

    static uint64_t KeyOf(const void* p) { return reinterpret_cast<uintptr_t>(p); }

    V* Find(uint64_t key) {
        if (key <= kRemoved || slots_.empty()) return nullptr;
        for (size_t at = Home(key);; at = (at + 1) & mask_) {
            Slot& s = slots_[at];
            if (s.key == key) return &s.value;
            if (s.key == kFree) return nullptr;
        }
    }
    const V* Find(uint64_t key) const { return const_cast<FlatTable*>(this)->Find(key); }

    // The value of KEY, value-initialised when KEY is new.
    V& operator[](uint64_t key) {
        if (V* v = Find(key)) return *v;
        if ((occupied_ + 1) * 4 > slots_.size() * 3) Grow();
        size_t at = Home(key);
        while (slots_[at].key > kRemoved) at = (at + 1) & mask_;
        if (slots_[at].key == kFree) occupied_++;
        slots_[at].key = key;
        slots_[at].value = V();
        size_++;
        return slots_[at].value;
    }

    // Whether KEY was there; its value goes to *OUT.
    bool Erase(uint64_t key, V* out = nullptr) {
        if (key <= kRemoved || slots_.empty()) return false;
        for (size_t at = Home(key);; at = (at + 1) & mask_) {
            Slot& s = slots_[at];
            if (s.key == kFree) return false;
            if (s.key != key) continue;
            if (out) *out = std::move(s.value);
            // A slot whose successor is free ends no probe run: it can be
            // freed outright instead of marked.
            if (slots_[(at + 1) & mask_].key == kFree) {
                s.key = kFree;
                occupied_--;
            } else {
                s.key = kRemoved;
            }
            size_--;
            return true;
        }
    }

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    void clear() {
        slots_.clear();
        mask_ = 0;
        occupied_ = size_ = 0;
    }

    // Calls F(key, value) for every entry.
    template <typename F>
    void ForEach(F f) const {
        for (const Slot& s : slots_)
            if (s.key > kRemoved) f(s.key, s.value);
    }

private:
    struct Slot {
        uint64_t key = kFree;
        V value{};
    };

    size_t Home(uint64_t key) const {
        // Fibonacci hashing: the low bits of aligned addresses carry nothing.
        return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> 32) & mask_;
    }

    // Doubles the table when live entries fill half of it, and otherwise
    // only sweeps out the removed slots.
    void Grow() {
        size_t capacity = slots_.empty() ? 16 : slots_.size();
        if ((size_ + 1) * 2 > capacity) capacity *= 2;
        std::vector<Slot> old = std::move(slots_);
        slots_.assign(capacity, Slot());
        mask_ = capacity - 1;
        occupied_ = 0;
        for (Slot& s : old) {
            if (s.key <= kRemoved) continue;
            size_t at = Home(s.key);
            while (slots_[at].key != kFree) at = (at + 1) & mask_;
            slots_[at] = std::move(s);
            occupied_++;
        }
    }

    std::vector<Slot> slots_;
    size_t mask_ = 0;
    size_t occupied_ = 0;  // slots not free: entries and removed marks
    size_t size_ = 0;      // entries
};

}  // namespace tervane::emu
