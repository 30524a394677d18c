// How data reaches a driver: the three transfer methods of device-control
// codes and of reads, fast I/O before packets, and the I/O manager's checks
// of handles, types, access and information classes.
#include <cstring>

#include "test_io_support.h"

namespace iotest {
namespace {

struct MethodCase {
    ULONG code;
    bool systemBuffer, mdl, neither;
};

TEST_F(IoTest, ControlCodesMoveTheirBuffersByTheirMethod) {
    const MethodCase cases[] = {
        {kEchoBuffered, true, false, false},
        {kEchoInDirect, true, true, false},
        {kEchoOutDirect, true, true, false},
        {kEchoNeither, false, false, true},
    };
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest", &h), STATUS_SUCCESS);
        world.behaviour.fastIoAnswers = false;
        for (const MethodCase& c : cases) {
            SCOPED_TRACE(c.code & 3);
            world.lower.clear();
            char input[] = "abcdef";
            char output[8] = "-------";
            IO_STATUS_BLOCK iosb{};
            ASSERT_EQ(NtDeviceIoControlFile(h, nullptr, nullptr, nullptr, &iosb, c.code, input, 6, output, 4),
                      STATUS_SUCCESS);
            EXPECT_EQ(iosb.Information, 4u);
            EXPECT_EQ(std::string(output, 7), "ABCD---") << "only Information bytes come back";
            ASSERT_EQ(world.lower.size(), 1u);
            const Seen& s = world.lower[0];
            EXPECT_EQ(s.systemBuffer != nullptr, c.systemBuffer);
            EXPECT_NE(s.systemBuffer, static_cast<PVOID>(input)) << "buffered input is a copy";
            EXPECT_EQ(s.mdl != nullptr, c.mdl);
            if (c.neither) {
                EXPECT_EQ(s.type3Input, static_cast<PVOID>(input));
                EXPECT_EQ(s.userBuffer, static_cast<PVOID>(output));
            }
        }
        NtClose(h);
    });
}

TEST_F(IoTest, ReadsFollowTheDevicesIoMethod) {
    const ULONG methods[] = {0, DO_BUFFERED_IO, DO_DIRECT_IO};
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h), STATUS_SUCCESS);
        for (ULONG method : methods) {
            SCOPED_TRACE(method);
            world.lowerDevice->Flags = (world.lowerDevice->Flags & ~(DO_BUFFERED_IO | DO_DIRECT_IO)) | method;
            world.lower.clear();
            char buffer[4] = {};
            IO_STATUS_BLOCK iosb{};
            LARGE_INTEGER offset{};
            ASSERT_EQ(NtReadFile(h, nullptr, nullptr, nullptr, &iosb, buffer, 4, &offset, nullptr), STATUS_SUCCESS);
            EXPECT_EQ(std::string(buffer, 4), "rrrr");
            const Seen& s = world.lower.at(0);
            EXPECT_EQ(s.systemBuffer != nullptr, method == DO_BUFFERED_IO);
            EXPECT_EQ(s.mdl != nullptr, method == DO_DIRECT_IO);
            EXPECT_EQ(s.userBuffer == buffer, method != DO_DIRECT_IO);
        }
        world.lowerDevice->Flags &= ~(DO_BUFFERED_IO | DO_DIRECT_IO);
        NtClose(h);
    });
}

TEST_F(IoTest, FastIoIsTriedFirstAndADeclineFallsBackToAPacket) {
    world.behaviour.cachedFiles = true;
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h), STATUS_SUCCESS);
        for (bool answers : {true, false}) {
            SCOPED_TRACE(answers);
            world.behaviour.fastIoAnswers = answers;
            world.lower.clear();
            world.fastCalls.clear();
            char buffer[3] = {};
            char echo[3] = {};
            FILE_BASIC_INFORMATION basic{};
            IO_STATUS_BLOCK iosb{};
            ASSERT_EQ(NtReadFile(h, nullptr, nullptr, nullptr, &iosb, buffer, 3, nullptr, nullptr), STATUS_SUCCESS);
            EXPECT_EQ(std::string(buffer, 3), answers ? "fff" : "rrr");
            ASSERT_EQ(NtQueryInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation), STATUS_SUCCESS);
            EXPECT_EQ(basic.FileAttributes, ULONG(answers ? FILE_ATTRIBUTE_HIDDEN : FILE_ATTRIBUTE_ARCHIVE));
            ASSERT_EQ(NtDeviceIoControlFile(h, nullptr, nullptr, nullptr, &iosb, kEchoBuffered, const_cast<char*>("xyz"),
                                            3, echo, 3),
                      STATUS_SUCCESS);
            EXPECT_EQ(std::string(echo, 3), "XYZ");
            EXPECT_EQ(world.fastCalls,
                      (std::vector<std::string>{"FastIoRead", "FastIoQueryBasicInfo", "FastIoDeviceControl"}));
            EXPECT_EQ(world.lower.size(), answers ? 0u : 3u);
        }
        NtClose(h);
    });
}

