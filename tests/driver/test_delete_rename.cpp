// Delete in filter directories: FiltDeleteFile and DeleteRealFile.
#include "test_exists_support.h"

namespace tervane::test {
namespace {

class DeleteTest : public LayersTest {
protected:
    BOOLEAN Delete(const std::u16string& path) {
        Path p(path);
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = FiltDeleteFile(p.us()); });
        return ok;
    }
    bool Hidden(const std::u16string& path) {
        Path p(path);
        BOOLEAN hidden = FALSE;
        Kernel([&] { hidden = IsPathHidden(p.us()); });
        return hidden;
    }
    void SetAttributes(const std::u16string& path, ULONG attributes) {
        HANDLE h;
        ASSERT_EQ(OpenReal(path, &h, GENERIC_READ | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE), STATUS_SUCCESS);
        Kernel([&] {
            FILE_BASIC_INFORMATION basic = {};
            basic.FileAttributes = attributes;
            IO_STATUS_BLOCK iosb;
            EXPECT_EQ(ZwSetInformationFile(h, &iosb, &basic, sizeof(basic), FileBasicInformation), 0);
        });
        Close(h);
    }
};

TEST_F(DeleteTest, OnlyFilterDirectory0IsChangedAndLowerCopiesAreHidden) {
    struct Case {
        const char* name;
        bool in0, in1, in2;
        bool readOnly;  // the copy in filter directory 0
    } cases[] = {
        {"only0.txt", true, false, false, false},
        {"only1.txt", false, true, false, false},
        {"in02.txt", true, false, true, false},
        {"readonly.txt", true, false, false, true},
        {"emptydir", true, true, false, false},
    };
    std::vector<std::u16string> index;
    for (const auto& c : cases) {
        std::string n = c.name;
        bool dir = n.find('.') == std::string::npos;
        for (int k = 0; k < 3; k++) {
            bool present = k == 0 ? c.in0 : k == 1 ? c.in1 : c.in2;
            if (!present) continue;
            std::string rel = "L" + std::to_string(k) + "/" + n;
            if (dir) HostDir(rel); else HostFile(rel, "data");
        }
        if (c.in2) index.push_back(u"\\" + emu::Utf8ToUtf16(n));
    }
    Configure(&index);
    for (const auto& c : cases) {
        std::u16string path = u"C:\\" + emu::Utf8ToUtf16(c.name);
        if (c.readOnly) SetAttributes(u"C:\\L0\\" + emu::Utf8ToUtf16(c.name), FILE_ATTRIBUTE_READONLY);
        EXPECT_TRUE(Delete(path)) << c.name;
        EXPECT_FALSE(HostExists(std::string("L0/") + c.name)) << c.name;
        EXPECT_EQ(HostExists(std::string("L1/") + c.name), c.in1) << c.name << ": lower copies stay on disk";
        EXPECT_EQ(HostExists(std::string("L2/") + c.name), c.in2) << c.name;
        EXPECT_EQ(Hidden(path), c.in1 || c.in2) << c.name;
        EXPECT_EQ(Exists(path), 0u) << c.name;
    }
    EXPECT_TRUE(Delete(u"C:\\nowhere.txt"));
    EXPECT_FALSE(Hidden(u"C:\\nowhere.txt"));
}

TEST_F(DeleteTest, WithoutTheDispositionRecordNothingIsDeletedOrHidden) {
    HostFile("L0/keep.txt", "0");
    HostFile("L1/keep.txt", "1");
    Configure();
    machine->FailAllocationsWithTag("0SDF");
    EXPECT_FALSE(Delete(u"C:\\keep.txt"));
    machine->ClearFaultInjection();
    EXPECT_TRUE(HostExists("L0/keep.txt"));
    EXPECT_FALSE(Hidden(u"C:\\keep.txt"));
    Path real(u"C:\\L0\\keep.txt");
    NTSTATUS status = 0;
    machine->FailAllocationsWithTag("0SDF");
    Kernel([&] { status = DeleteRealFile(real.us()); });
    machine->ClearFaultInjection();
    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
}

}  // namespace
}  // namespace tervane::test
