// Filter directories: set once, masks and flags, and the mapping of drive
// paths into a filter directory.
#include "test_core_support.h"
#include "control/filter_directory.h"
#include "index/file_index.h"
#include "base/strings.h"

namespace tervane::test {
namespace {

class FilterDirectoryTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }
    static BOOLEAN Set(const std::vector<std::u16string>& roots) {
        std::vector<uint8_t> slots = Slots(roots);
        return SetFilterDirectories(slots.data(), (ULONG)slots.size());
    }
    // Maps PATH for MASK into a new filter path buffer.
    static std::u16string Map(const std::u16string& path, ULONG mask, BOOLEAN* ok = nullptr) {
        UNICODE_STRING in = emu::MakeUnicodeString(path);
        UNICODE_STRING real = {};
        BOOLEAN result = GetRealFilePathForFilter(&in, &real, mask, TRUE);
        if (ok) *ok = result;
        std::u16string out;
        if (result) out.assign((const char16_t*)real.Buffer, real.Length / 2);
        if (result && mask != 0) FreeRealFilePath(&real);
        return out;
    }
};

TEST_F(FilterDirectoryTest, ThreeDirectoriesMasksAndMapping) {
    Kernel([] {
        const std::u16string longRoot = u"D:\\" + std::u16string(256, u'r');  // 259 characters
        ASSERT_TRUE(Set({u"D:\\Filters\\F0", u"D:\\F1", longRoot}));
        EXPECT_FALSE(Set({u"E:\\x"})) << "set once";
        ULONG last = 0;
        EXPECT_EQ(GetFilterDirectoryCount(&last), 3u);
        EXPECT_EQ(last, 4u);
        EXPECT_EQ(GetFilterMask(), 7u);
        EXPECT_EQ(GetFilterDirectory(6), GetFilterDirectory(2));
        EXPECT_EQ(GetFilterDirectory(8), nullptr);
        EXPECT_EQ(GetFilterDirectory(0), nullptr);
        EXPECT_EQ(GetFilterDirectory(FILTER_MASK_ALL), g_pFilterDirectoryList);
        EXPECT_EQ(GetFilterDirectory(4)->m_ustrRoot.Length, 259 * 2) << "stored whole";
        EXPECT_EQ(GetFilterDirectory(4)->m_ustrRoot.MaximumLength, 260 * 2);

        EXPECT_EQ(Map(u"C:\\Program Files\\App\\a.txt", 1), u"D:\\Filters\\F0\\Program Files\\App\\a.txt");
        EXPECT_EQ(Map(u"C:\\x", 2), u"D:\\F1\\x");
        EXPECT_EQ(Map(u"C:", 2), u"D:\\F1");
        EXPECT_EQ(Map(u"d:\\f1\\already", 2), u"d:\\f1\\already") << "already inside the root";
        EXPECT_EQ(Map(u"D:\\F1X\\a", 2), u"D:\\F1X\\a") << "the root test needs no backslash";

        BOOLEAN ok = TRUE;
        Map(u"C:\\x", 8, &ok);
        EXPECT_FALSE(ok);

        // Mask 0 copies the path into the caller's buffer, and fails when cut.
        WCHAR small[4];
        const std::u16string same = u"C:\\same";
        UNICODE_STRING in = emu::MakeUnicodeString(same);
        UNICODE_STRING real = {0, sizeof(small), small};
        EXPECT_FALSE(GetRealFilePathForFilter(&in, &real, 0, FALSE));
        WCHAR big[16];
        real = {0, sizeof(big), big};
        EXPECT_TRUE(GetRealFilePathForFilter(&in, &real, 0, FALSE));
        EXPECT_EQ(std::u16string((const char16_t*)big, real.Length / 2), u"C:\\same");

        std::vector<uint8_t> out(1039, kUntouched);
        ULONG written = 0;
        EXPECT_FALSE(GetFilterDirectoryList(out.data(), 1039, &written));
        EXPECT_EQ(written, 520u);
        EXPECT_EQ(out[520], kUntouched);

        const std::u16string anything = u"C:\\anything";
        UNICODE_STRING any = emu::MakeUnicodeString(anything);
        EXPECT_TRUE(LookupFilterIndex(GetFilterDirectory(4)->m_ppIndexHolder, &any)) << "no index: maybe there";
        EXPECT_FALSE(IsFilterIndexLoaded());
    });
}

// A mapping longer than a path buffer is cut and reported.
TEST_F(FilterDirectoryTest, OverlongMappingIsCut) {
    Kernel([] {
        ASSERT_TRUE(Set({u"D:\\root"}));
        std::u16string path = u"C:\\" + std::u16string(1100, u'p');
        std::u16string real = Map(path, 1);
        EXPECT_EQ(real.size(), 1024u);
        EXPECT_EQ(real.substr(0, 8), u"D:\\root\\");
    });
    EXPECT_EQ(LogMatching("NT_SUCCESS( nStatus )").size(), 1u);
}

}  // namespace
}  // namespace tervane::test
