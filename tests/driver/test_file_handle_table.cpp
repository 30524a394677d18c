// The open-file table on its own: buckets, chains, duplicate keys and the
// path copy, on a machine whose System process runs the table code.
#include <string>
#include <vector>

#include "driver_test.h"
#include "filemgr/file_handle_table.h"

namespace tervane::test {
namespace {

// Keys are only compared, never dereferenced: addresses inside this array.
alignas(64) uint8_t g_keys[1 << 20];

PFILE_OBJECT Key(size_t offset) { return reinterpret_cast<PFILE_OBJECT>(g_keys + offset); }

// Addresses 32768 bytes apart share a bucket.
constexpr size_t kSameBucket = 32768;

class FileHandleTableTest : public TervaneTest {
protected:
    void SetUp() override {
        TervaneTest::SetUp();
        Kernel([] { InitFileHandleTable(); });
    }
    void BeforeShutdown() override {
        Kernel([] { ReleaseFileHandleTable(); });
    }

    // Adds an entry for KEY whose path is PATH in a buffer of CAPACITY bytes.
    void Add(PFILE_OBJECT key, std::u16string path, USHORT capacity = 2048, ULONG flag = 1) {
        path.resize(std::max<size_t>(path.size(), capacity / 2));
        FileHandleEntry entry = {};
        entry.m_pFileObject = key;
        entry.m_ulFilterEntryFlag = flag;
        entry.m_ustrFullPath.Buffer = reinterpret_cast<PWSTR>(path.data());
        entry.m_ustrFullPath.MaximumLength = capacity;
        entry.m_ustrFullPath.Length = 0;
        for (size_t i = 0; i < capacity / 2 && path[i] != u'\0'; i++) entry.m_ustrFullPath.Length += 2;
        Kernel([&] { AddFileHandleEntry(&entry); });
    }
    PFileHandleEntry Find(PFILE_OBJECT key) {
        PFileHandleEntry entry = nullptr;
        Kernel([&] { entry = FindFileHandleEntry(key); });
        return entry;
    }
    void Remove(PFILE_OBJECT key) {
        Kernel([&] { RemoveFileHandleEntry(key); });
    }
    std::string PathOf(PFileHandleEntry entry) { return emu::Utf16ToUtf8(entry->m_ustrFullPath); }
};

// Removing any position of a chain keeps the others reachable.
TEST_F(FileHandleTableTest, RemovalAnywhereInAChainKeepsTheRest) {
    for (int victim = 0; victim < 3; victim++) {
        SCOPED_TRACE(victim);
        std::vector<PFILE_OBJECT> keys = {Key(128), Key(128 + kSameBucket), Key(128 + 2 * kSameBucket)};
        for (size_t i = 0; i < keys.size(); i++) Add(keys[i], u"C:\\f" + std::u16string(1, u'0' + i));
        // The chain runs newest first: victim 0 is the last, 2 the head.
        Remove(keys[victim]);
        for (size_t i = 0; i < keys.size(); i++) {
            PFileHandleEntry entry = Find(keys[i]);
            if (int(i) == victim) {
                EXPECT_EQ(entry, nullptr);
            } else {
                ASSERT_NE(entry, nullptr);
                EXPECT_EQ(PathOf(entry), "C:\\f" + std::to_string(i));
            }
        }
        for (PFILE_OBJECT key : keys) Remove(key);
        for (PFILE_OBJECT key : keys) EXPECT_EQ(Find(key), nullptr);
    }
}

TEST_F(FileHandleTableTest, NewerEntryForTheSameKeyHidesTheOlder) {
    Add(Key(256), u"C:\\old");
    Add(Key(256), u"C:\\new");
    EXPECT_EQ(PathOf(Find(Key(256))), "C:\\new");
    EXPECT_EQ(Find(Key(256))->m_ustrFullPath.MaximumLength, 12) << "a path is kept at its length, not in 2 KiB";
    Remove(Key(256));
    ASSERT_NE(Find(Key(256)), nullptr);
    EXPECT_EQ(PathOf(Find(Key(256))), "C:\\old");
    Remove(Key(256));
    EXPECT_EQ(Find(Key(256)), nullptr);
    Remove(Key(256));  // unknown key: nothing happens
}

TEST_F(FileHandleTableTest, PathCopy) {
    Add(Key(512), u"C:\\dir\\file.txt");
    struct Case {
        const char* name;
        PFILE_OBJECT key;
        USHORT capacity;
        BOOLEAN result;
        std::string text;
    };
    const Case cases[] = {
        {"fits", Key(512), 100, TRUE, "C:\\dir\\file.txt"},
        {"exact", Key(512), 30, TRUE, "C:\\dir\\file.txt"},
        {"cut to capacity", Key(512), 8, TRUE, "C:\\d"},
        {"unknown open leaves it empty", Key(544), 100, FALSE, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::u16string buffer(c.capacity / 2 + 4, u'#');
        UNICODE_STRING out = {USHORT(6), c.capacity, reinterpret_cast<PWSTR>(buffer.data())};
        BOOLEAN result = FALSE;
        Kernel([&] { result = GetFileHandleEntryPath(c.key, &out); });
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(emu::Utf16ToUtf8(out), c.text);
        EXPECT_EQ(buffer[c.capacity / 2], u'#') << "wrote past the capacity";
    }
    BOOLEAN result = TRUE;
    Kernel([&] { result = GetFileHandleEntryPath(Key(512), nullptr); });
    EXPECT_FALSE(result);
}

// Allocation failures leave no entry behind and nothing allocated.
TEST_F(FileHandleTableTest, FailedAllocationsMakeNoEntry) {
    for (uint64_t n : {1, 2}) {
        SCOPED_TRACE(n);
        machine->FailNthAllocation(n);
        Add(Key(4096), u"C:\\x");
        machine->ClearFaultInjection();
        EXPECT_EQ(Find(Key(4096)), nullptr);
    }
    std::string log = machine->TakeNewLog();
    EXPECT_NE(log.find("add file handle fail (alloc fail)"), std::string::npos);
    EXPECT_NE(log.find("add file handle fail (file path alloc fail)"), std::string::npos);
}

}  // namespace
}  // namespace tervane::test
