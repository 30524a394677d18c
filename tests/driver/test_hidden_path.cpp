// The hidden-path index.
#include "test_index_support.h"

namespace tervane::test {
namespace {

class HiddenPathTest : public IndexTest {
protected:
    void SetUp() override {
        IndexTest::SetUp();
        Kernel([] { CreateHiddenPathIndex(); });
        ASSERT_NE(g_pHiddenPathIndex, nullptr);
        indexes.push_back(g_pHiddenPathIndex);
    }
    void TearDown() override {
        g_pHiddenPathIndex = nullptr;
        IndexTest::TearDown();
    }
    void Hide(const std::u16string& text) {
        Path p(text);
        Kernel([&] { HidePath(p.us()); });
    }
    bool Hidden(const std::u16string& text) {
        Path p(text);
        BOOLEAN hidden = FALSE;
        Kernel([&] { hidden = IsPathHidden(p.us()); });
        return hidden;
    }
};

// A marked path hides itself and everything below it, never its parent.
TEST_F(HiddenPathTest, AMarkHidesThePathAndEverythingBelowIt) {
    struct Step {
        std::vector<std::u16string> hide;
        std::vector<std::pair<std::u16string, bool>> expect;
    } scenarios[] = {
        {{u"C:\\a\\b"},
         {{u"C:\\a\\b", true}, {u"D:\\A\\B", true}, {u"C:\\a", false}, {u"C:\\a\\b\\c", true}, {u"C:\\a\\bc", false}}},
        // A directory marked after a name below it: the name stays hidden with it.
        {{u"C:\\a\\b", u"C:\\a"}, {{u"C:\\a", true}, {u"C:\\a\\b", true}, {u"C:\\a\\c\\d", true}}},
        // A name marked below a marked directory does not uncover the directory.
        {{u"C:\\a", u"C:\\a\\b"}, {{u"C:\\a\\b", true}, {u"C:\\a", true}, {u"C:\\a\\c", true}}},
        {{u"C:\\", u"C:\\x"}, {{u"C:\\", false}, {u"C:\\x", true}}},
    };
    for (auto& s : scenarios) {
        Kernel([] {
            PFileIndex fresh = CreateFileIndex(HIDDEN_PATH_AREA_SIZE, HIDDEN_PATH_AREA_SIZE);
            ASSERT_NE(fresh, nullptr);
            g_pHiddenPathIndex = fresh;
        });
        indexes.push_back(g_pHiddenPathIndex);
        for (auto& h : s.hide) Hide(h);
        for (auto& [path, hidden] : s.expect) EXPECT_EQ(Hidden(path), hidden);
    }
}

TEST_F(HiddenPathTest, WithoutTheIndexNothingIsHidden) {
    PFileIndex saved = g_pHiddenPathIndex;
    g_pHiddenPathIndex = nullptr;
    Hide(u"C:\\gone");
    EXPECT_FALSE(Hidden(u"C:\\gone"));
    g_pHiddenPathIndex = saved;
    EXPECT_FALSE(Hidden(u"C:\\gone"));
}

}  // namespace
}  // namespace tervane::test
