// Reading an index pair back: the driver's load checks, lookups and dumps.
// The files are read as the driver sees them once loaded: each file at the
// start of a zero-filled 5 MB area, every link checked against that area and
// every sibling walk bounded, so a hostile pair gives a message, never a
// read outside the data or an endless walk.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "format.h"
#include "indexfile.h"

namespace tervane::indexfile {

using detail::EntryPosition;
using detail::ReadEntry;

std::string CheckIndexFiles(const IndexFiles& files) {
    size_t node = files.node.size();
    size_t name = files.name.size();
    auto bytes = [](size_t n) { return std::to_string(n) + " bytes"; };
    if (node > kAreaSize) return "the node file is " + bytes(node) + ", more than its 5 MB area (" + bytes(kAreaSize) + ")";
    if (node < kNodeFileExtra + kEntrySize)
        return "the node file is " + bytes(node) + ", shorter than header, root entry and trailer (120 bytes)";
    if ((node - kNodeFileExtra) % kEntrySize != 0)
        return "the node file is " + bytes(node) + ": its length minus 72 is not a multiple of 48";
    if (name > kAreaSize) return "the name file is " + bytes(name) + ", more than its 5 MB area (" + bytes(kAreaSize) + ")";
    if (name < kNameFileExtra) return "the name file is " + bytes(name) + ", shorter than header and trailer (14 bytes)";
    if ((name - kNameFileExtra) % 2 != 0) return "the name file is " + bytes(name) + ": its names region has an odd length";
    return {};
}

bool SameFile(const std::filesystem::path& a, const std::filesystem::path& b) {
    std::error_code ea, eb;
    if (std::filesystem::equivalent(a, b, ea)) return true;
    auto ca = std::filesystem::weakly_canonical(std::filesystem::absolute(a, ea), ea);
    auto cb = std::filesystem::weakly_canonical(std::filesystem::absolute(b, eb), eb);
    return !ea && !eb && ca == cb;
}

// fopen with a host path: Windows takes it in UTF-16.
static FILE* OpenHostFile(const std::filesystem::path& path, const char* mode) {
#if defined(_WIN32)
    std::wstring wideMode(mode, mode + std::strlen(mode));
    return _wfopen(path.c_str(), wideMode.c_str());
#else
    return std::fopen(path.c_str(), mode);
#endif
}

bool WriteIndexFiles(const IndexFiles& files, const std::filesystem::path& nodeFile,
                     const std::filesystem::path& nameFile, std::string* error) {
    std::string problem = CheckIndexFiles(files);
    if (!problem.empty()) {
        *error = problem;
        return false;
    }
    if (SameFile(nodeFile, nameFile)) {
        *error = "the node file and the name file are the same file (" + PathText(nodeFile) + ")";
        return false;
    }
    for (auto [path, data] : {std::pair{&nodeFile, &files.node}, std::pair{&nameFile, &files.name}}) {
        FILE* out = OpenHostFile(*path, "wb");
        if (!out) {
            *error = "cannot write " + PathText(*path) + ": " + std::strerror(errno);
            return false;
        }
        bool written = std::fwrite(data->data(), 1, data->size(), out) == data->size();
        int writeErrno = errno;
        if (std::fclose(out) != 0 && written) {
            written = false;
            writeErrno = errno;
        }
        if (!written) {
            *error = "cannot write " + PathText(*path) + ": " + std::strerror(writeErrno);
            return false;
        }
    }
    return true;
}

static bool ReadWhole(const std::filesystem::path& path, std::vector<uint8_t>* out, std::string* error) {
    std::error_code ec;
    uintmax_t size = std::filesystem::file_size(path, ec);
    if (ec) {
        *error = "cannot read " + PathText(path) + ": " + ec.message();
        return false;
    }
    if (size > kAreaSize) {  // refused anyway; do not read it
        *error = PathText(path) + " is " + std::to_string(size) + " bytes, more than its 5 MB area";
        return false;
    }
    FILE* in = OpenHostFile(path, "rb");
    if (!in) {
        *error = "cannot read " + PathText(path) + ": " + std::strerror(errno);
        return false;
    }
    out->assign(size_t(size), 0);
    bool read = std::fread(out->data(), 1, out->size(), in) == out->size();
    int readErrno = errno;
    std::fclose(in);
    if (!read) {
        *error = "cannot read " + PathText(path) + ": " + (readErrno ? std::strerror(readErrno) : "it is shorter than it was");
        return false;
    }
    return true;
}

bool ReadIndexFiles(const std::filesystem::path& nodeFile, const std::filesystem::path& nameFile,
                    IndexFiles* out, std::string* error) {
    IndexFiles files;
    if (!ReadWhole(nodeFile, &files.node, error) || !ReadWhole(nameFile, &files.name, error)) return false;
    std::string problem = CheckIndexFiles(files);
    if (!problem.empty()) {
        *error = problem + " (" + PathText(nodeFile) + ", " + PathText(nameFile) + ")";
        return false;
    }
    *out = std::move(files);
    return true;
}

namespace {

// A loaded pair as the driver addresses it.
class LoadedView {
public:
    explicit LoadedView(const IndexFiles& files) : files_(files) {}

    uint32_t WalkLimit() const { return uint32_t((files_.node.size() - kNodeFileExtra) / kEntrySize) + 1; }

    // The entry an offset designates; false when it lies outside the area.
    bool EntryAt(uint32_t offset, Entry* e) const {
        uint64_t pos = EntryPosition(offset);
        if (pos + kEntrySize > kAreaSize) return false;
        uint8_t raw[kEntrySize] = {};
        for (uint64_t i = 0; i < kEntrySize && pos + i < files_.node.size(); i++) raw[i] = files_.node[pos + i];
        *e = ReadEntry(raw);
        return true;
    }

