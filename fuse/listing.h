// Listings that POSIX programs can use. The driver's merged listing names an
// entry once for every filter directory that holds it, filter directory 0
// first; a POSIX listing names it once, as the copy an open reaches: the
// first. Names match as NT matches them, without regard to case.
#pragma once

#include <vector>

#include "nt_file.h"

namespace tervane::fuse {

// ENTRIES without repeats and without "." and "..", in their order.
std::vector<DirectoryEntry> UniqueEntries(const std::vector<DirectoryEntry>& entries);

}  // namespace tervane::fuse