TEST_F(IoTest, HandlesTypesAndAccessAreCheckedBeforeAnyPacket) {
    InProcess([&] {
        HANDLE readOnly, readable, event;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &readOnly, FILE_READ_ATTRIBUTES | SYNCHRONIZE), STATUS_SUCCESS);
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &readable), STATUS_SUCCESS);
        ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
        world.lower.clear();
        char buffer[2];
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER zero{};
        struct Case {
            const char* what;
            NTSTATUS status;
        };
        const Case cases[] = {
            {"bad handle", NtReadFile(reinterpret_cast<HANDLE>(0x7ffc), nullptr, nullptr, nullptr, &iosb, buffer, 2,
                                      &zero, nullptr)},
            {"event as a file", NtReadFile(event, nullptr, nullptr, nullptr, &iosb, buffer, 2, &zero, nullptr)},
            {"file as an event", NtReadFile(readable, readable, nullptr, nullptr, &iosb, buffer, 2, &zero, nullptr)},
            {"no read access", NtReadFile(readOnly, nullptr, nullptr, nullptr, &iosb, buffer, 2, &zero, nullptr)},
            {"no write access for the code",
             NtDeviceIoControlFile(readOnly, nullptr, nullptr, nullptr, &iosb, kNeedsWrite, nullptr, 0, nullptr, 0)},
            {"query class too short", NtQueryInformationFile(readOnly, &iosb, buffer, 2, FileBasicInformation)},
            {"set-only class", NtQueryInformationFile(readOnly, &iosb, buffer, 2, FileRenameInformation)},
            {"query-only class", NtSetInformationFile(readOnly, &iosb, buffer, 2, FileStandardInformation)},
            {"close twice", [&] {
                 HANDLE extra;
                 Open(u"\\Device\\IoTest\\g", &extra);
                 NtClose(extra);
                 return NtClose(extra);
             }()},
        };
        const NTSTATUS expected[] = {STATUS_INVALID_HANDLE,      STATUS_OBJECT_TYPE_MISMATCH,
                                     STATUS_OBJECT_TYPE_MISMATCH, STATUS_ACCESS_DENIED,
                                     STATUS_ACCESS_DENIED,        STATUS_INFO_LENGTH_MISMATCH,
                                     STATUS_INVALID_INFO_CLASS,   STATUS_INVALID_INFO_CLASS,
                                     STATUS_INVALID_HANDLE};
        for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].status, expected[i]) << cases[i].what;
        std::vector<UCHAR> majors = world.Majors(world.lower);
        EXPECT_EQ(std::count(majors.begin(), majors.end(), IRP_MJ_READ), 0) << "no refused request reached the device";
        // Kernel mode is trusted with the same handle.
        EXPECT_EQ(ZwReadFile(readOnly, nullptr, nullptr, nullptr, &iosb, buffer, 2, &zero, nullptr), STATUS_SUCCESS);
        NtClose(event);
        NtClose(readable);
        NtClose(readOnly);
    });
}

TEST_F(IoTest, TheIoManagerAnswersAccessModeAndPositionItself) {
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\f", &h, GENERIC_READ | SYNCHRONIZE), STATUS_SUCCESS);
        world.lower.clear();
        IO_STATUS_BLOCK iosb{};
        FILE_ACCESS_INFORMATION access{};
        FILE_MODE_INFORMATION mode{};
        ASSERT_EQ(NtQueryInformationFile(h, &iosb, &access, sizeof access, FileAccessInformation), STATUS_SUCCESS);
        EXPECT_EQ(access.AccessFlags, ACCESS_MASK(FILE_GENERIC_READ)) << "generic rights are mapped";
        ASSERT_EQ(NtQueryInformationFile(h, &iosb, &mode, sizeof mode, FileModeInformation), STATUS_SUCCESS);
        EXPECT_EQ(mode.Mode, ULONG(FILE_SYNCHRONOUS_IO_NONALERT));
        EXPECT_EQ(iosb.Information, sizeof mode);
        EXPECT_TRUE(world.lower.empty());
        NtClose(h);
    });
}

TEST_F(IoTest, ARenameByFullNameOpensTheTargetsParentForTheDriver) {
    InProcess([&] {
        HANDLE h;
        ASSERT_EQ(Open(u"\\Device\\IoTest\\a", &h, GENERIC_READ | DELETE | SYNCHRONIZE), STATUS_SUCCESS);
        const std::u16string target = u"\\Device\\IoTest\\dir\\b";
        std::vector<char> buffer(sizeof(FILE_RENAME_INFORMATION) + target.size() * 2);
        auto* rename = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
        rename->ReplaceIfExists = TRUE;
        rename->FileNameLength = ULONG(target.size() * 2);
        memcpy(rename->FileName, target.data(), target.size() * 2);
        IO_STATUS_BLOCK iosb{};
        world.lower.clear();
        ASSERT_EQ(NtSetInformationFile(h, &iosb, rename, ULONG(buffer.size()), FileRenameInformation),
                  STATUS_SUCCESS);
        ASSERT_GE(world.lower.size(), 2u);
        const Seen& open = world.lower[0];
        EXPECT_EQ(open.major, IRP_MJ_CREATE);
        EXPECT_EQ(open.flags & SL_OPEN_TARGET_DIRECTORY, SL_OPEN_TARGET_DIRECTORY);
        EXPECT_EQ(open.fileName, u"\\dir\\b");
        const Seen& set = world.lower[1];
        EXPECT_EQ(set.major, IRP_MJ_SET_INFORMATION);
        EXPECT_EQ(set.targetFile, open.file);
        // The target's open is closed again once the rename is done.
        EXPECT_EQ(world.Majors(world.lower), (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_SET_INFORMATION,
                                                                  IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
        // A target on another device is refused before the driver sees it.
        const std::u16string other = u"\\Device\\IoExclusive\\b";
        rename->FileNameLength = ULONG(other.size() * 2);
        memcpy(rename->FileName, other.data(), other.size() * 2);
        EXPECT_EQ(NtSetInformationFile(h, &iosb, rename, ULONG(buffer.size()), FileRenameInformation),
                  STATUS_NOT_SAME_DEVICE);
        NtClose(h);
    });
}

}  // namespace
}  // namespace iotest