    bool NameOf(const Entry& e, std::u16string* name) const {
        uint64_t start = kNameHeaderSize + uint64_t(e.nameOffset & ~1u);
        uint32_t length = e.nameLength & 0xFFFF;
        if (length % 2 != 0 || start + length > kAreaSize) return false;
        name->clear();
        for (uint64_t i = start; i < start + length; i += 2) {
            char16_t lo = i < files_.name.size() ? files_.name[i] : 0;
            char16_t hi = i + 1 < files_.name.size() ? files_.name[i + 1] : 0;
            name->push_back(char16_t(lo | hi << 8));
        }
        return true;
    }

    // The child NAME of directory PARENT, as the driver's search finds it.
    // Returns false when absent; *error is set when a broken link or a cycle
    // ended the search.
    bool FindChild(const Entry& parent, std::u16string_view name, Entry* result, std::string* error) const {
        if (name.empty() || name == u"\\") {
            *result = parent;
            return true;
        }
        Entry live;
        if (!EntryAt(parent.offset, &live)) return Broken(error, parent.offset);
        if (live.type != kTypeDirectory || live.firstChildOffset == 0) return false;
        std::u16string wanted = detail::Upcase(name);
        uint32_t offset = live.firstChildOffset;
        for (uint32_t step = 0; step < WalkLimit(); step++) {
            Entry e;
            if (!EntryAt(offset, &e)) return Broken(error, offset);
            if (e.offset == 0) return false;
            std::u16string candidate;
            if (NameOf(e, &candidate) && detail::Upcase(candidate) == wanted) {
                *result = e;
                return true;
            }
            offset = e.nextSiblingOffset;
        }
        *error = "a child list of the index forms a cycle";
        return false;
    }

private:
    static bool Broken(std::string* error, uint32_t offset) {
        *error = "a link of the index points outside the node area (offset " + std::to_string(offset) + ")";
        return false;
    }
    const IndexFiles& files_;
};

std::string PrintableName(std::u16string_view name) {
    std::string out;
    if (Utf16ToUtf8(name, &out)) return out;
    out.clear();
    for (char16_t c : name) {
        std::string one;
        if (Utf16ToUtf8(std::u16string_view(&c, 1), &one)) {
            out += one;
        } else {
            char buf[16];
            snprintf(buf, sizeof buf, "\\x{%04X}", unsigned(c));
            out += buf;
        }
    }
    return out;
}

}  // namespace

std::optional<Entry> LookupPath(const IndexFiles& files, std::u16string_view path, std::string* error) {
    error->clear();
    std::string problem = CheckIndexFiles(files);
    if (!problem.empty()) {
        *error = problem;
        return std::nullopt;
    }
    LoadedView view(files);
    Entry current;
    view.EntryAt(0, &current);
    std::u16string rel = detail::RelativePart(path);
    std::u16string_view rest(rel);
    if (rest.empty() || rest == u"\\") return current;
    if (rest.front() == u'\\') rest.remove_prefix(1);
    for (;;) {
        size_t slash = rest.find(u'\\');
        Entry found;
        if (!view.FindChild(current, rest.substr(0, slash), &found, error)) return std::nullopt;
        if (slash == std::u16string_view::npos || slash + 1 == rest.size()) return found;
        if (!view.EntryAt(found.offset, &current)) {
            *error = "a link of the index points outside the node area";
            return std::nullopt;
        }
        rest.remove_prefix(slash + 1);
    }
}

bool DumpIndex(const IndexFiles& files, const std::function<void(const DumpLine&)>& visit, std::string* error) {
    std::string problem = CheckIndexFiles(files);
    if (!problem.empty()) {
        *error = problem;
        return false;
    }
    LoadedView view(files);
    std::vector<bool> seen((kAreaSize - kNodeHeaderSize) / kEntrySize, false);
    struct Pending {
        uint32_t offset;
        std::string path;
        uint32_t depth;
    };
    std::vector<Pending> stack{{0, "\\", 0}};
    seen[0] = true;
    while (!stack.empty()) {
        Pending item = std::move(stack.back());
        stack.pop_back();
        Entry e;
        view.EntryAt(item.offset, &e);
        visit(DumpLine{item.path, item.depth, item.offset, e.type});
        if (e.type != kTypeDirectory) continue;
        std::vector<Pending> children;
        for (uint32_t offset = e.firstChildOffset; offset != 0;) {
            Entry child;
            if (!view.EntryAt(offset, &child)) {
                *error = "entry " + std::to_string(item.offset) + " (" + item.path +
                         ") links to offset " + std::to_string(offset) + ", outside the node area";
                return false;
            }
            if (child.offset == 0) break;
            uint32_t slot = offset / kEntrySize;
            if (seen[slot]) {
                *error = "entry " + std::to_string(slot * kEntrySize) + " is reached twice below " + item.path +
                         ": the index has a cycle";
                return false;
            }
            seen[slot] = true;
            std::u16string name;
            if (!view.NameOf(child, &name)) {
                *error = "the name of entry " + std::to_string(slot * kEntrySize) + " lies outside the name area";
                return false;
            }
            std::string childPath = (item.depth == 0 ? "\\" : item.path + "\\") + PrintableName(name);
            children.push_back({slot * kEntrySize, childPath, item.depth + 1});
            offset = child.nextSiblingOffset;
        }
        stack.insert(stack.end(), std::make_move_iterator(children.rbegin()), std::make_move_iterator(children.rend()));
    }
    return true;
}

}  // namespace tervane::indexfile
