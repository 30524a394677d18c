// `tervane demo`: a narrated, self-checking walk through the layered view on
// a workspace the demo makes itself. The walk is data (steps of scenario
// lines with their expectations, and host files to look at), so that tests
// can run it, and can change an expectation to see the demo catch it.
#pragma once

#include <filesystem>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace tervane::tool {

// One scenario line and the expect lines that check it.
struct DemoCommand {
    std::string line;                  // "1234: cat C:\Inkpad\inkpad.ini"
    std::vector<std::string> expects;  // "expect \"width=800\"", "expect STATUS_SUCCESS"
};

// A file on the host, relative to the workspace ('/' separated), and what it
// must hold; no content means it must not exist.
struct DemoHostFile {
    std::string path;
    std::optional<std::string> content;
};

struct DemoStep {
    std::string title;
    std::string say;  // what is being shown, in plain sentences
    // Shown side by side: what the monitored process does and sees (or the
    // machine and controller commands), and what a process that is not
    // monitored sees. The left column runs first.
    std::vector<DemoCommand> left;
    std::vector<DemoCommand> right;
    std::vector<DemoHostFile> host;  // looked at after both columns ran
    std::string checked;             // what the passing checks establish
};

// The whole walk, in order. WORKSPACE is where the demo runs; the steps name
// host files relative to it.
std::vector<DemoStep> DemoSteps();

// Writes the layers' content below WORKSPACE (before the machine starts).
// Empty on success, else what could not be written and why.
std::string WriteDemoContent(const std::filesystem::path& workspace);

struct DemoOptions {
    std::string keepDir;  // make and keep the workspace here; empty: a temporary one, removed
    bool quiet = false;   // print only the verdict
    std::string driverImage;  // a driver image file to load instead of the built-in driver
    // Columns of output; 0: COLUMNS, else the terminal's width, else 100.
    size_t width = 0;
    std::ostream* out = nullptr;  // standard output when null
    // Lets tests change the walk before it runs.
    std::function<void(std::vector<DemoStep>&)> adjust;
};

// Exit code: 0 when everything shown was as expected, 1 when something
// differed (each difference is named), 2 when the workspace could not be made.
int RunDemo(const DemoOptions& options);

}  // namespace tervane::tool
