// Byte-level helpers shared by the index file sources: little-endian entry
// access inside the node file and the case folding used to compare names.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "indexfile.h"

namespace tervane::indexfile::detail {

inline uint32_t LoadU32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

inline void StoreU32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v >> 16);
    p[3] = uint8_t(v >> 24);
}

// Byte position of the entry an offset designates (the slot it falls in).
inline uint64_t EntryPosition(uint32_t offset) {
    return kNodeHeaderSize + uint64_t(offset / kEntrySize) * kEntrySize;
}

inline Entry ReadEntry(const uint8_t* p) {
    Entry e;
    uint32_t* fields[] = {&e.type,         &e.nameOffset,       &e.nameLength,        &e.offset,
                          &e.parentOffset, &e.firstChildOffset, &e.nextSiblingOffset, &e.prevSiblingOffset};
    for (int i = 0; i < 8; i++) *fields[i] = LoadU32(p + 4 * i);
    return e;
}

inline void WriteEntry(uint8_t* p, const Entry& e) {
    const uint32_t fields[] = {e.type,         e.nameOffset,       e.nameLength,        e.offset,
                               e.parentOffset, e.firstChildOffset, e.nextSiblingOffset, e.prevSiblingOffset};
    std::memset(p, 0, kEntrySize);
    for (int i = 0; i < 8; i++) StoreU32(p + 4 * i, fields[i]);
}

// Upper case of one UTF-16 unit for name comparison: ASCII, Latin-1, Greek
// and Cyrillic letters; every other unit compares as itself.
char16_t UpcaseUnit(char16_t c);
std::u16string Upcase(std::u16string_view s);

// Splits a path into its text below the root: drops a drive prefix "X:" and
// turns '/' into '\'.
std::u16string RelativePart(std::u16string_view path);

}  // namespace tervane::indexfile::detail
