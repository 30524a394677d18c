// Exclusion list: sorted without regard to case, unique, prefix matching on
// whole components.
#include "test_core_support.h"
#include "control/exclusion_list.h"

namespace tervane::test {
namespace {

class ExclusionTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }
    static void Add(const std::vector<std::u16string>& paths) {
        std::vector<uint8_t> slots = Slots(paths);
        AddExcludedPaths(slots.data(), (ULONG)slots.size());
    }
    static void Remove(const std::vector<std::u16string>& paths) {
        std::vector<uint8_t> slots = Slots(paths);
        RemoveExcludedPaths(slots.data(), (ULONG)slots.size());
    }
    static std::vector<std::u16string> List() {
        std::vector<uint8_t> out(20 * PATH_SLOT_SIZE);
        ULONG written = 0;
        EXPECT_TRUE(GetExcludedPathList(out.data(), (ULONG)out.size(), &written));
        std::vector<std::u16string> paths;
        for (ULONG i = 0; i < written / PATH_SLOT_SIZE; i++) paths.push_back(SlotPath(out, i));
        return paths;
    }
    static bool Excluded(const std::u16string& path) {
        UNICODE_STRING s = emu::MakeUnicodeString(path);
        return IsExcludedPath(&s);
    }
};

TEST_F(ExclusionTest, SortedUniqueAndFirstSpellingKept) {
    Kernel([] {
        using V = std::vector<std::u16string>;
        Remove({u"C:\\nothing"});
        Add({u"C:\\b", u"C:\\a", u"C:\\c"});
        EXPECT_EQ(List(), (V{u"C:\\a", u"C:\\b", u"C:\\c"}));
        Add({u"C:\\Temp", u"c:\\TEMP", u"C:\\B"});
        EXPECT_EQ(List(), (V{u"C:\\a", u"C:\\b", u"C:\\c", u"C:\\Temp"}));
        // Upper-cased comparison: '_' (0x5F) sorts after the letters.
        Add({u"C:\\_x", u"C:\\"});
        EXPECT_EQ(List(), (V{u"C:\\", u"C:\\a", u"C:\\b", u"C:\\c", u"C:\\Temp", u"C:\\_x"}));
        Remove({u"c:\\B", u"C:\\zzz", u"C:\\"});
        EXPECT_EQ(List(), (V{u"C:\\a", u"C:\\c", u"C:\\Temp", u"C:\\_x"}));
        ULONG count = 9;
        EXPECT_TRUE(GetExcludedPathCount(&count));
        EXPECT_EQ(count, 4u);
        EXPECT_FALSE(GetExcludedPathCount(nullptr));

        std::vector<uint8_t> out(1040, kUntouched);
        ULONG written = 0;
        EXPECT_FALSE(GetExcludedPathList(out.data(), 1040, &written));
        EXPECT_EQ(written, 1040u);
        Remove({u"C:\\a", u"C:\\c"});
        EXPECT_TRUE(GetExcludedPathList(out.data(), 1040, &written));
        EXPECT_EQ(written, 1040u);
    });
}

TEST_F(ExclusionTest, LongPathsAreCutToASlot) {
    Kernel([] {
        std::u16string longPath = u"C:\\" + std::u16string(300, u'x');
        std::vector<uint8_t> slot(PATH_SLOT_SIZE, 0);
        memcpy(slot.data(), longPath.data(), PATH_SLOT_SIZE - 2);
        AddExcludedPaths(slot.data(), PATH_SLOT_SIZE);
        std::vector<std::u16string> listed = List();
        ASSERT_EQ(listed.size(), 1u);
        EXPECT_EQ(listed[0].size(), 259u);
        EXPECT_TRUE(Excluded(listed[0] + u"\\file"));
    });
}

struct MatchCase {
    const char16_t* path;
    bool excluded;
};

class ExclusionMatchTest : public ExclusionTest, public ::testing::WithParamInterface<MatchCase> {};

TEST_P(ExclusionMatchTest, MatchesWholeComponents) {
    Kernel([&] {
        Add({u"C:\\Temp", u"C:\\Data\\", u"C:\\Program Files\\App"});
        EXPECT_EQ(Excluded(GetParam().path), GetParam().excluded);
    });
}

INSTANTIATE_TEST_SUITE_P(Paths, ExclusionMatchTest,
                         ::testing::Values(MatchCase{u"C:\\Temp", true}, MatchCase{u"c:\\temp\\x.txt", true},
                                           MatchCase{u"C:\\TEMP\\a\\b", true}, MatchCase{u"C:\\Temp2\\x.txt", false},
                                           MatchCase{u"C:\\Tem", false}, MatchCase{u"C:\\Data\\", true},
                                           MatchCase{u"C:\\Data\\x.txt", false}, MatchCase{u"C:\\Data", false},
                                           MatchCase{u"C:\\Program Files\\App\\bin", true},
                                           MatchCase{u"C:\\Program Files\\Apps", false},
                                           MatchCase{u"C:\\Zeta", false}, MatchCase{u"", false}));

}  // namespace
}  // namespace tervane::test
