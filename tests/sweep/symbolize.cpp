// Names the frames of a stack: addr2line for this program's own code (with
// inlined frames, files and lines), the dynamic symbol table for libraries.
#include <cxxabi.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>

#include "sweep.h"

namespace tervane::sweep {
namespace {

std::string Demangle(const char* name) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name, nullptr, nullptr, &status), std::free);
    return status == 0 && text ? text.get() : name;
}

std::string Hex(uintptr_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%zx", size_t(value));
    return text;
}

// addr2line's answer for OFFSETS within the program, one text per offset.
std::vector<std::string> Addr2Line(const std::string& program, const std::vector<uintptr_t>& offsets) {
    std::string command = "addr2line -f -C -i -p -e '" + program + "'";
    // A return address points after the call; the call is one byte before.
    for (uintptr_t offset : offsets) command += " " + Hex(offset - 1);
    std::vector<std::string> answers;
    FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
    if (!pipe) return answers;
    std::string all;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) all.append(buffer, n);
    pclose(pipe);
    // An inlined frame's callers follow it on lines that begin " (inlined by)".
    std::istringstream lines(all);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind(" (inlined by)", 0) == 0 && !answers.empty())
            answers.back() += "\n      " + line.substr(1);
        else
            answers.push_back(line);
    }
    return answers;
}

// Names already found, by address: addr2line is asked once for many.
std::map<uintptr_t, std::string>& Known() {
    static std::map<uintptr_t, std::string> known;
    return known;
}

}  // namespace

void PrepareSymbols(const std::vector<uintptr_t>& addresses) {
    char program[4096];
    ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
    program[length > 0 ? length : 0] = '\0';
    Dl_info self{};
    dladdr(reinterpret_cast<void*>(&PrepareSymbols), &self);
    std::vector<uintptr_t> own, offsets;
    for (uintptr_t address : addresses) {
        if (Known().count(address)) continue;
        Dl_info info{};
        if (dladdr(reinterpret_cast<void*>(address), &info) && info.dli_fbase == self.dli_fbase) {
            own.push_back(address);
            offsets.push_back(address - uintptr_t(info.dli_fbase));
            Known()[address] = Hex(address);
            continue;
        }
        std::string text = Hex(address);
        if (info.dli_fname) text += std::string(" in ") + info.dli_fname;
        if (info.dli_sname) text += " (" + Demangle(info.dli_sname) + ")";
        Known()[address] = text;
    }
    std::vector<std::string> answers = Addr2Line(program, offsets);
    for (size_t j = 0; j < own.size() && j < answers.size(); ++j) Known()[own[j]] = answers[j];
}

std::vector<std::string> Symbolize(const std::vector<uintptr_t>& stack) {
    PrepareSymbols(stack);
    std::vector<std::string> lines;
    for (uintptr_t address : stack) lines.push_back(Known()[address]);
    return lines;
}

}  // namespace tervane::sweep
