#include "control_client.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

#include <emu/status_names.h>

#include "args.h"

namespace tervane::tool::control {
namespace {

bool Succeeded(int32_t status) { return status >= 0; }

uint32_t ParseU32(const std::string& text, const char* what) {
    int64_t n = ParseNumber(text, what);
    if (n > 0xffffffffLL) throw ScriptError(std::string(what) + " does not fit 32 bits: " + text);
    return static_cast<uint32_t>(n);
}

// The number of filter directories, or -1 when the driver does not say.
int64_t FilterCount(Device& device) {
    Answer a = device.Send(ControlCode(FindVerb("filter-count")->k), {}, 4);
    if (!a.written || !Succeeded(a.status) || a.information < 4 || a.out.size() < 4) return -1;
    return a.out[0] | a.out[1] << 8 | a.out[2] << 16 | static_cast<uint32_t>(a.out[3]) << 24;
}

// Lines that say why the driver answered as it did, where the answer alone
// does not: filtering left off, a refused index load, a second set of
// filter directories.
void Explain(Device& device, const Request& request, Outcome& o, Known* known) {
    const std::string name = request.verb->name;
    if (known && name == "set-filters" && Succeeded(o.status)) known->filtersSet = true;
    auto filtersSet = [&] { return known ? known->filtersSet : FilterCount(device) > 0; };
    auto filtersUnset = [&] { return known ? !known->filtersSet : FilterCount(device) == 0; };
    if (name == "start" && o.data.value("filtering", 1u) == 0) {
        if (filtersUnset())
            o.lines.push_back("filtering stays off: no filter directories are set (ctl set-filters ROOT...)");
        else
            o.lines.push_back(
                "filtering stays off until the last filter directory has a loaded index (ctl load-index NODEFILE "
                "NAMEFILE)");
    } else if (name == "load-index" && Succeeded(o.status)) {
        if (known) known->indexLoaded = true;
    } else if (name == "load-index") {
        size_t before = o.lines.size();
        const char* which[] = {"the node file", "the name file"};
        for (size_t i = 0; i < 2 && i < request.words.size(); ++i) {
            int32_t readable = device.CheckReadable(request.words[i]);
            if (!Succeeded(readable))
                o.lines.push_back(std::string(which[i]) + " " + EscapeText(request.words[i]) +
                                  " cannot be opened: " + emu::StatusName(readable));
        }
        if (filtersUnset())
            o.lines.push_back("no filter directories are set: the index belongs to the last one");
        if (known && known->indexLoaded)
            o.lines.push_back("an index is loaded already: it loads once per start of the driver");
        if (o.lines.size() == before) o.lines.push_back("the driver refused the pair; its debug output says why (log)");
    } else if (name == "set-filters" && !Succeeded(o.status) && filtersSet()) {
        o.lines.push_back(
            "the filter directories are set once per start of the driver, and are set already (ctl filters)");
    }
}

std::string Usage() {
    std::string text = "usage: tervanectl VERB ARGS...\nverbs:\n";
    for (const Verb& v : Verbs()) text += "  " + std::string(v.name) + (*v.words ? " " + std::string(v.words) : "") + "\n";
    return text;
}

}  // namespace

Request ParseRequest(std::vector<Token> tokens) {
    Args args("ctl", std::move(tokens), {"outlen", "in"});
    Request r;
    std::string verbName = args.Next("VERB");
    r.verb = FindVerb(verbName);
    if (!r.verb) throw ScriptError("ctl: unknown verb " + QuoteText(verbName) + " (tervane help ctl lists them)");
    r.code = ControlCode(r.verb->k);
    if (r.verb->in == In::Raw) r.code = ParseU32(args.Next("CODE"), "control code");
    if (args.Option("in") && r.verb->in != In::Raw) throw ScriptError("ctl: in= is for raw only");
    r.words = args.Rest();
    std::string error;
    if (!BuildInput(*r.verb, r.words, args.Option("in").value_or(""), &r.in, &error)) throw ScriptError(error);
    r.outLength = DefaultOutputLength(*r.verb);
    if (auto o = args.Option("outlen")) r.outLength = ParseU32(*o, "output length");
    if (r.outLength > kMaxOutput) throw ScriptError("ctl: outlen above " + std::to_string(kMaxOutput));
    return r;
}

Outcome Perform(Device& device, const Request& request, Known* known) {
    Outcome o;
    o.status = device.Open();
    if (!Succeeded(o.status)) {
        o.lines.push_back("the control device " + device.Name() + " could not be opened (is the driver loaded?)");
        return o;
    }
    Answer a = device.Send(request.code, request.in, request.outLength);
    if (!a.written) {
        o.status = a.returned;
        return o;
    }
    o.status = a.status;
    o.info = a.information;
    if (a.returned != a.status) o.lines.push_back("the call returned " + emu::StatusName(a.returned));
    size_t valid = std::min<uint64_t>({a.information, request.outLength, a.out.size()});
    Decoded decoded = DecodeOutput(*request.verb, a.out.data(), valid);
    for (auto& line : decoded.lines) o.lines.push_back(std::move(line));
    o.data = std::move(decoded.data);
    Explain(device, request, o, known);
    return o;
}

std::string ResultLine(int32_t status, std::optional<uint64_t> info) {
    char value[16];
    std::snprintf(value, sizeof value, "0x%08X", static_cast<uint32_t>(status));
    std::string line = emu::StatusName(status) + " (" + value + ")";
    if (info) line += " info=" + std::to_string(*info);
    return line;
}

int RunController(Device& device, const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.empty() || args[0] == "help" || args[0] == "--help" || args[0] == "-h" || args[0] == "/?") {
        (args.empty() ? err : out) << Usage();
        return args.empty() ? kCtlUsage : kCtlOk;
    }
    if (!FindVerb(args[0])) {
        err << "tervanectl: unknown verb " << QuoteText(args[0]) << "\n" << Usage();
        return kCtlUsage;
    }
    // Each argument is one word as the shell split it; none is quoted text.
    std::vector<Token> tokens;
    for (const std::string& a : args) tokens.push_back({a, a.size()});
    Request request;
    try {
        request = ParseRequest(std::move(tokens));
    } catch (const ScriptError& e) {
        std::string message = e.what();
        if (message.rfind("ctl", 0) == 0) message.replace(0, 3, "tervanectl");
        err << message << "\n";
        return kCtlUsage;
    }
    Outcome o = Perform(device, request, nullptr);
    out << ResultLine(o.status, o.info) << "\n";
    for (const std::string& line : o.lines) out << "  " << line << "\n";
    return Succeeded(o.status) ? kCtlOk : kCtlFailed;
}

}  // namespace tervane::tool::control
