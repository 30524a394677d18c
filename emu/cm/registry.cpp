// The registry's key tree and its lifetime within the machine.
#include "cm/registry.h"

#include <cstring>

#include "machine/machine_impl.h"
#include "machine/services.h"

namespace tervane::emu {

CmValue* CmKey::FindValue(const std::u16string& name) {
    std::u16string wanted = CmUpcase(name);
    for (CmValue& value : values)
        if (CmUpcase(value.name) == wanted) return &value;
    return nullptr;
}

Registry::Registry() {
    root.name = u"REGISTRY";
    size_t missing;
    Walk(&root, {u"MACHINE", u"SOFTWARE", u"Microsoft", u"Windows NT", u"CurrentVersion"}, true, &missing);
    Walk(&root, {u"MACHINE", u"SYSTEM", u"CurrentControlSet", u"Services"}, true, &missing);
    Walk(&root, {u"USER"}, true, &missing);
}

CmKey* Registry::Walk(CmKey* from, const std::vector<std::u16string>& components, bool create, size_t* missingAt) {
    CmKey* key = from;
    for (size_t i = 0; i < components.size(); ++i) {
        std::u16string upcased = CmUpcase(components[i]);
        auto it = key->subkeys.find(upcased);
        if (it == key->subkeys.end()) {
            if (!create) {
                *missingAt = i;
                return nullptr;
            }
            auto child = std::make_unique<CmKey>();
            child->name = components[i];
            child->parent = key;
            it = key->subkeys.emplace(upcased, std::move(child)).first;
        }
        key = it->second.get();
    }
    return key;
}

void Registry::SetValue(CmKey* key, const std::u16string& name, ULONG type, const void* data, size_t size) {
    CmValue* value = key->FindValue(name);
    if (!value) {
        key->values.emplace_back();
        key->values.back().name = name;
        value = &key->values.back();
    }
    value->type = type;
    const auto* bytes = static_cast<const uint8_t*>(data);
    value->data.assign(bytes, bytes + size);
}

std::u16string CmUpcase(const std::u16string& s) {
    std::u16string out(s);
    for (char16_t& c : out) c = RtlUpcaseUnicodeChar(c);
    return out;
}

bool CmSplitPath(const std::u16string& path, std::vector<std::u16string>* components) {
    components->clear();
    size_t start = 0;
    if (path.empty()) return true;
    for (;;) {
        size_t end = path.find(u'\\', start);
        std::u16string part = path.substr(start, end == std::u16string::npos ? std::u16string::npos : end - start);
        if (part.empty()) return false;
        components->push_back(part);
        if (end == std::u16string::npos) return true;
        start = end + 1;
    }
}

namespace {
Registry* g_registry = nullptr;
}

Registry& CmRegistry() {
    if (!g_registry) {
        std::fprintf(stderr, "tervane: the registry is used before the machine started it\n");
        std::abort();
    }
    return *g_registry;
}

void CmStartup() {
    delete g_registry;
    g_registry = new Registry();
    CmSetRegistryString(u"\\Registry\\Machine\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", u"SystemRoot",
                        u"C:\\WINDOWS");
    CmStartupObjects();
}

void CmShutdown() {
    CmShutdownObjects();
    delete g_registry;
    g_registry = nullptr;
}

void CmSetRegistryString(const std::u16string& key, const std::u16string& name, const std::u16string& value) {
    Registry& registry = CmRegistry();
    std::u16string path = key;
    static const std::u16string kPrefix = u"\\REGISTRY\\";
    if (CmUpcase(path.substr(0, kPrefix.size())) == kPrefix) path = path.substr(kPrefix.size());
    std::vector<std::u16string> components;
    if (!CmSplitPath(path, &components)) throw std::invalid_argument("bad registry key name: " + Utf16ToUtf8(key));
    std::lock_guard<std::mutex> guard(registry.lock);
    size_t missing;
    CmKey* k = registry.Walk(&registry.root, components, true, &missing);
    std::u16string data = value;
    data.push_back(0);  // REG_SZ data carries its terminator
    registry.SetValue(k, name, REG_SZ, data.data(), data.size() * sizeof(char16_t));
}

}  // namespace tervane::emu
