#include "control_records.h"

#include <cstring>

#include "hex.h"
#include "indexfile/indexfile.h"
#include "lexer.h"

namespace tervane::tool::control {
namespace {

// Records of the protocol: a process record is a 32-bit id and a name of 20
// UTF-16 characters; a path slot is 260 characters, the last one zero.
constexpr size_t kProcessRecordSize = 44;
constexpr size_t kProcessNameChars = 20;
constexpr size_t kSlotSize = 520;
constexpr size_t kSlotChars = kSlotSize / 2 - 1;
constexpr uint32_t kDefaultListOut = 64 * 1024;

const Verb kVerbs[] = {
    {"add-process", 0, In::Process, Out::None, "PID NAME"},
    {"remove-process", 1, In::Pid, Out::None, "PID"},
    {"processes", 2, In::None, Out::Processes, "[outlen=N]"},
    {"clear-processes", 3, In::None, Out::None, ""},
    {"filters", 4, In::None, Out::Slots, "[outlen=N]"},
    {"set-filters", 5, In::Slots, Out::None, "ROOT..."},
    {"add-exclusions", 6, In::Slots, Out::None, "PATH..."},
    {"remove-exclusions", 7, In::Slots, Out::None, "PATH..."},
    {"exclusions", 8, In::None, Out::Slots, "[outlen=N]"},
    {"process-count", 9, In::None, Out::Count, ""},
    {"filter-count", 10, In::None, Out::Count, ""},
    {"exclusion-count", 11, In::None, Out::Count, ""},
    {"stop", 12, In::None, Out::None, ""},
    {"start", 13, In::None, Out::Switch, ""},
    {"load-index", 14, In::IndexRecord, Out::None, "NODEFILE NAMEFILE"},
    {"rename-index", 15, In::IndexRecord, Out::None, "SOURCE TARGET"},
    {"raw", 0, In::Raw, Out::Raw, "CODE [in=HEX] [outlen=N]"},
};

void PutU32(std::vector<uint8_t>& buffer, size_t at, uint32_t value) {
    for (int i = 0; i < 4; ++i) buffer[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t GetU32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

bool ToWide(const std::string& text, std::u16string* wide, const Verb& verb, std::string* error) {
    if (indexfile::Utf8ToUtf16(text, wide)) return true;
    *error = "ctl " + std::string(verb.name) + ": " + QuoteText(text) + " is not UTF-8 text";
    return false;
}

void PutWide(std::vector<uint8_t>& buffer, size_t at, const std::u16string& text) {
    for (size_t i = 0; i < text.size(); ++i) {
        buffer[at + 2 * i] = static_cast<uint8_t>(text[i]);
        buffer[at + 2 * i + 1] = static_cast<uint8_t>(text[i] >> 8);
    }
}

bool PutSlot(std::vector<uint8_t>& buffer, size_t at, const std::string& path, const Verb& verb, std::string* error) {
    std::u16string text;
    if (!ToWide(path, &text, verb, error)) return false;
    if (text.size() > kSlotChars) {
        *error = "ctl " + std::string(verb.name) + ": a path slot holds at most " + std::to_string(kSlotChars) +
                 " characters (use raw for malformed records)";
        return false;
    }
    PutWide(buffer, at, text);  // the rest of the slot stays zero
    return true;
}

std::string SlotText(const uint8_t* slot, size_t bytes) {
    std::u16string text;
    for (size_t i = 0; i + 1 < bytes; i += 2) {
        char16_t c = static_cast<char16_t>(slot[i] | slot[i + 1] << 8);
        if (c == 0) break;
        text += c;
    }
    std::string utf8;
    if (indexfile::Utf16ToUtf8(text, &utf8)) return utf8;
    // An unpaired surrogate: each unit that does not convert is shown by value.
    utf8.clear();
    for (char16_t c : text) {
        std::string one;
        if (indexfile::Utf16ToUtf8(std::u16string(1, c), &one)) utf8 += one;
        else utf8 += "\\x{" + HexBytes(reinterpret_cast<const uint8_t*>(&c), 2) + "}";
    }
    return utf8;
}

}  // namespace

uint32_t ControlCode(uint32_t k) { return (kDeviceType << 16) | ((0x700 + k) << 2); }

std::span<const Verb> Verbs() { return kVerbs; }

const Verb* FindVerb(std::string_view name) {
    for (const auto& v : kVerbs)
        if (name == v.name) return &v;
    return nullptr;
}

uint32_t DefaultOutputLength(const Verb& verb) {
    switch (verb.out) {
    case Out::None: return 0;
    case Out::Count: return 4;
    case Out::Switch: return 1;
    default: return kDefaultListOut;
    }
}

bool BuildInput(const Verb& verb, const std::vector<std::string>& words, const std::string& rawHex,
                std::vector<uint8_t>* input, std::string* error) {
    const std::string head = "ctl " + std::string(verb.name) + ": ";
    size_t wanted = verb.in == In::Process || verb.in == In::IndexRecord ? 2 : verb.in == In::Pid ? 1 : 0;
    if (verb.in != In::Slots && words.size() != wanted) {
        *error = head + (words.size() < wanted ? "missing " : "too many words; give ") +
                 (*verb.words ? verb.words : "nothing after the verb");
        return false;
    }
    std::vector<uint8_t>& in = *input;
    in.clear();
    auto pid = [&](const std::string& text, uint32_t* value) {
        try {
            int64_t n = ParseNumber(text, "process id");
            if (n > 0xffffffffLL) throw ScriptError("process id does not fit 32 bits: " + text);
            *value = static_cast<uint32_t>(n);
            return true;
        } catch (const ScriptError& e) {
            *error = head + e.what();
            return false;
        }
    };
    switch (verb.in) {
    case In::None: break;
    case In::Process: {
        uint32_t id;
        std::u16string name;
        if (!pid(words[0], &id) || !ToWide(words[1], &name, verb, error)) return false;
        // A name of 20 characters or more fills the field without a zero,
        // as a controller would send it; longer names are cut to 20.
        if (name.size() > kProcessNameChars) name.resize(kProcessNameChars);
        in.assign(kProcessRecordSize, 0);
        PutU32(in, 0, id);
        PutWide(in, 4, name);
        break;
    }
    case In::Pid: {
        uint32_t id;
        if (!pid(words[0], &id)) return false;
        in.assign(4, 0);
        PutU32(in, 0, id);
        break;
    }
    case In::Slots:
        if (words.empty()) {
            *error = head + "give at least one path";
            return false;
        }
        in.assign(words.size() * kSlotSize, 0);
        for (size_t i = 0; i < words.size(); ++i)
            if (!PutSlot(in, i * kSlotSize, words[i], verb, error)) return false;
        break;
    case In::IndexRecord:
        in.assign(2 * kSlotSize, 0);
        if (!PutSlot(in, 0, words[0], verb, error) || !PutSlot(in, kSlotSize, words[1], verb, error)) return false;
        break;
    case In::Raw:
        try {
            in = ParseHexBytes(rawHex);
        } catch (const ScriptError& e) {
            *error = head + e.what();
            return false;
        }
        break;
    }
    return true;
}

Decoded DecodeOutput(const Verb& verb, const uint8_t* out, size_t valid) {
    Decoded d;
    switch (verb.out) {
    case Out::None: break;
    case Out::Processes: {
        auto& list = d.data["processes"] = nlohmann::json::array();
        for (size_t at = 0; at + kProcessRecordSize <= valid; at += kProcessRecordSize) {
            uint32_t id = GetU32(out + at);
            std::string name = SlotText(out + at + 4, kProcessRecordSize - 4);
            d.lines.push_back(std::to_string(id) + " " + EscapeText(name));
            list.push_back({{"pid", id}, {"name", name}});
        }
        break;
    }
    case Out::Slots: {
        auto& list = d.data["paths"] = nlohmann::json::array();
        for (size_t at = 0; at + kSlotSize <= valid; at += kSlotSize) {
            std::string path = SlotText(out + at, kSlotSize);
            d.lines.push_back(EscapeText(path));
            list.push_back(path);
        }
        break;
    }
    case Out::Count:
        if (valid >= 4) {
            d.lines.push_back("count=" + std::to_string(GetU32(out)));
            d.data["count"] = GetU32(out);
        }
        break;
    case Out::Switch:
        if (valid >= 1) {
            d.lines.push_back("filtering=" + std::to_string(static_cast<unsigned>(out[0])));
            d.data["filtering"] = static_cast<unsigned>(out[0]);
        }
        break;
    case Out::Raw:
        if (valid) {
            d.lines.push_back("bytes=" + HexBytes(out, valid));
            d.data["bytes"] = HexBytes(out, valid);
        }
        break;
    }
    return d;
}

}  // namespace tervane::tool::control
