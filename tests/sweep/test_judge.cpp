// The sweep's judgement of a run with a refused allocation, on small
// made-up runs: each row is one way a driver can fail its user.
#include <gtest/gtest.h>

#include "sweep.h"

namespace tervane::sweep {
namespace {

constexpr int64_t kSuccess = 0, kNoMemory = int64_t(int32_t(0xC000009A));

HostEntry File(uint64_t hash) { return HostEntry{false, 1, hash}; }

struct Row {
    const char* what;
    std::vector<CommandResult> got;  // the baseline's are `want` below
    int refusedIn;
    HostState atRefusal;  // after the refused command
    HostState end;
    bool clean;
    const char* problem;  // a part of the first problem, or null for none
};

TEST(SweepJudge, NamesFalseSuccessLossAndLowerChanges) {
    Workload workload;
    workload.lines = {{1, "ctl set-filters C:\\pack C:\\base"}, {2, "5: write h \"x\""}, {3, "5: mv C:\\a C:\\b"},
                      {4, "5: cat C:\\b"}};
    const std::vector<CommandResult> want = {{1, workload.lines[0].second, kSuccess, "ok\n", false},
                                             {2, workload.lines[1].second, kSuccess, "ok\n", false},
                                             {3, workload.lines[2].second, kSuccess, "ok\n", false},
                                             {4, workload.lines[3].second, kSuccess, "\"x\"\n", false}};
    Outcome baseline;
    baseline.commands = want;
    // C:\base\a lies below; the write copies it up and changes it; the
    // rename moves the copy to C:\pack\b.
    baseline.initial = {{"C:\\BASE\\A", File(1)}};
    baseline.afterEach = {baseline.initial,
                          {{"C:\\BASE\\A", File(1)}, {"C:\\PACK\\A", File(2)}},
                          {{"C:\\BASE\\A", File(1)}, {"C:\\PACK\\B", File(2)}},
                          {{"C:\\BASE\\A", File(1)}, {"C:\\PACK\\B", File(2)}}};
    baseline.end = baseline.afterEach.back();

    auto failed = [&](int line, int64_t status) {
        std::vector<CommandResult> c(want.begin(), want.begin() + line);
        c.push_back(want[line]);
        c.back().status = status;
        c.back().output = "failed\n";
        return c;
    };
    auto silent = [&](int line, const std::string& output) {
        std::vector<CommandResult> c = want;
        c[line].output = output;
        return c;
    };
    const Row rows[] = {
        {"absorbed", want, 1, baseline.afterEach[1], baseline.end, true, nullptr},
        {"reported", failed(1, kNoMemory), 1, baseline.afterEach[0], baseline.initial, true, nullptr},
        {"a copy-up that was done before the write failed",
         failed(1, kNoMemory), 1, {{"C:\\BASE\\A", File(1)}, {"C:\\PACK\\A", File(1)}}, baseline.initial, true,
         nullptr},
        {"success with another result", silent(3, "\"\"\n"), 3, baseline.end, baseline.end, true, "false success"},
        {"an earlier refusal shows later", silent(3, "\"\"\n"), 1, baseline.afterEach[1], baseline.end, true,
         "the refusal in line 2"},
        {"a torn copy", failed(1, kNoMemory), 1, {{"C:\\BASE\\A", File(1)}, {"C:\\PACK\\A", File(9)}},
         baseline.initial, true, "C:\\PACK\\A holds"},
        {"a rename that lost its file", failed(2, kNoMemory), 2, {{"C:\\BASE\\A", File(1)}}, baseline.initial, true,
         "its bytes are lost"},
        {"a lower file written", failed(1, kNoMemory), 1, baseline.afterEach[0], {{"C:\\BASE\\A", File(7)}}, true,
         "a lower filter directory"},
        {"something left outstanding", want, 1, baseline.afterEach[1], baseline.end, false, "outstanding"},
        {"a completion reported with another command",
         silent(3, "\"x\"\n  completed: 5: notify d: STATUS_SUCCESS\n    FILE_ACTION_ADDED b\n"), 1,
         baseline.afterEach[1], baseline.end, true, nullptr},
        {"a completion hides no other difference", silent(3, "\"\"\n  completed: 5: notify d: STATUS_SUCCESS\n"), 3,
         baseline.end, baseline.end, true, "false success"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Outcome faulted;
        faulted.commands = row.got;
        faulted.refused = RefusedAllocation{1, "Trvm", row.refusedIn, {}};
        faulted.refusedIn = {row.refusedIn};
        faulted.atRefusal[row.refusedIn] = row.atRefusal;
        faulted.end = row.end;
        faulted.clean = row.clean;
        std::vector<std::string> problems = Judge(workload, baseline, faulted);
        if (!row.problem) {
            EXPECT_TRUE(problems.empty()) << ::testing::PrintToString(problems);
        } else {
            ASSERT_FALSE(problems.empty());
            EXPECT_NE(problems[0].find(row.problem), std::string::npos) << problems[0];
        }
    }
}

}  // namespace
}  // namespace tervane::sweep
