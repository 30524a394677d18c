// Shared pieces of the file index tests: a machine whose System process runs
// the index code, counted strings over test text, and direct access to the
// entries of an index for checking its layout.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "driver_test.h"

#include "index/file_index.h"

namespace tervane::test {

// A machine with the FileIndex pool set up; indexes made through Create are
// released at the end, and the verifier must then find nothing outstanding.
class IndexTest : public TervaneTest {
protected:
    void SetUp() override {
        TervaneTest::SetUp();
        Kernel([] { InitFileIndexPool(); });
    }
    void BeforeShutdown() override {
        Kernel([this] {
            for (PFileIndex index : indexes) FreeFileIndex(index);
            DeleteFileIndexPool();
        });
    }

    PFileIndex Create(ULONG nodeSize = 0x10000, ULONG nameSize = 0x10000) {
        PFileIndex index = nullptr;
        Kernel([&] { index = CreateFileIndex(nodeSize, nameSize); });
        if (index != nullptr) indexes.push_back(index);
        return index;
    }

    std::vector<PFileIndex> indexes;
};

// The live entry at an entry offset.
inline FileIndexEntry& EntryAt(PFileIndex index, ULONG offset) {
    return *reinterpret_cast<FileIndexEntry*>(index->m_pNodeArea + FILE_INDEX_NODE_HEADER_SIZE + offset);
}

inline std::u16string NameOf(PFileIndex index, const FileIndexEntry& e) {
    const uint8_t* p = index->m_pNameArea + FILE_INDEX_NAME_HEADER_SIZE + (e.m_ulNameOffset & ~1u);
    std::u16string s((e.m_ulNameLength & 0xFFFF) / 2, u'\0');
    std::memcpy(s.data(), p, s.size() * 2);
    return s;
}

}  // namespace tervane::test
