// Page-file-backed sections and their views in system space.
#include <gtest/gtest.h>

#include <cstring>

#include <emu/machine.h>

using namespace tervane::emu;

namespace {
NTSTATUS CreateSection(HANDLE* handle, LONGLONG size, ULONG protection = PAGE_READWRITE,
                       ULONG attributes = SEC_COMMIT) {
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    LARGE_INTEGER maximum;
    maximum.QuadPart = size;
    return ZwCreateSection(handle, SECTION_ALL_ACCESS, &oa, &maximum, protection, attributes, nullptr);
}
}  // namespace

TEST(Section, ViewsShareZeroFilledMemoryAndOutliveTheHandle) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        HANDLE handle;
        ASSERT_EQ(CreateSection(&handle, 5000), STATUS_SUCCESS);
        PVOID section;
        ASSERT_EQ(ObReferenceObjectByHandle(handle, SECTION_ALL_ACCESS, *MmSectionObjectType, KernelMode, &section,
                                            nullptr),
                  STATUS_SUCCESS);
        ZwClose(handle);
        PVOID a = nullptr, b = nullptr;
        SIZE_T sizeA = 0, sizeB = 100;
        ASSERT_EQ(MmMapViewInSystemSpace(section, &a, &sizeA), STATUS_SUCCESS);
        EXPECT_EQ(sizeA, 5000u) << "view size 0 maps the whole section";
        ASSERT_EQ(MmMapViewInSystemSpace(section, &b, &sizeB), STATUS_SUCCESS);
        EXPECT_EQ(sizeB, 100u);
        EXPECT_NE(a, b);
        auto* bytes = static_cast<unsigned char*>(a);
        for (size_t i = 0; i < 5000; ++i) ASSERT_EQ(bytes[i], 0) << i;
        std::memcpy(a, "shared", 7);
        EXPECT_STREQ(static_cast<char*>(b), "shared");
        SIZE_T tooBig = 5001;
        PVOID c;
        EXPECT_EQ(MmMapViewInSystemSpace(section, &c, &tooBig), STATUS_INVALID_VIEW_SIZE);
        ObDereferenceObject(section);  // the views keep the section
        EXPECT_STREQ(static_cast<char*>(a), "shared");
        EXPECT_EQ(MmUnmapViewInSystemSpace(static_cast<char*>(a) + 10), STATUS_SUCCESS) << "any address in a view";
        EXPECT_EQ(MmUnmapViewInSystemSpace(a), STATUS_NOT_MAPPED_VIEW);
        EXPECT_EQ(MmUnmapViewInSystemSpace(b), STATUS_SUCCESS);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Section, CreationValidatesItsArguments) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        struct Case {
            LONGLONG size;
            ULONG protection, attributes;
            NTSTATUS status;
        } cases[] = {
            {4096, PAGE_READWRITE, SEC_COMMIT, STATUS_SUCCESS},
            {0, PAGE_READWRITE, SEC_COMMIT, STATUS_INVALID_PARAMETER_4},
            {4096, 0x3, SEC_COMMIT, STATUS_INVALID_PAGE_PROTECTION},
            {4096, PAGE_READWRITE, 0, STATUS_INVALID_PARAMETER_6},
            {1LL << 40, PAGE_READWRITE, SEC_COMMIT, STATUS_SECTION_TOO_BIG},
        };
        for (const Case& c : cases) {
            HANDLE handle = nullptr;
            EXPECT_EQ(CreateSection(&handle, c.size, c.protection, c.attributes), c.status) << c.size;
            if (NT_SUCCESS(c.status)) ZwClose(handle);
        }
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}
