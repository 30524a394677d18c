#include "commands.h"

#include <cinttypes>
#include <cstdio>

#include <emu/machine.h>

namespace tervane::tool {

std::span<const CommandSpec> AllCommands() {
    static const std::vector<CommandSpec> table = [] {
        std::vector<CommandSpec> t;
        AddMachineCommands(t);
        AddControlCommands(t);
        AddFileCommands(t);
        AddInfoCommands(t);
        AddDirectoryCommands(t);
        AddMiscCommands(t);
        AddConvenienceCommands(t);
        AddTreeCommands(t);
        return t;
    }();
    return table;
}

const CommandSpec* FindCommand(const std::string& name, Scope scope) {
    for (const auto& entry : AllCommands())
        if (entry.scope == scope && name == entry.name) return &entry;
    return nullptr;
}

std::u16string ToUtf16(const std::string& s) { return emu::Utf8ToUtf16(s); }

uint32_t ParseU32(const std::string& text, const char* what) {
    int64_t v = ParseNumber(text, what);
    if (v > 0xffffffffLL) throw ScriptError(std::string(what) + " does not fit 32 bits: " + text);
    return static_cast<uint32_t>(v);
}

int64_t ParseI64(const std::string& text, const char* what) { return ParseNumber(text, what, true); }

}  // namespace tervane::tool
