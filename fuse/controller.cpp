// The mount's machine and its controller.
#include "controller.h"

#include <fstream>
#include <ostream>

#include "control_records.h"
#include "lexer.h"
#include "ntcall.h"

namespace tervane::fuse {

Controller::Controller(std::filesystem::path baseDir)
    : interpreter_(output_, std::move(baseDir), tool::InterpreterOptions{false, true}) {}

bool Controller::RunSetup(const std::filesystem::path& script, std::ostream& out, std::ostream& err) {
    std::lock_guard<std::mutex> guard(lock_);
    std::ifstream in(script);
    if (!in) {
        err << "tervane mount: the script " << script.string() << " cannot be read\n";
        return false;
    }
    std::string line;
    int number = 0;
    bool ok = true;
    while (ok && std::getline(in, line)) {
        ++number;
        if (number == 1 && line.rfind("\xEF\xBB\xBF", 0) == 0) line.erase(0, 3);
        try {
            interpreter_.Execute(line, number);
        } catch (const tool::ScriptError& e) {
            err << script.string() << ":" << number << ": " << e.what() << "\n";
            ok = false;
        }
        out << output_.str();
        output_.str("");
    }
    if (ok && interpreter_.ExpectationFailed()) {
        err << "tervane mount: " << interpreter_.FailureCount() << " expectation(s) of the script failed\n";
        ok = false;
    }
    lines_ = number;
    return ok;
}

std::string Controller::Ctl(const std::vector<std::string>& words, int* exitCode) {
    std::lock_guard<std::mutex> guard(lock_);
    std::string line = "ctl";
    for (const auto& w : words) line += " " + tool::QuoteText(w);
    std::string text;
    try {
        interpreter_.Execute(line, ++lines_);
        text = output_.str();
        if (text.rfind("> ", 0) == 0) text.erase(0, text.find('\n') + 1);  // the echo of the line
        *exitCode = text.rfind("STATUS_SUCCESS", 0) == 0 ? 0 : 1;
    } catch (const std::exception& e) {
        text = output_.str() + "ctl: " + e.what() + "\n";
        *exitCode = 2;
    }
    output_.str("");
    return text;
}

NTSTATUS Controller::Send(const char* verbName, const std::vector<std::string>& words, std::vector<uint8_t>* out) {
    tool::Session& s = interpreter_.session();
    if (!s.controller || !s.controlHandle) return STATUS_INVALID_HANDLE;
    const tool::control::Verb* verb = tool::control::FindVerb(verbName);
    std::vector<uint8_t> in;
    std::string error;
    if (!verb || !tool::control::BuildInput(*verb, words, "", &in, &error)) return STATUS_INVALID_PARAMETER;
    out->assign(tool::control::DefaultOutputLength(*verb), 0);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    HANDLE handle = s.controlHandle;
    s.RunIn(*s.controller, [&] {
        status = tool::CallAndWait(
            [&](HANDLE event) {
                return NtDeviceIoControlFile(handle, event, nullptr, nullptr, &iosb,
                                             tool::control::ControlCode(verb->k), in.empty() ? nullptr : in.data(),
                                             static_cast<ULONG>(in.size()), out->empty() ? nullptr : out->data(),
                                             static_cast<ULONG>(out->size()));
            },
            iosb);
    });
    if (NT_SUCCESS(status)) out->resize(std::min<size_t>(iosb.Information, out->size()));
    return status;
}

std::vector<uint32_t> Controller::MonitoredPids() {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<uint8_t> out;
    std::vector<uint32_t> pids;
    if (!NT_SUCCESS(Send("processes", {}, &out))) return pids;
    tool::control::Decoded d = tool::control::DecodeOutput(*tool::control::FindVerb("processes"), out.data(), out.size());
    for (const auto& p : d.data["processes"]) pids.push_back(p["pid"].get<uint32_t>());
    return pids;
}

bool Controller::AddMonitored(uint32_t pid, const std::string& name) {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<uint8_t> out;
    return NT_SUCCESS(Send("add-process", {std::to_string(pid), name}, &out));
}

void Controller::RemoveMonitored(uint32_t pid) {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<uint8_t> out;
    Send("remove-process", {std::to_string(pid)}, &out);
}

emu::VerifierReport Controller::Finish() {
    std::lock_guard<std::mutex> guard(lock_);
    return interpreter_.session().Finish();
}

}  // namespace tervane::fuse
