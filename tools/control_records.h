// The driver's control protocol as a controller speaks it: the verbs, the
// record each one sends, and what each answer holds. Nothing here knows the
// emulated machine, so that every controller (the scenario command `ctl`,
// and later ones) builds and reads the same records.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace tervane::tool::control {

// The control device's type and the code of request K (0x84001C00 + 4K).
inline constexpr uint32_t kDeviceType = 0x8400;
uint32_t ControlCode(uint32_t k);

inline constexpr const char* kDevicePath = "\\??\\Tervane";

enum class In { None, Process, Pid, Slots, IndexRecord, Raw };
enum class Out { None, Processes, Slots, Count, Switch, Raw };

struct Verb {
    const char* name;
    uint32_t k;  // request number; unused for raw
    In in;
    Out out;
    const char* words;  // what follows the verb: "PID NAME"
};

// Every verb, in the order help lists them.
std::span<const Verb> Verbs();
const Verb* FindVerb(std::string_view name);

// The input record of VERB from its words (and in=HEX for raw). False with
// *ERROR naming the verb and the problem when the words do not fit.
bool BuildInput(const Verb& verb, const std::vector<std::string>& words, const std::string& rawHex,
                std::vector<uint8_t>* input, std::string* error);

// How many output bytes a verb asks for unless told (outlen=N).
uint32_t DefaultOutputLength(const Verb& verb);

// The answer's VALID bytes, one item a line (escaped), and as data for
// --json ("processes", "paths", "count", "filtering", "bytes").
struct Decoded {
    std::vector<std::string> lines;
    nlohmann::json data = nlohmann::json::object();
};
Decoded DecodeOutput(const Verb& verb, const uint8_t* out, size_t valid);

}  // namespace tervane::tool::control
