// Building an index pair: paths added one at a time, exactly as the driver
// inserts them, and whole host directory trees.
#include <algorithm>
#include <system_error>
#include <unordered_map>

#include "format.h"
#include "indexfile.h"

namespace tervane::indexfile {

using detail::EntryPosition;
using detail::ReadEntry;
using detail::WriteEntry;

struct IndexBuilder::Impl {
    IndexFiles files;
    // Children by parent offset and upper-cased name, so that adding to a
    // directory of many entries does not walk its child list.
    std::unordered_map<std::u16string, uint32_t> children;

    static std::u16string Key(uint32_t parent, std::u16string_view name) {
        std::u16string key;
        key.push_back(char16_t(parent >> 16));
        key.push_back(char16_t(parent & 0xFFFF));
        key += detail::Upcase(name);
        return key;
    }

    uint32_t Count() const { return uint32_t((files.node.size() - kNodeFileExtra) / kEntrySize); }
    uint32_t NameBytes() const { return uint32_t(files.name.size() - kNameFileExtra); }

    Entry At(uint32_t offset) const { return ReadEntry(files.node.data() + EntryPosition(offset)); }
    void Put(const Entry& e) { WriteEntry(files.node.data() + EntryPosition(e.offset), e); }

    std::optional<uint32_t> Find(uint32_t parent, std::u16string_view name) const {
        auto it = children.find(Key(parent, name));
        if (it == children.end()) return std::nullopt;
        return it->second;
    }

    // Stores a new child at the head of PARENT's list; the caller checked
    // that the name is free.
    bool AddChild(uint32_t parent, std::u16string_view name, uint32_t type, std::string* error) {
        if (name.size() > 32767) {
            *error = "a name is longer than 32767 characters";
            return false;
        }
        if (Count() + 1 > kMaxEntries) {
            *error = "the tree does not fit an index: more than " + std::to_string(kMaxEntries - 1) +
                     " entries (the node file must fit its 5 MB area)";
            return false;
        }
        uint64_t nameBytes = name.size() * 2;
        if (NameBytes() + nameBytes > kMaxNameBytes) {
            *error = "the tree does not fit an index: its names take more than " + std::to_string(kMaxNameBytes) +
                     " bytes (the name file must fit its 5 MB area)";
            return false;
        }
        Entry e;
        e.type = type;
        e.nameOffset = NameBytes();
        e.nameLength = uint32_t(nameBytes);
        e.offset = Count() * kEntrySize;
        e.parentOffset = parent;
        Entry p = At(parent);
        e.nextSiblingOffset = p.firstChildOffset;

        std::vector<uint8_t> nameData(nameBytes);
        for (size_t i = 0; i < name.size(); i++) {
            nameData[2 * i] = uint8_t(name[i]);
            nameData[2 * i + 1] = uint8_t(name[i] >> 8);
        }
        files.name.insert(files.name.end() - 6, nameData.begin(), nameData.end());
        files.node.insert(files.node.end() - 4, kEntrySize, uint8_t(0));
        Put(e);
        if (p.firstChildOffset != 0) {
            Entry first = At(p.firstChildOffset);
            first.prevSiblingOffset = e.offset;
            Put(first);
        }
        p.firstChildOffset = e.offset;
        Put(p);
        children.emplace(Key(parent, name), e.offset);
        return true;
    }
};

IndexBuilder::IndexBuilder() : impl_(new Impl) {
    impl_->files.node.assign(kNodeFileExtra + kEntrySize, 0);
    impl_->files.name.assign(kNameFileExtra, 0);
    Entry root;
    root.type = kTypeDirectory;
    impl_->Put(root);
}

IndexBuilder::~IndexBuilder() { delete impl_; }

uint32_t IndexBuilder::EntryCount() const { return impl_->Count(); }

const IndexFiles& IndexBuilder::Files() const { return impl_->files; }

bool IndexBuilder::Add(std::u16string_view path, uint32_t type, std::string* error) {
    std::u16string rel = detail::RelativePart(path);
    if (!rel.empty() && rel.back() == u'\\') rel.pop_back();
    std::vector<std::u16string_view> parts;
    std::u16string_view rest(rel);
    for (;;) {
        size_t slash = rest.find(u'\\');
        parts.push_back(rest.substr(0, slash));
        if (slash == std::u16string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    uint32_t current = 0;
    for (size_t i = 0; i + 1 < parts.size(); i++) {
        if (parts[i].empty()) continue;  // "a\\b" names a\b
        auto found = impl_->Find(current, parts[i]);
        if (found && impl_->At(*found).type != kTypeDirectory) {
            *error = "the path passes through a file";
            return false;
        }
        if (!found) {
            if (!impl_->AddChild(current, parts[i], kTypeDirectory, error)) return false;
            found = impl_->Find(current, parts[i]);
        }
        current = *found;
    }
    if (parts.back().empty()) {
        *error = "the path has an empty last component";
        return false;
    }
    if (impl_->Find(current, parts.back())) {
        *error = "the path is already in the index";
        return false;
    }
    return impl_->AddChild(current, parts.back(), type, error);
}

std::string HostNameProblem(const std::string& name, std::filesystem::file_type type) {
    using std::filesystem::file_type;
    if (type == file_type::symlink) return "is a symbolic link (never followed)";
    if (type != file_type::regular && type != file_type::directory) return "is neither a file nor a directory";
    std::u16string wide;
    if (!Utf8ToUtf16(name, &wide)) return "is not valid UTF-8";
    if (name == "." || name == "..") return "is a name of its own directory or its parent";
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7f)
            return c == 0x7f ? "holds the control character 0x7f"
                             : "holds the control character 0x" + std::string(1, "0123456789abcdef"[c >> 4]) +
                                   "0123456789abcdef"[c & 15];
        if (std::string_view("\"*/:<>?\\|").find(char(c)) != std::string_view::npos)
            return std::string("holds the character '") + char(c) + "'";
    }
    return {};
}

uint64_t EntryCountOf(const IndexFiles& files) {
    return files.node.size() < kNodeFileExtra + kEntrySize ? 0
                                                            : (files.node.size() - kNodeFileExtra) / kEntrySize - 1;
}

uint64_t NameBytesOf(const IndexFiles& files) {
    return files.name.size() < kNameFileExtra ? 0 : files.name.size() - kNameFileExtra;
}

std::string CountsText(uint64_t entries, uint64_t nameBytes) {
    return std::to_string(entries) + (entries == 1 ? " entry, " : " entries, ") + std::to_string(nameBytes) +
           " name bytes";
}

namespace {

struct TreeWalk {
    IndexBuilder& builder;
    std::string* error;
    const BuildOptions& options;
    std::vector<NameProblem> problems;
    uint64_t added = 0;

