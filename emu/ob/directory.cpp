// The object namespace: directory objects, named insertion and removal, and
// the walk from a name to an object through directories and symbolic links.
// One lock guards every directory (a short spin before sleeping: every open
// by name walks the namespace under it); a directory holds a reference on
// each object it names.
#include "ob/ob_internal.h"

#include "machine/adaptive_mutex.h"

namespace tervane::emu {

POBJECT_TYPE ObpDirectoryType;

namespace {

AdaptiveMutex g_namespaceLock;
PVOID g_root;  // "\"

constexpr int kMaxReparse = 32;  // symbolic links followed in one lookup

ObpDirectory* Dir(PVOID object) { return static_cast<ObpDirectory*>(object); }
bool IsDirectory(PVOID object) { return ObGetObjectType(object) == ObpDirectoryType; }

void DeleteDirectory(PVOID object) {
    delete Dir(object)->entries;
    Dir(object)->entries = nullptr;
}

NTSTATUS CreateDirectoryObject(PVOID* object) {
    NTSTATUS status = ObCreateObject(ObpDirectoryType, sizeof(ObpDirectory), object);
    if (NT_SUCCESS(status)) Dir(*object)->entries = new std::map<std::u16string, PVOID>();
    return status;
}

// Looks the component of PATH at POS (LENGTH characters) up in DIRECTORY;
// the lock is held. The upcased key is made in a buffer of the thread's
// own, so that a lookup allocates nothing once it has seen a name as long.
PVOID FindEntry(PVOID directory, std::u16string_view path, size_t pos, size_t length, bool caseInsensitive) {
    thread_local std::u16string key;
    key.assign(path.substr(pos, length));
    for (auto& c : key) c = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)));
    auto& entries = *Dir(directory)->entries;
    auto it = entries.find(key);
    if (it == entries.end()) return nullptr;
    const std::u16string& name = ObpHeader(it->second)->name;
    if (!caseInsensitive && name != path.substr(pos, length)) return nullptr;
    return it->second;
}

// Splits "\a\b\leaf" into its parent path and leaf.
bool SplitName(const std::u16string& name, std::u16string* parent, std::u16string* leaf) {
    size_t slash = name.rfind(u'\\');
    if (slash == std::u16string::npos) return false;
    *parent = slash == 0 ? u"\\" : name.substr(0, slash);
    *leaf = name.substr(slash + 1);
    return true;
}

void RemoveAllNames(PVOID directory) {
    std::vector<PVOID> children;
    {
        std::lock_guard<AdaptiveMutex> guard(g_namespaceLock);
        for (auto& [key, child] : *Dir(directory)->entries) children.push_back(child);
        Dir(directory)->entries->clear();
        for (PVOID child : children) ObpHeader(child)->directory = nullptr;
    }
    for (PVOID child : children) {
        if (IsDirectory(child)) RemoveAllNames(child);
        ObfDereferenceObject(child);
        ObfDereferenceObject(directory);  // the child's hold on its parent
    }
}

}  // namespace

std::u16string ObpUpcase(const std::u16string& s) {
    std::u16string up(s);
    for (auto& c : up) c = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)));
    return up;
}

