// The kernel debug log's store against the plainest model of its promise:
// one string, trimmed to the capacity at a line boundary once it passes one
// and a half capacities. Writes of every size, lines longer than the
// capacity and than a chunk, and reads between writes must give the same
// lines, the same count of dropped lines and the same new text.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "dbg/debug_log.h"

namespace tervane::emu {
namespace {

class ModelLog {
public:
    explicit ModelLog(size_t capacity) : capacity_(capacity) {}
    void Write(const std::string& text) {
        text_ += text;
        if (text_.size() <= capacity_ + capacity_ / 2) return;
        size_t cut = text_.size() - capacity_;
        size_t newline = text_.find('\n', cut == 0 ? 0 : cut - 1);
        if (newline != std::string::npos) cut = newline + 1;
        dropped_ += static_cast<uint64_t>(std::count(text_.begin(), text_.begin() + static_cast<ptrdiff_t>(cut), '\n'));
        text_.erase(0, cut);
        base_ += cut;
    }
    std::string TakeNew() {
        size_t from = taken_ > base_ ? static_cast<size_t>(taken_ - base_) : 0;
        taken_ = base_ + text_.size();
        return text_.substr(from);
    }
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        for (size_t start = 0; start < text_.size();) {
            size_t end = std::min(text_.find('\n', start), text_.size());
            std::string line = text_.substr(start, end - start);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            lines.push_back(line);
            start = end + 1;
        }
        return lines;
    }
    uint64_t Dropped() const { return dropped_; }

private:
    size_t capacity_;
    std::string text_;
    uint64_t base_ = 0, taken_ = 0, dropped_ = 0;
};

struct LogMix {
    const char* name;
    size_t capacity;
    size_t longestWrite;  // writes are 0 to this many bytes
    unsigned newlineEvery;  // one byte in this many is a newline
    int writes;
};

class DebugLogTest : public testing::TestWithParam<LogMix> {};

TEST_P(DebugLogTest, KeepsWhatTheSingleStringModelKeeps) {
    const LogMix mix = GetParam();
    std::mt19937_64 random(7);
    DebugLog log(false, mix.capacity);
    ModelLog model(mix.capacity);
    for (int step = 0; step < mix.writes; ++step) {
        std::string text(random() % (mix.longestWrite + 1), 'a' + static_cast<char>(step % 26));
        // Newlines anywhere, and now and then a line that ends right there.
        for (char& c : text) {
            if (random() % mix.newlineEvery == 0) c = '\n';
        }
        if (random() % 3 == 0) text += "\r\n";
        log.Write(text);
        model.Write(text);
        if (random() % 16 == 0) {
            ASSERT_EQ(log.TakeNew(), model.TakeNew()) << "step " << step;
        }
        if (random() % 64 == 0) {
            ASSERT_EQ(log.Lines(), model.Lines()) << "step " << step;
            ASSERT_EQ(log.DroppedLines(), model.Dropped()) << "step " << step;
        }
    }
    EXPECT_EQ(log.Lines(), model.Lines());
    EXPECT_EQ(log.DroppedLines(), model.Dropped());
    EXPECT_EQ(log.TakeNew(), model.TakeNew());
    EXPECT_GT(model.Dropped(), 0u) << "the mix never filled the log";
}

INSTANTIATE_TEST_SUITE_P(Mixes, DebugLogTest,
                         testing::Values(LogMix{"tiny_capacity", 40, 30, 20, 3000},
                                         LogMix{"many_chunks", 300 * 1024, 2000, 40, 3000},
                                         LogMix{"writes_longer_than_a_chunk", 200 * 1024, 150 * 1024, 500, 60},
                                         LogMix{"lines_longer_than_the_capacity", 100, 400, 1000, 2000}),
                         [](const testing::TestParamInfo<LogMix>& info) { return info.param.name; });

}  // namespace
}  // namespace tervane::emu
