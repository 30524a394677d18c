// Query information on redirected opens: the caller's own name, the delete
// wish kept by the driver, and the real file's answers for the rest.
#include "test_dispatch_support.h"

namespace tervane::test {
namespace {

class QueryInfoTest : public DispatchTest {
protected:
    void SetUp() override {
        DispatchTest::SetUp();
        HostFile(std::string(kBase) + "/dir/file.txt", "0123456789");
        Configure();
        open = Open(app, u"C:\\dir\\file.txt", GENERIC_READ | DELETE | SYNCHRONIZE, FILE_OPEN,
                    FILE_SYNCHRONOUS_IO_NONALERT | FILE_DELETE_ON_CLOSE);
        ASSERT_EQ(open.status, STATUS_SUCCESS);
    }
    void TearDown() override {
        if (open.handle != nullptr) Close(app, open.handle);
        DispatchTest::TearDown();
    }
    NTSTATUS Query(FILE_INFORMATION_CLASS cls, std::vector<uint8_t>* buffer, ULONG_PTR* information) {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        App([&] {
            IO_STATUS_BLOCK iosb = {};
            status = NtQueryInformationFile(open.handle, &iosb, buffer->data(), ULONG(buffer->size()), cls);
            *information = iosb.Information;
        });
        return status;
    }
    OpenResult open;
};

TEST_F(QueryInfoTest, NameIsTheCallersPath) {
    struct Case {
        ULONG length;
        NTSTATUS status;
    };
    // "C:\dir\file.txt" is 30 bytes: the reply needs 34.
    const Case cases[] = {{100, STATUS_SUCCESS}, {34, STATUS_SUCCESS}, {33, STATUS_BUFFER_OVERFLOW},
                          {8, STATUS_BUFFER_OVERFLOW}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.length);
        std::vector<uint8_t> buffer(c.length, 0xCD);
        ULONG_PTR information = 0;
        EXPECT_EQ(Query(FileNameInformation, &buffer, &information), c.status);
        EXPECT_EQ(information, c.length);
        if (c.status == STATUS_SUCCESS) {
            auto* info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
            EXPECT_EQ(info->FileNameLength, 26u);
            EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(info->FileName), 13), u"\\dir\\file.txt");
        }
        EXPECT_EQ(std::count(buffer.begin(), buffer.end(), 0xCD), 0) << "no byte handed back unwritten";
    }
}

TEST_F(QueryInfoTest, RealFileClasses) {
    std::vector<uint8_t> standard(sizeof(FILE_STANDARD_INFORMATION), 0);
    ULONG_PTR information = 0;
    EXPECT_EQ(Query(FileStandardInformation, &standard, &information), STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<PFILE_STANDARD_INFORMATION>(standard.data())->EndOfFile.QuadPart, 10);
    EXPECT_GE(LogCount("StandardInformation [C:\\dir\\file.txt], AllocationSize: "), 1u);

    // The I/O manager answers the position itself; the extended-attribute
    // size goes to the real file like every other class.
    std::vector<uint8_t> ea(sizeof(FILE_EA_INFORMATION), 0xCD);
    EXPECT_EQ(Query(FileEaInformation, &ea, &information), STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<PFILE_EA_INFORMATION>(ea.data())->EaSize, 0u);
    EXPECT_GE(LogCount("QueryInformation\tFileInfoClass[7] Length[4] Res[0] Status[0] Info[4]"), 1u);
}

}  // namespace
}  // namespace tervane::test
