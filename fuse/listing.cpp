// Listings that POSIX programs can use.
#include "listing.h"

#include <unordered_set>

namespace tervane::fuse {

std::vector<DirectoryEntry> UniqueEntries(const std::vector<DirectoryEntry>& entries) {
    std::vector<DirectoryEntry> unique;
    unique.reserve(entries.size());
    std::unordered_set<std::u16string> seen;
    seen.reserve(entries.size() * 2);
    for (const auto& e : entries) {
        if (e.name == u"." || e.name == u"..") continue;
        std::u16string key = e.name;
        for (auto& c : key) c = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)));
        if (seen.insert(std::move(key)).second) unique.push_back(e);
    }
    return unique;
}

}  // namespace tervane::fuse
