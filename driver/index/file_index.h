// File indexes: in-memory directory trees of path names kept in two
// position-independent areas (fixed 48-byte entries linked by offsets, and
// packed UTF-16 names), the index files they are loaded from, and the global
// hidden-path index.
#pragma once

#include "platform/platform.h"

// ---- Layout -------------------------------------------------------------------

#define FILE_INDEX_NODE_HEADER_SIZE 68   // bytes before entry 0 in the node area / node file
#define FILE_INDEX_NAME_HEADER_SIZE 8    // bytes before the names region in the name area / name file
#define FILE_INDEX_NODE_RESERVE 120      // node capacity = node area size - this
#define FILE_INDEX_NAME_RESERVE 16       // name capacity = name area size - this
#define FILE_INDEX_MIN_NODE_AREA 167
#define FILE_INDEX_MIN_NAME_AREA 16
#define FILE_INDEX_NODE_FILE_EXTRA 72    // node file = 68-byte header + entries + 4 bytes
#define FILE_INDEX_NAME_FILE_EXTRA 14    // name file = 8-byte header + names + 6 bytes
#define FILE_INDEX_TYPE_DIRECTORY 1

#define FILTER_INDEX_AREA_SIZE 0x500000  // each area of an index loaded from files
#define HIDDEN_PATH_AREA_SIZE 0x300000   // each area of the hidden-path index

// One entry, identical in memory and in the node file (little-endian).
struct FileIndexEntry {
    ULONG m_ulType;               // FILE_INDEX_TYPE_DIRECTORY, anything else is a file
    ULONG m_ulNameOffset;         // in the names region
    ULONG m_ulNameLength;         // bytes; low 16 bits used
    ULONG m_ulOffset;             // own entry offset; 0 only for the root
    ULONG m_ulParentOffset;
    ULONG m_ulFirstChildOffset;   // 0: no children
    ULONG m_ulNextSiblingOffset;  // 0: last
    ULONG m_ulPrevSiblingOffset;  // 0: first
    ULONG m_aulReserved[4];
};
typedef FileIndexEntry* PFileIndexEntry;

#define FILE_INDEX_ENTRY_SIZE 48
static_assert(sizeof(FileIndexEntry) == FILE_INDEX_ENTRY_SIZE, "a FileIndexEntry is 48 bytes");

// What releases the mapped area of an index file: the section object
// (referenced) and the base of its view in system space.
typedef struct _IndexFileMapping {
    PVOID m_pSection;
    PVOID m_pView;
} IndexFileMapping, *PIndexFileMapping;

// The in-memory side table of an index: every entry that stands in a child
// list, chained by the hash of its parent's offset and its upcased name, so
// that a child is found without walking its siblings. It lies in the same
// memory as the node area (after it) and is made when the index is made or
// loaded; the areas' format is untouched. Null pointers: no table (an index
// over areas of the caller's, or a loaded tree whose lists are not a proper
// tree), and lookups walk the child lists.
typedef struct _IndexChildTable {
    PULONG m_pulBuckets;  // per bucket: slot number + 1 of its first entry, 0 when empty
    PULONG m_pulNext;     // per entry slot: slot number + 1 of the next entry of its chain, 0 at the end
    ULONG m_ulBucketMask; // bucket count - 1 (a power of two)
    ULONG m_ulSlots;      // entry slots the node area holds
} IndexChildTable;

struct FileIndex {
    ERESOURCE m_Lock;  // shared for lookups, exclusive for changes
    PUCHAR m_pNodeArea;
    PUCHAR m_pNameArea;
    ULONG m_ulNodeAreaSize;
    ULONG m_ulNameAreaSize;
    ULONG m_ulNodeCapacity;  // largest entry offset at which a new entry may go
    ULONG m_ulNameCapacity;  // name bytes the names region may hold
    ULONG m_ulNodeUsed;      // entry offset of the next new entry
    ULONG m_ulNameUsed;      // names-region offset of the next new name
    IndexFileMapping m_NodeMapping;  // loaded indexes only
    IndexFileMapping m_NameMapping;
    HANDLE m_hNodeFile;
    HANDLE m_hNameFile;
    IndexChildTable m_Children;
};
typedef FileIndex* PFileIndex;

// ---- Storage ------------------------------------------------------------------

// Sets up the fixed-size pool of FileIndex objects. Once, at start-up.
VOID InitFileIndexPool();
// Gives the pool's cached objects back to the system (machine shutdown, tests).
VOID DeleteFileIndexPool();

// An empty index with areas from non-paged pool; null when a size is below
// its minimum or memory runs out.
PFileIndex CreateFileIndex(ULONG ulNodeAreaSize, ULONG ulNameAreaSize);