namespace {

// ObpLookup with the namespace lock held by the caller.
NTSTATUS LookupLocked(PVOID root, std::u16string_view name, bool caseInsensitive, bool openLink, PVOID* object,
                      std::u16string* remaining) {
    *object = nullptr;
    remaining->clear();
    std::u16string_view path = name;
    std::u16string rewritten;  // the name once a symbolic link replaced its start
    PVOID current;
    size_t pos;
    if (root) {
        if (!IsDirectory(root)) {  // a file or key parses the whole name itself
            ObfReferenceObject(root);
            *object = root;
            remaining->assign(name);
            return STATUS_SUCCESS;
        }
        if (!path.empty() && path[0] == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        current = root;
        pos = 0;
    } else {
        if (path.empty() || path[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        current = g_root;
        pos = 1;
    }
    if (!current) return STATUS_OBJECT_PATH_NOT_FOUND;
    int reparse = 0;
    for (;;) {
        if (pos == path.size()) {  // "\" or an empty name relative to a directory
            ObpReferenceHeld(current);
            *object = current;
            return STATUS_SUCCESS;
        }
        size_t end = path.find(u'\\', pos);
        if (end == std::u16string::npos) end = path.size();
        if (end == pos) return STATUS_OBJECT_NAME_INVALID;  // "\\" or a trailing "\"
        bool last = end == path.size();
        PVOID child = FindEntry(current, path, pos, end - pos, caseInsensitive);
        if (!child) return last ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
        if (ObGetObjectType(child) == ObpSymbolicLinkType && !(openLink && last)) {
            const std::u16string& target = *static_cast<ObpSymbolicLink*>(child)->target;
            if (++reparse > kMaxReparse) return STATUS_OBJECT_NAME_NOT_FOUND;
            if (target.empty() || target[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
            std::u16string next = target;
            next.append(path.data() + end, path.size() - end);
            rewritten.swap(next);
            path = rewritten;
            current = g_root;
            pos = 1;
            continue;
        }
        if (last) {
            ObpReferenceHeld(child);
            *object = child;
            return STATUS_SUCCESS;
        }
        if (IsDirectory(child)) {
            current = child;
            pos = end + 1;
            if (pos == path.size()) return STATUS_OBJECT_NAME_INVALID;
            continue;
        }
        // An object that parses the rest of the name itself (a device, a key).
        ObpReferenceHeld(child);
        *object = child;
        remaining->assign(path.substr(end));
        return STATUS_SUCCESS;
    }
}

}  // namespace

NTSTATUS ObpLookup(PVOID root, std::u16string_view name, bool caseInsensitive, bool openLink, PVOID* object,
                   std::u16string* remaining) {
    std::lock_guard<AdaptiveMutex> guard(g_namespaceLock);
    return LookupLocked(root, name, caseInsensitive, openLink, object, remaining);
}

std::u16string ObpFullName(PVOID object) {
    std::lock_guard<AdaptiveMutex> guard(g_namespaceLock);
    std::u16string full;
    for (PVOID o = object; o && ObpHeader(o)->directory; o = ObpHeader(o)->directory)
        full = u"\\" + ObpHeader(o)->name + full;
    return full;
}

NTSTATUS ObLookupName(PCUNICODE_STRING name, BOOLEAN caseInsensitive, PVOID* object, std::u16string* remaining) {
    std::u16string captured;
    NTSTATUS status = ObpCaptureName(name, &captured);
    if (!NT_SUCCESS(status)) return status;
    return ObpLookup(nullptr, captured, caseInsensitive, false, object, remaining);
}

NTSTATUS ObpInsertName(PVOID object, const std::u16string& name) {
    std::u16string parentName, leaf;
    if (name.empty() || name[0] != u'\\' || !SplitName(name, &parentName, &leaf))
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    if (leaf.empty()) return STATUS_OBJECT_NAME_INVALID;
    std::lock_guard<AdaptiveMutex> guard(g_namespaceLock);
    PVOID parent;
    std::u16string rest;
    NTSTATUS status = LookupLocked(nullptr, parentName, true, false, &parent, &rest);
    if (!NT_SUCCESS(status)) return status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_OBJECT_PATH_NOT_FOUND : status;
    if (!IsDirectory(parent) || !rest.empty()) {
        ObfDereferenceObject(parent);
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    ObjectHeader* header = ObpHeader(object);
    if (header->directory) {
        ObfDereferenceObject(parent);
        return STATUS_INVALID_PARAMETER;  // already named
    }
    auto& entries = *Dir(parent)->entries;
    std::u16string key = ObpUpcase(leaf);
    if (entries.count(key)) {
        ObfDereferenceObject(parent);
        return STATUS_OBJECT_NAME_COLLISION;
    }
    ObfReferenceObject(object);
    entries[key] = object;
    header->directory = parent;  // keeps the parent's reference
    header->name = leaf;
    return STATUS_SUCCESS;
}

bool ObpRemoveName(PVOID object) {
    PVOID parent;
    {
        std::lock_guard<AdaptiveMutex> guard(g_namespaceLock);
        ObjectHeader* header = ObpHeader(object);
        parent = header->directory;
        if (!parent) return false;
        Dir(parent)->entries->erase(ObpUpcase(header->name));
        header->directory = nullptr;
    }
    ObfDereferenceObject(parent);
    ObfDereferenceObject(object);
    return true;
}

NTSTATUS ObInsertNamedObject(PVOID object, PCUNICODE_STRING name) {
    std::u16string captured;
    NTSTATUS status = ObpCaptureName(name, &captured);
    if (!NT_SUCCESS(status)) return status;
    return ObpInsertName(object, captured);
}

NTSTATUS ObpRemoveNamedObject(PCUNICODE_STRING name, POBJECT_TYPE type) {
    std::u16string captured;
    NTSTATUS status = ObpCaptureName(name, &captured);
    if (!NT_SUCCESS(status)) return status;
    PVOID object;
    std::u16string rest;
    status = ObpLookup(nullptr, captured, true, true, &object, &rest);
    if (!NT_SUCCESS(status)) return status;
    if (type && (!rest.empty() || ObGetObjectType(object) != type)) status = STATUS_OBJECT_TYPE_MISMATCH;
    else if (!rest.empty() || !ObpRemoveName(object)) status = STATUS_OBJECT_NAME_NOT_FOUND;
    ObfDereferenceObject(object);
    return status;
}

NTSTATUS ObRemoveNamedObject(PCUNICODE_STRING name) { return ObpRemoveNamedObject(name, nullptr); }

void ObStartup() {
    ObpCreateSymbolicLinkType();
    ObpCreateEventType();
    if (!ObpDirectoryType) {
        ObjectTypeInit init{};
        init.name = "Directory";
        init.mapping = {STANDARD_RIGHTS_READ | 0x3, STANDARD_RIGHTS_WRITE | 0xC, STANDARD_RIGHTS_EXECUTE | 0x3,
                        STANDARD_RIGHTS_REQUIRED | 0xF};
        init.validAccess = STANDARD_RIGHTS_REQUIRED | 0xF;
        init.deleteProcedure = DeleteDirectory;
        ObpDirectoryType = ObCreateObjectType(init);
    }
    if (CreateDirectoryObject(&g_root) != STATUS_SUCCESS) return;
    for (const char16_t* name : {u"\\Device", u"\\Driver", u"\\FileSystem", u"\\??", u"\\ObjectTypes"}) {
        PVOID directory;
        if (!NT_SUCCESS(CreateDirectoryObject(&directory))) continue;
        ObpInsertName(directory, name);
        ObfDereferenceObject(directory);
    }
    ObCreateSymbolicLinkInternal(u"\\DosDevices", u"\\??");
}

void ObShutdown() {
    if (!g_root) return;
    RemoveAllNames(g_root);
    PVOID root = g_root;
    g_root = nullptr;
    ObfDereferenceObject(root);
}

}  // namespace tervane::emu
