// Registry keys and value queries.
#include <gtest/gtest.h>

#include <cstring>

#include <emu/machine.h>

using namespace tervane::emu;

namespace {

const std::u16string kCurrentVersion = u"\\Registry\\Machine\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

NTSTATUS Open(const std::u16string& path, HANDLE* key, HANDLE root = nullptr) {
    UNICODE_STRING name = MakeUnicodeString(path);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
    return ZwOpenKey(key, KEY_READ, &oa);
}

// SystemRoot as a REG_SZ: "C:\WINDOWS" with its terminator, 22 bytes.
constexpr ULONG kDataBytes = 22;
constexpr ULONG kNameBytes = 20;  // "SystemRoot"

}  // namespace

TEST(Registry, OpenResolvesNamesCaseInsensitively) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        struct Case {
            std::u16string path;
            NTSTATUS status;
        } cases[] = {
            {kCurrentVersion, STATUS_SUCCESS},
            {u"\\REGISTRY\\machine\\software\\MICROSOFT\\windows nt\\currentversion", STATUS_SUCCESS},
            {u"\\Registry\\Machine", STATUS_SUCCESS},
            {u"\\Registry\\Machine\\Nothing", STATUS_OBJECT_NAME_NOT_FOUND},
            {u"\\Registry\\Machine\\Nothing\\Below", STATUS_OBJECT_NAME_NOT_FOUND},
            {u"Registry\\Machine", STATUS_OBJECT_PATH_SYNTAX_BAD},
            {u"\\Registry\\Machine\\\\SOFTWARE", STATUS_OBJECT_NAME_INVALID},
            {u"\\Device", STATUS_OBJECT_TYPE_MISMATCH},
        };
        for (const Case& c : cases) {
            HANDLE key = nullptr;
            EXPECT_EQ(Open(c.path, &key), c.status) << Utf16ToUtf8(c.path);
            if (NT_SUCCESS(c.status)) {
                EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
            }
        }
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Registry, QueryClassesLayoutsAndBufferStatuses) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        HANDLE key;
        ASSERT_EQ(Open(kCurrentVersion, &key), STATUS_SUCCESS);
        UNICODE_STRING value;
        RtlInitUnicodeString(&value, L"systemroot");
        const ULONG basic = FIELD_OFFSET(KEY_VALUE_BASIC_INFORMATION, Name);
        const ULONG fullFixed = FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name);
        const ULONG fullData = (fullFixed + kNameBytes + 3) & ~3u;
        const ULONG partial = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
        struct Case {
            KEY_VALUE_INFORMATION_CLASS infoClass;
            ULONG length;
            NTSTATUS status;
            ULONG result;
        } cases[] = {
            {KeyValueBasicInformation, 200, STATUS_SUCCESS, basic + kNameBytes},
            {KeyValueBasicInformation, basic + 4, STATUS_BUFFER_OVERFLOW, basic + kNameBytes},
            {KeyValueBasicInformation, basic - 1, STATUS_BUFFER_TOO_SMALL, basic + kNameBytes},
            {KeyValueFullInformation, 200, STATUS_SUCCESS, fullData + kDataBytes},
            {KeyValueFullInformation, fullData + 2, STATUS_BUFFER_OVERFLOW, fullData + kDataBytes},
            {KeyValueFullInformation, fullFixed - 1, STATUS_BUFFER_TOO_SMALL, fullData + kDataBytes},
            {KeyValuePartialInformation, 200, STATUS_SUCCESS, partial + kDataBytes},
            {KeyValuePartialInformation, partial + 4, STATUS_BUFFER_OVERFLOW, partial + kDataBytes},
            {KeyValuePartialInformation, 0, STATUS_BUFFER_TOO_SMALL, partial + kDataBytes},
        };
        for (const Case& c : cases) {
            alignas(8) unsigned char buffer[256];
            std::memset(buffer, 0xCC, sizeof(buffer));
            ULONG result = 0;
            NTSTATUS status = ZwQueryValueKey(key, &value, c.infoClass, buffer, c.length, &result);
            EXPECT_EQ(status, c.status) << c.infoClass << " " << c.length;
            EXPECT_EQ(result, c.result) << c.infoClass << " " << c.length;
            EXPECT_EQ(buffer[c.length], 0xCC) << "nothing written past the length";
            if (status == STATUS_BUFFER_TOO_SMALL) {
                EXPECT_EQ(buffer[0], 0xCC) << "nothing written";
                continue;
            }
            if (c.infoClass == KeyValueBasicInformation) {
                auto* info = reinterpret_cast<KEY_VALUE_BASIC_INFORMATION*>(buffer);
                EXPECT_EQ(info->Type, ULONG(REG_SZ));
                EXPECT_EQ(info->NameLength, kNameBytes);
                EXPECT_EQ(info->Name[0], L'S');
            } else if (c.infoClass == KeyValueFullInformation) {
                auto* info = reinterpret_cast<KEY_VALUE_FULL_INFORMATION*>(buffer);
                EXPECT_EQ(info->DataOffset, fullData);
                EXPECT_EQ(info->DataLength, kDataBytes);
                EXPECT_EQ(info->NameLength, kNameBytes);
                EXPECT_EQ(reinterpret_cast<WCHAR*>(buffer + fullData)[0], L'C') << "partial data is copied";
            } else {
                auto* info = reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(buffer);
                EXPECT_EQ(info->DataLength, kDataBytes);
                EXPECT_EQ(reinterpret_cast<WCHAR*>(info->Data)[1], L':');
                if (status == STATUS_SUCCESS) {
                    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(info->Data)), u"C:\\WINDOWS");
                }
            }
        }
        ULONG result;
        unsigned char buffer[64];
        EXPECT_EQ(ZwQueryValueKey(key, &value, static_cast<KEY_VALUE_INFORMATION_CLASS>(9), buffer, 64, &result),
                  STATUS_INVALID_PARAMETER);
        UNICODE_STRING missing;
        RtlInitUnicodeString(&missing, L"NoSuchValue");
        EXPECT_EQ(ZwQueryValueKey(key, &missing, KeyValuePartialInformation, buffer, 64, &result),
                  STATUS_OBJECT_NAME_NOT_FOUND);
        ZwClose(key);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Registry, CreateSetAndHostValuesMeet) {
    Machine machine;
    machine.SetRegistryString("\\Registry\\Machine\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot",
                              "D:\\WINNT");
    machine.Run(machine.SystemProcess(), [] {
        HANDLE key;
        ASSERT_EQ(Open(kCurrentVersion, &key), STATUS_SUCCESS);
        UNICODE_STRING value;
        RtlInitUnicodeString(&value, L"SystemRoot");
        alignas(8) unsigned char buffer[128];
        ULONG result;
        ASSERT_EQ(ZwQueryValueKey(key, &value, KeyValuePartialInformation, buffer, sizeof(buffer), &result),
                  STATUS_SUCCESS);
        auto* info = reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(buffer);
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(info->Data)), u"D:\\WINNT");

        // A subkey relative to the open key, created then reopened.
        UNICODE_STRING sub;
        RtlInitUnicodeString(&sub, L"Tervane");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &sub, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, key, nullptr);
        HANDLE created;
        ULONG disposition = 0;
        ASSERT_EQ(ZwCreateKey(&created, KEY_ALL_ACCESS, &oa, 0, nullptr, 0, &disposition), STATUS_SUCCESS);
        EXPECT_EQ(disposition, 1u);  // REG_CREATED_NEW_KEY
        ULONG dword = 7;
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"Count");
        EXPECT_EQ(ZwSetValueKey(created, &name, 0, REG_DWORD, &dword, sizeof(dword)), STATUS_SUCCESS);
        ZwClose(created);
        ASSERT_EQ(ZwCreateKey(&created, KEY_ALL_ACCESS, &oa, 0, nullptr, 0, &disposition), STATUS_SUCCESS);
        EXPECT_EQ(disposition, 2u);  // REG_OPENED_EXISTING_KEY
        ASSERT_EQ(ZwQueryValueKey(created, &name, KeyValuePartialInformation, buffer, sizeof(buffer), &result),
                  STATUS_SUCCESS);
        EXPECT_EQ(info->Type, ULONG(REG_DWORD));
        EXPECT_EQ(*reinterpret_cast<ULONG*>(info->Data), 7u);
        ZwClose(created);

        UNICODE_STRING deep;
        RtlInitUnicodeString(&deep, L"Missing\\Child");
        InitializeObjectAttributes(&oa, &deep, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, key, nullptr);
        EXPECT_EQ(ZwCreateKey(&created, KEY_ALL_ACCESS, &oa, 0, nullptr, 0, &disposition),
                  STATUS_OBJECT_NAME_NOT_FOUND) << "only the last component is created";
        ZwClose(key);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Registry, HandlesAreCheckedForTypeAndAccess) {
    Machine machine;
    Process* user = machine.CreateProcess(1000, "reader.exe");
    machine.Run(user, [] {
        UNICODE_STRING name = MakeUnicodeString(kCurrentVersion);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        HANDLE key;
        ASSERT_EQ(NtOpenKey(&key, KEY_ENUMERATE_SUB_KEYS, &oa), STATUS_SUCCESS);
        UNICODE_STRING value;
        RtlInitUnicodeString(&value, L"SystemRoot");
        unsigned char buffer[64];
        ULONG result;
        EXPECT_EQ(NtQueryValueKey(key, &value, KeyValuePartialInformation, buffer, sizeof(buffer), &result),
                  STATUS_ACCESS_DENIED);
        EXPECT_EQ(NtQueryValueKey(reinterpret_cast<HANDLE>(0x7FF0), &value, KeyValuePartialInformation, buffer,
                                  sizeof(buffer), &result),
                  STATUS_INVALID_HANDLE);
        NtClose(key);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}
