// A controller of the driver: one control verb sent through the control
// device and its answer shown, the same way for the scenario command `ctl`
// (the emulated machine) and for tervanectl.exe (a real Windows machine).
// Each of them supplies a Device for its platform; everything else here is
// plain C++ that builds on both.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "control_records.h"
#include "lexer.h"

namespace tervane::tool::control {

// What one device control request came back with.
struct Answer {
    int32_t returned = 0;  // the value the call returned
    bool written = false;  // whether the status block was filled in
    int32_t status = 0;    // the status block, when written
    uint64_t information = 0;
    std::vector<uint8_t> out;  // the output buffer, as long as was asked for
};

// The control device as one platform reaches it.
class Device {
public:
    virtual ~Device() = default;
    // The name the controller opens, for messages ("\\.\Tervane").
    virtual std::string Name() const = 0;
    // Opens the device unless it is open already; the status of the open.
    virtual int32_t Open() = 0;
    virtual Answer Send(uint32_t code, const std::vector<uint8_t>& in, uint32_t outLength) = 0;
    // 0 when the controller can open the file at PATH (a drive path) for
    // reading, else the status of that open.
    virtual int32_t CheckReadable(const std::string& path) = 0;
};

// One verb with its words, as the driver will receive it.
struct Request {
    const Verb* verb = nullptr;
    uint32_t code = 0;
    std::vector<std::string> words;
    std::vector<uint8_t> in;
    uint32_t outLength = 0;
};

// The most output a request may ask for (outlen=N).
inline constexpr uint32_t kMaxOutput = 1u << 20;

// Reads "VERB WORDS... [outlen=N] [in=HEX]" as `ctl` takes them. Throws
// ScriptError with a message for people when they do not fit.
Request ParseRequest(std::vector<Token> tokens);

// What a request printed: the status and information of the result line,
// the decoded output and explanations one item a line, and the same as data
// for --json.
struct Outcome {
    int32_t status = 0;
    std::optional<uint64_t> info;
    std::vector<std::string> lines;
    nlohmann::json data = nlohmann::json::object();
};

// What a caller that sends several requests saw succeed earlier in its run.
struct Known {
    bool filtersSet = false;   // a set-filters succeeded
    bool indexLoaded = false;  // a load-index succeeded
};

// Sends REQUEST and decodes the answer. Where the driver's answer alone
// does not say why it refused or left filtering off, a line says what is
// missing. KNOWN (updated here) is the caller's knowledge of earlier
// requests; explanations rest on it rather than on a further control call,
// which could fail on its own. A caller of one request passes null, and the
// driver is asked for its filter-directory count instead.
Outcome Perform(Device& device, const Request& request, Known* known);

// "STATUS_SUCCESS (0x00000000) info=4", as every command's result line.
std::string ResultLine(int32_t status, std::optional<uint64_t> info);

// tervanectl: ARGS are the words after the program's name. Prints the
// result line and the indented lines to OUT, usage errors to ERR. Exit
// codes: kCtlOk when the driver answered with a success status, kCtlFailed
// when it answered with a failure or could not be reached, kCtlUsage when
// the arguments are wrong (nothing was sent).
enum CtlExit : int { kCtlOk = 0, kCtlFailed = 1, kCtlUsage = 2 };
int RunController(Device& device, const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace tervane::tool::control