// An index object over existing areas (contents left alone); m_ulNodeUsed and
// m_ulNameUsed are 0 for the caller to set. Null when no object is had.
PFileIndex InitFileIndex(PVOID pNodeArea, ULONG ulNodeAreaSize, const IndexFileMapping* pNodeMapping,
                         HANDLE hNodeFile, PVOID pNameArea, ULONG ulNameAreaSize,
                         const IndexFileMapping* pNameMapping, HANDLE hNameFile);

// Writes the empty state (root only, no names) into both areas.
VOID ResetIndexAreas(PFileIndex pIndex);

// Releases an index and everything it owns: areas taken from pool, or the
// views, section references and file handles of a loaded one. Indexes live
// for the life of the driver; this serves failed creations and tests.
VOID FreeFileIndex(PFileIndex pIndex);

// Bytes of the child table of a node area of ulNodeAreaSize bytes; 0 when
// it would not fit in 32 bits (the index then has none).
ULONG IndexChildTableSize(ULONG ulNodeAreaSize);
// Makes the child table in pTable (IndexChildTableSize bytes, aligned for
// ULONGs) from the index's child lists. An index whose lists are not a
// proper tree (a link outside the area, an entry in two lists or twice in
// one, a child whose parent link names another directory, two names alike
// in one directory) gets none.
VOID BuildIndexChildTable(PFileIndex pIndex, PVOID pTable);

// Tree primitives on entry copies. The caller holds m_Lock (exclusively for
// the three that change the tree).
BOOLEAN FindIndexChild(PFileIndex pIndex, const FileIndexEntry* pParent, PCUNICODE_STRING pustrName,
                       PFileIndexEntry pResult);
BOOLEAN AddIndexChild(PFileIndex pIndex, const FileIndexEntry* pParent, PCUNICODE_STRING pustrName,
                      ULONG ulType);
BOOLEAN UnlinkIndexEntry(PFileIndex pIndex, const FileIndexEntry* pEntry);
BOOLEAN MoveIndexEntry(PFileIndex pIndex, const FileIndexEntry* pEntry, const FileIndexEntry* pNewParent,
                       PCUNICODE_STRING pustrNewName);

// ---- Paths (drive paths: letter, colon, backslash, rest; the letter is ignored) ----

BOOLEAN LookupIndexPath(PFileIndex pIndex, PCUNICODE_STRING pustrFilePath, PFileIndexEntry pResult);
BOOLEAN WalkIndexPath(PFileIndex pIndex, const FileIndexEntry* pStart, PCUNICODE_STRING pustrRelativePath,
                      PFileIndexEntry pResult);
BOOLEAN InsertIndexPath(PFileIndex pIndex, PCUNICODE_STRING pustrFilePath, ULONG ulType);
BOOLEAN RemoveIndexPath(PFileIndex pIndex, PCUNICODE_STRING pustrFilePath);
BOOLEAN RenameIndexPath(PFileIndex pIndex, PCUNICODE_STRING pustrSourcePath, PCUNICODE_STRING pustrTargetPath);

// ---- Index files ----------------------------------------------------------------

// Opens a file (drive path), makes a zero-filled area of ulAreaSize bytes and
// reads the whole file into it. Whatever was acquired is handed back even on
// failure (null / zero otherwise) for the caller to release.
NTSTATUS MapIndexFile(ULONG ulAreaSize, PCUNICODE_STRING pustrFilePath, PHANDLE phFile,
                      PIndexFileMapping pMapping, PVOID* ppArea, PULONG pulFileSize);

// Loads an index from its node file and name file; null on any failure, with
// nothing left open or mapped.
PFileIndex LoadFileIndex(PCUNICODE_STRING pustrNodeFile, ULONG ulNodeAreaSize, PCUNICODE_STRING pustrNameFile,
                         ULONG ulNameAreaSize);

// Loads the index of the filter directory of ulFilterFlag from an index
// record (two 520-byte path slots: node file, name file). TRUE when that
// filter directory now has an index. Loads at most once per filter directory.
BOOLEAN LoadFilterIndex(ULONG ulFilterFlag, PVOID pIndexRecord);

// TRUE when the index in *ppIndexHolder lists pustrPath, or when there is no
// index to ask (no holder, or nothing loaded into it).
BOOLEAN LookupFilterIndex(struct FileIndex** ppIndexHolder, PCUNICODE_STRING pustrPath);

// ---- Hidden paths -----------------------------------------------------------------

extern PFileIndex g_pHiddenPathIndex;  // null when it could not be created

VOID CreateHiddenPathIndex();
VOID HidePath(PCUNICODE_STRING pustrPath);
BOOLEAN IsPathHidden(PCUNICODE_STRING pustrPath);
