// The machine's own building blocks under the pool, the object manager and
// the handle tables: the flat hash table against a reference map, and the
// mutex under threads that fight for it.
#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <unordered_map>
#include <vector>

#include "machine/adaptive_mutex.h"
#include "machine/flat_table.h"

namespace tervane::emu {
namespace {

struct TableMix {
    const char* name;
    uint64_t keySpace;  // keys drawn from [2, 2 + keySpace)
    int insertPercent;  // the rest removes
    int operations;
};

class FlatTableTest : public testing::TestWithParam<TableMix> {};

// Random insertions and removals, compared with a reference map after each
// step: a removal that frees a slot still inside another key's probe run,
// or a growth that loses an entry, shows as a key the table cannot find.
TEST_P(FlatTableTest, AgreesWithAReferenceMap) {
    const TableMix mix = GetParam();
    std::mt19937_64 random(42);
    FlatTable<uint64_t> table;
    std::unordered_map<uint64_t, uint64_t> model;
    for (int step = 0; step < mix.operations; ++step) {
        // Keys shaped like 16-byte aligned addresses, as the pool's are.
        const uint64_t key = 0x7f0000000000ull + (2 + random() % mix.keySpace) * 16;
        if (static_cast<int>(random() % 100) < mix.insertPercent) {
            table[key] = step;
            model[key] = step;
        } else {
            uint64_t value = 0;
            const bool had = model.erase(key) != 0;
            ASSERT_EQ(table.Erase(key, &value), had) << "step " << step;
        }
        ASSERT_EQ(table.size(), model.size());
        if (step % 64 == 0 || step == mix.operations - 1) {
            for (const auto& [k, v] : model) {
                const uint64_t* found = table.Find(k);
                ASSERT_NE(found, nullptr) << "lost key at step " << step;
                ASSERT_EQ(*found, v);
            }
            size_t seen = 0;
            table.ForEach([&](uint64_t k, uint64_t v) {
                ++seen;
                EXPECT_EQ(model.at(k), v);
            });
            ASSERT_EQ(seen, model.size());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Mixes, FlatTableTest,
                         testing::Values(TableMix{"dense_churn", 64, 50, 20000},
                                         TableMix{"growing", 100000, 90, 20000},
                                         TableMix{"draining", 5000, 30, 20000},
                                         TableMix{"single_run", 8, 55, 5000}),
                         [](const testing::TestParamInfo<TableMix>& info) { return info.param.name; });

TEST(FlatTableTest, ReservedKeysAreNeverFound) {
    FlatTable<int> table;
    table[FlatTable<int>::KeyOf(&table)] = 1;
    EXPECT_EQ(table.Find(FlatTable<int>::kFree), nullptr);
    EXPECT_EQ(table.Find(FlatTable<int>::kRemoved), nullptr);
    EXPECT_FALSE(table.Erase(FlatTable<int>::kRemoved));
    EXPECT_EQ(table.size(), 1u);
}

// More threads than cores, each adding under the lock: a lost update means
// two held it at once, a hang a sleeper nobody woke.
TEST(AdaptiveMutexTest, ThreadsFightingForItLoseNoUpdate) {
    AdaptiveMutex mutex;
    uint64_t counter = 0;
    constexpr int kThreads = 6, kRounds = 40000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                std::lock_guard<AdaptiveMutex> guard(mutex);
                counter = counter + 1;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, uint64_t{kThreads} * kRounds);
    EXPECT_TRUE(mutex.try_lock());
    EXPECT_FALSE(mutex.try_lock());
    mutex.unlock();
}

}  // namespace
}  // namespace tervane::emu
