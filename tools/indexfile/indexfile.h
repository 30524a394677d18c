// Index files on the host: the node file and the name file that the driver
// loads as the file index of its last filter directory. This library builds a
// pair from a host directory tree, reads a pair back with the same checks the
// driver makes, dumps the tree and looks paths up. The bytes it writes are
// exactly the driver's layout:
//
//   node file: 68-byte header (zero), N entries of 48 bytes, 4 bytes (zero);
//              entry k lies at 68 + 48*k and has entry offset 48*k; entry 0 is
//              the root. Entry: eight little-endian 32-bit words (type,
//              name offset, name length in bytes, own offset, parent, first
//              child, next sibling, previous sibling) and four zero words.
//   name file: 8-byte header (zero), the names in UTF-16LE packed without
//              terminators, 6 bytes (zero).
//
// A new child goes to the head of its parent's child list. Names are compared
// without regard to case. Every function reports failure through its result
// and a message; nothing throws.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tervane::indexfile {

inline constexpr uint32_t kAreaSize = 0x500000;  // each file must fit its 5 MB area
inline constexpr uint32_t kEntrySize = 48;
inline constexpr uint32_t kNodeHeaderSize = 68;
inline constexpr uint32_t kNameHeaderSize = 8;
inline constexpr uint32_t kNodeFileExtra = 72;  // header + 4 bytes after the entries
inline constexpr uint32_t kNameFileExtra = 14;  // header + 6 bytes after the names
inline constexpr uint32_t kTypeFile = 0;
inline constexpr uint32_t kTypeDirectory = 1;
// Most entries (root included) and name bytes a pair may hold.
inline constexpr uint32_t kMaxEntries = (kAreaSize - kNodeFileExtra) / kEntrySize;
inline constexpr uint32_t kMaxNameBytes = kAreaSize - kNameFileExtra;

struct Entry {
    uint32_t type = 0;
    uint32_t nameOffset = 0;
    uint32_t nameLength = 0;
    uint32_t offset = 0;
    uint32_t parentOffset = 0;
    uint32_t firstChildOffset = 0;
    uint32_t nextSiblingOffset = 0;
    uint32_t prevSiblingOffset = 0;
};

// The two files' bytes.
struct IndexFiles {
    std::vector<uint8_t> node;
    std::vector<uint8_t> name;
};

// Builds a pair in memory, one path at a time, as the driver inserts paths.
class IndexBuilder {
public:
    IndexBuilder();  // the root alone: node file of 120 bytes, name file of 14
    ~IndexBuilder();
    IndexBuilder(const IndexBuilder&) = delete;
    IndexBuilder& operator=(const IndexBuilder&) = delete;

    // Adds PATH ("a\b\c", "\a\b\c" or "C:\a\b\c"; the drive is ignored) with
    // TYPE for its last component; missing parents become directories. False
    // with a message when the path is already present, passes through a file,
    // has an empty last component, or would not fit the 5 MB areas.
    bool Add(std::u16string_view path, uint32_t type, std::string* error);

    uint32_t EntryCount() const;  // root included
    const IndexFiles& Files() const;

private:
    struct Impl;
    Impl* impl_;
};

// Progress of a build on a large tree.
struct BuildProgress {
    uint64_t entries;                       // entries stored so far (root excluded)
    uint64_t nameBytes;                     // name bytes stored so far
    const std::filesystem::path* current;  // the host path being added
};
using ProgressCallback = std::function<void(const BuildProgress&)>;

// A host name below the tree that the volume does not show, so that the
// index cannot list it either.
struct NameProblem {
    std::filesystem::path path;  // the host path
    std::string reason;          // "differs only in case from NAME", "holds the character ':'", ...
};

struct BuildOptions {
    // Leave out every name the volume does not show (reported in PROBLEMS)
    // and build the rest, instead of refusing the tree.
    bool skipUnrepresentable = false;
    std::vector<NameProblem>* problems = nullptr;  // every such name, in walk order
    ProgressCallback progress;
    uint64_t progressInterval = 10000;
};