    void Report(const std::filesystem::path& current) {
        if (options.progress) {
            BuildProgress p{added, NameBytesOf(builder.Files()), &current};
            options.progress(p);
        }
    }

    // Adds the entries of host directory DIR, whose index path is PREFIX.
    // Names the volume does not show are noted and left out; with problems
    // noted and no leave to skip them, nothing more is added, but the walk
    // goes on to find them all.
    bool AddDirectory(const std::filesystem::path& dir, const std::u16string& prefix) {
        std::error_code ec;
        std::vector<std::filesystem::directory_entry> entries;
        for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
            entries.push_back(*it);
        }
        if (ec) {
            *error = "cannot list " + PathText(dir) + ": " + ec.message();
            return false;
        }
        std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
            return a.path().filename().native() < b.path().filename().native();
        });
        std::unordered_map<std::u16string, std::string> seen;  // upper-cased name -> host name
        for (const auto& entry : entries) {
            std::string hostName;
            bool named = PathToUtf8(entry.path().filename(), &hostName);
            std::filesystem::file_status status = entry.symlink_status(ec);
            if (ec) {
                *error = "cannot look at " + PathText(entry.path()) + ": " + ec.message();
                return false;
            }
            std::string problem = named ? HostNameProblem(hostName, status.type()) : "is not valid UTF-16";
            std::u16string name;
            if (problem.empty()) {
                Utf8ToUtf16(hostName, &name);
                auto [it, inserted] = seen.emplace(detail::Upcase(name), hostName);
                if (!inserted) problem = "differs only in case from " + it->second;
            }
            if (!problem.empty()) {
                problems.push_back({entry.path(), problem});
                continue;
            }
            bool isDirectory = status.type() == std::filesystem::file_type::directory;
            std::u16string path = prefix + u"\\" + name;
            if (problems.empty() || options.skipUnrepresentable) {
                if (!builder.Add(path, isDirectory ? kTypeDirectory : kTypeFile, error)) {
                    *error += " (at " + PathText(entry.path()) + ")";
                    return false;
                }
                if (++added % options.progressInterval == 0) Report(entry.path());
            }
            if (isDirectory && !AddDirectory(entry.path(), path)) return false;
        }
        return true;
    }
};

}  // namespace

bool BuildIndex(const std::filesystem::path& hostDir, IndexFiles* out, std::string* error,
                const BuildOptions& options) {
    std::error_code ec;
    if (!std::filesystem::is_directory(hostDir, ec)) {
        *error = PathText(hostDir) + (std::filesystem::exists(hostDir, ec) ? " is not a directory" : " does not exist");
        return false;
    }
    IndexBuilder builder;
    BuildOptions walkOptions = options;
    if (walkOptions.progressInterval == 0) walkOptions.progressInterval = 1;
    TreeWalk walk{builder, error, walkOptions, {}};
    bool ok = walk.AddDirectory(hostDir, u"");
    if (options.problems) *options.problems = walk.problems;
    if (!ok) return false;
    if (!walk.problems.empty() && !options.skipUnrepresentable) {
        const NameProblem& first = walk.problems.front();
        *error = std::to_string(walk.problems.size()) +
                 (walk.problems.size() == 1 ? " name the volume does not show" : " names the volume does not show") +
                 ", so the index cannot hold " + (walk.problems.size() == 1 ? "it" : "them") + "; the first: " +
                 PathText(first.path) + " " + first.reason;
        return false;
    }
    walk.Report(hostDir);
    *out = builder.Files();
    return true;
}

bool BuildIndex(const std::filesystem::path& hostDir, IndexFiles* out, std::string* error,
                const ProgressCallback& progress, uint64_t progressInterval) {
    BuildOptions options;
    options.progress = progress;
    options.progressInterval = progressInterval;
    return BuildIndex(hostDir, out, error, options);
}

}  // namespace tervane::indexfile
