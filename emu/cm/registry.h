// The in-memory registry: a tree of keys under \Registry, each with values.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kernel.h"

namespace tervane::emu {

struct CmValue {
    std::u16string name;
    ULONG type = REG_NONE;
    ULONG titleIndex = 0;
    std::vector<uint8_t> data;
};

struct CmKey {
    std::u16string name;  // as created
    CmKey* parent = nullptr;
    std::map<std::u16string, std::unique_ptr<CmKey>> subkeys;  // by upcased name
    std::vector<CmValue> values;                               // in creation order
    CmValue* FindValue(const std::u16string& name);
};

class Registry {
public:
    Registry();
    std::mutex lock;
    CmKey root;  // \Registry
    // Walks COMPONENTS below FROM; with CREATE makes what is missing. Returns
    // the key, or null with *MISSINGAT = index of the first missing component.
    CmKey* Walk(CmKey* from, const std::vector<std::u16string>& components, bool create, size_t* missingAt);
    void SetValue(CmKey* key, const std::u16string& name, ULONG type, const void* data, size_t size);
};

Registry& CmRegistry();
std::u16string CmUpcase(const std::u16string& s);
// Splits "A\B\C" into its components; false when a component is empty.
bool CmSplitPath(const std::u16string& path, std::vector<std::u16string>* components);

}  // namespace tervane::emu

namespace tervane::emu {
// Key objects (cm/key_services.cpp): the "Key" type, made with the registry.
void CmStartupObjects();
void CmShutdownObjects();
}  // namespace tervane::emu
