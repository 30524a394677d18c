// The fixture every file-system and driver test derives from: a fresh host
// tree, a machine (with the options a test sets before SetUp), the tree
// mounted on demand, host-file helpers and log searches, and a teardown that
// shuts the machine down and expects the verifier to find nothing
// outstanding.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

#include <emu/machine.h>

namespace tervane::test {

struct OpenResult {
    NTSTATUS status = 0;
    ULONG_PTR information = 0;
    HANDLE handle = nullptr;
};

// An empty host directory of its own, named after TAG.
inline std::filesystem::path FreshHostDir(const std::string& tag) {
    static std::atomic<int> counter{0};
    std::string name = tag;
    for (char& c : name) {
        if (c == '/') c = '_';  // parameterised tests are named "Name/N"
    }
    auto dir = std::filesystem::temp_directory_path() /
               ("tervane-" + std::to_string(getpid()) + "-" + name + "-" + std::to_string(counter++));
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

// A host file (with its parents) holding TEXT, and a host file's whole content.
inline void WriteHostFile(const std::filesystem::path& p, const std::string& text) {
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
}
inline std::string ReadHostFile(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class MachineTest : public ::testing::Test {
protected:
    void SetUp() override {
        host = FreshHostDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        machine = std::make_unique<emu::Machine>(options);
    }
    void TearDown() override {
        if (machine != nullptr) {
            if (HasFailure() && getenv("TERVANE_TEST_LOG") != nullptr) {
                for (const auto& line : machine->LogLines()) std::cerr << "  log: " << line << "\n";
            }
            BeforeShutdown();
            emu::VerifierReport report = machine->Shutdown();
            EXPECT_TRUE(report.Clean()) << report.ToString();
            machine.reset();
        }
        std::filesystem::remove_all(host);
    }
    // What a fixture gives back before the verifier counts what is left.
    virtual void BeforeShutdown() {}

    // The host tree as a volume.
    NTSTATUS MountHost(char letter = 'C') { return machine->MountVolume(letter, host.string()); }
    // Runs FN in kernel mode on a thread of the System process.
    void Kernel(const std::function<void()>& fn) { machine->Run(machine->SystemProcess(), fn); }

    // A file (with its parents) or a directory below the host tree.
    void HostFile(const std::string& rel, const std::string& content) { WriteHostFile(host / rel, content); }
    void HostDir(const std::string& rel) { std::filesystem::create_directories(host / rel); }
    bool HostExists(const std::string& rel) const { return std::filesystem::exists(host / rel); }
    std::string HostContent(const std::string& rel) const { return ReadHostFile(host / rel); }

    // Occurrences of TEXT in the debug log (a head and its message may share a line).
    size_t LogCount(const std::string& text) const {
        size_t n = 0;
        for (const auto& line : machine->LogLines()) {
            for (size_t pos = line.find(text); pos != std::string::npos; pos = line.find(text, pos + 1)) n++;
        }
        return n;
    }

    emu::MachineOptions options;
    std::filesystem::path host;
    std::unique_ptr<emu::Machine> machine;
};

}  // namespace tervane::test