// Why the volume does not show the host entry NAME (bytes of a directory
// entry) of type STATUS, or an empty string when it does: a name that is not
// valid UTF-8, "." or "..", one holding
// a control character or one of " * / : < > ? \ |, and anything that is not
// a regular file or a directory (symbolic links included: they are never
// followed). Two names of one directory that differ only in case are not
// decided here: the volume shows the first in byte order.
std::string HostNameProblem(const std::string& name, std::filesystem::file_type type);

// Builds the index of everything below HOSTDIR (HOSTDIR itself is the root).
// Names within each directory are added in byte order of their UTF-8 names.
// Every name the volume does not show (HostNameProblem, and each later one of
// two names that differ only in case) is reported in OPTIONS.problems; the
// build then fails unless OPTIONS.skipUnrepresentable, with *ERROR saying how
// many there are and naming the first. Also refuses, naming the cause, a
// directory that cannot be listed and a tree that does not fit the areas.
// PROGRESS, when given, is called every PROGRESSINTERVAL entries and once at
// the end.
bool BuildIndex(const std::filesystem::path& hostDir, IndexFiles* out, std::string* error,
                const BuildOptions& options);
bool BuildIndex(const std::filesystem::path& hostDir, IndexFiles* out, std::string* error,
                const ProgressCallback& progress = {}, uint64_t progressInterval = 10000);

// The counts of a pair, worded alike everywhere: "3 entries, 42 name bytes"
// (the root is not counted).
uint64_t EntryCountOf(const IndexFiles& files);
uint64_t NameBytesOf(const IndexFiles& files);
std::string CountsText(uint64_t entries, uint64_t nameBytes);

// Empty when the driver would load the pair; otherwise why it would refuse it.
std::string CheckIndexFiles(const IndexFiles& files);

// True when A and B name one file (or would, once made).
bool SameFile(const std::filesystem::path& a, const std::filesystem::path& b);
// Refuses a node file and a name file that are one file.
bool WriteIndexFiles(const IndexFiles& files, const std::filesystem::path& nodeFile,
                     const std::filesystem::path& nameFile, std::string* error);
// Reads a pair and refuses what the driver would refuse (CheckIndexFiles).
bool ReadIndexFiles(const std::filesystem::path& nodeFile, const std::filesystem::path& nameFile,
                    IndexFiles* out, std::string* error);

// Looks PATH up as the driver does (drive form "C:\a\b", or "\a\b", or
// "a\b"; '/' is taken as '\'). The entry, or nullopt; a broken link or a
// sibling cycle met on the way ends the lookup with a message in *error.
std::optional<Entry> LookupPath(const IndexFiles& files, std::u16string_view path, std::string* error);

// One line of a dump: the entry's path from the root ("\a\b"; "\" for the
// root), its depth (root 0), its entry offset and type.
struct DumpLine {
    std::string path;  // UTF-8
    uint32_t depth;
    uint32_t offset;
    uint32_t type;
};

// Visits every entry reachable from the root, parents before children, each
// child list in list order. Stops with a message on a link outside the node
// area, a name outside the name area, or an entry reached twice (a cycle).
bool DumpIndex(const IndexFiles& files, const std::function<void(const DumpLine&)>& visit, std::string* error);

// Host paths and the tools' UTF-8 text, alike on every host (on Windows a
// path's plain narrow form would be the ANSI code page). PathToUtf8 is false
// for a Windows name that is not valid UTF-16; PathText never fails (such a
// name is shown with '?').
std::filesystem::path HostPath(std::string_view utf8);
bool PathToUtf8(const std::filesystem::path& path, std::string* out);
std::string PathText(const std::filesystem::path& path);

// Text helpers (strict: invalid input gives false).
bool Utf8ToUtf16(std::string_view in, std::u16string* out);
bool Utf16ToUtf8(std::u16string_view in, std::string* out);

}  // namespace tervane::indexfile
