// tervanectl's shared part: the command line becomes the same record `ctl`
// sends, the answer is shown the same way, and the exit code follows the
// status. The device is played by a table of answers; the real devices are
// the emulated machine (the ctl scenarios) and \\.\Tervane on Windows.
#include <gtest/gtest.h>

#include <deque>
#include <sstream>

#include "control_client.h"

using namespace tervane::tool::control;

namespace {

constexpr int32_t kSuccess = 0;
constexpr int32_t kTooSmall = static_cast<int32_t>(0xC0000023u);
constexpr int32_t kInvalidRequest = static_cast<int32_t>(0xC0000010u);
constexpr int32_t kNameNotFound = static_cast<int32_t>(0xC0000034u);

struct Sent {
    uint32_t code;
    std::vector<uint8_t> in;
    uint32_t outLength;
};

class ScriptedDevice : public Device {
public:
    int32_t openStatus = kSuccess;
    int32_t readable = kSuccess;
    std::deque<Answer> answers;
    std::vector<Sent> sent;

    std::string Name() const override { return "\\\\.\\Tervane"; }
    int32_t Open() override { return openStatus; }
    Answer Send(uint32_t code, const std::vector<uint8_t>& in, uint32_t outLength) override {
        sent.push_back({code, in, outLength});
        if (answers.empty()) return {};
        Answer a = answers.front();
        answers.pop_front();
        a.out.resize(outLength);
        return a;
    }
    int32_t CheckReadable(const std::string&) override { return readable; }
};

Answer Reply(int32_t status, uint64_t information, std::vector<uint8_t> out = {}) {
    Answer a;
    a.returned = status;
    a.written = true;
    a.status = status;
    a.information = information;
    a.out = std::move(out);
    return a;
}

std::vector<uint8_t> Slot(const std::u16string& path) {
    std::vector<uint8_t> slot(520, 0);
    for (size_t i = 0; i < path.size(); ++i) slot[2 * i] = static_cast<uint8_t>(path[i]);
    return slot;
}

TEST(Controller, CommandLinesAnswersAndExitCodes) {
    std::vector<uint8_t> process(44, 0);
    process[0] = 0xD2, process[1] = 0x04;  // 1234
    for (size_t i = 0; i < 7; ++i) process[4 + 2 * i] = static_cast<uint8_t>("app.exe"[i]);
    std::vector<uint8_t> twoSlots = Slot(u"C:\\pack");
    std::vector<uint8_t> base = Slot(u"C:\\base");
    twoSlots.insert(twoSlots.end(), base.begin(), base.end());

    struct Case {
        const char* what;
        std::vector<std::string> args;
        std::vector<Answer> answers;
        int exit;
        const char* out;  // expected in the output (empty: nothing printed)
        const char* err;  // expected in the error output
        std::vector<uint8_t> in;  // the record sent first, when one was sent
        uint32_t outLength;
    };
    const Case cases[] = {
        {"a process record", {"add-process", "1234", "app.exe"}, {Reply(kSuccess, 0)}, kCtlOk,
         "STATUS_SUCCESS (0x00000000) info=0\n", "", process, 0},
        {"two path slots", {"set-filters", "C:\\pack", "C:\\base"}, {Reply(kSuccess, 0)}, kCtlOk,
         "STATUS_SUCCESS (0x00000000) info=0\n", "", twoSlots, 0},
        {"a count", {"filter-count"}, {Reply(kSuccess, 4, {2, 0, 0, 0})}, kCtlOk,
         "STATUS_SUCCESS (0x00000000) info=4\n  count=2\n", "", {}, 4},
        {"a list cut short", {"filters", "outlen=600"}, {Reply(kTooSmall, 520, Slot(u"C:\\pack"))}, kCtlFailed,
         "STATUS_BUFFER_TOO_SMALL (0xC0000023) info=520\n  C:\\pack\n", "", {}, 600},
        {"filtering left off without filter directories", {"start"},
         {Reply(kSuccess, 1, {0}), Reply(kSuccess, 4, {0, 0, 0, 0})}, kCtlOk,
         "  filtering=0\n  filtering stays off: no filter directories are set", "", {}, 1},
        {"a refused second set", {"set-filters", "C:\\x"},
         {Reply(kInvalidRequest, 0), Reply(kSuccess, 4, {2, 0, 0, 0})}, kCtlFailed,
         "STATUS_INVALID_DEVICE_REQUEST (0xC0000010) info=0\n  the filter directories are set once", "",
         Slot(u"C:\\x"), 0},
        {"a status block left unwritten", {"stop"}, {Answer{kInvalidRequest, false}}, kCtlFailed,
         "STATUS_INVALID_DEVICE_REQUEST (0xC0000010)\n", "", {}, 0},
        {"raw bytes", {"raw", "0x84001C24", "in=01 02", "outlen=2"}, {Reply(kSuccess, 2, {0xAB, 0xCD})}, kCtlOk,
         "  bytes=abcd", "", {1, 2}, 2},
        {"no verb", {}, {}, kCtlUsage, "", "usage: tervanectl VERB", {}, 0},
        {"an unknown verb", {"frobnicate"}, {}, kCtlUsage, "", "tervanectl: unknown verb \"frobnicate\"", {}, 0},
        {"a missing word", {"add-process", "1234"}, {}, kCtlUsage, "", "tervanectl add-process: missing PID NAME", {},
         0},
        {"an id that is no number", {"remove-process", "abc"}, {}, kCtlUsage, "", "process id", {}, 0},
        {"in= for a named verb", {"stop", "in=00"}, {}, kCtlUsage, "", "in= is for raw only", {}, 0},
        {"an output too large", {"processes", "outlen=2000000"}, {}, kCtlUsage, "", "outlen above", {}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ScriptedDevice device;
        device.answers.assign(c.answers.begin(), c.answers.end());
        std::ostringstream out, err;
        EXPECT_EQ(RunController(device, c.args, out, err), c.exit);
        EXPECT_NE(out.str().find(c.out), std::string::npos) << out.str();
        if (*c.err) EXPECT_NE(err.str().find(c.err), std::string::npos) << err.str();
        if (c.exit == kCtlUsage) {
            EXPECT_TRUE(device.sent.empty());
            EXPECT_EQ(out.str(), "");
        } else {
            ASSERT_FALSE(device.sent.empty());
            EXPECT_EQ(device.sent[0].in, c.in);
            EXPECT_EQ(device.sent[0].outLength, c.outLength);
        }
    }
}

TEST(Controller, ARefusedIndexLoadSaysWhatIsMissing) {
    ScriptedDevice device;
    device.readable = kNameNotFound;
    device.answers = {Reply(kInvalidRequest, 0), Reply(kSuccess, 4, {0, 0, 0, 0})};
    std::ostringstream out, err;
    EXPECT_EQ(RunController(device, {"load-index", "C:\\i.node", "C:\\i.name"}, out, err), kCtlFailed);
    EXPECT_NE(out.str().find("the node file C:\\i.node cannot be opened: STATUS_OBJECT_NAME_NOT_FOUND"), std::string::npos)
        << out.str();
    EXPECT_NE(out.str().find("no filter directories are set"), std::string::npos) << out.str();
    EXPECT_EQ(device.sent[0].code, 0x84001C38u);
    EXPECT_EQ(device.sent[0].in.size(), 1040u);
}

TEST(Controller, ADeviceThatCannotBeOpenedIsNamed) {
    ScriptedDevice device;
    device.openStatus = kNameNotFound;
    std::ostringstream out, err;
    EXPECT_EQ(RunController(device, {"process-count"}, out, err), kCtlFailed);
    EXPECT_EQ(out.str(),
              "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034)\n  the control device \\\\.\\Tervane could not be opened (is the "
              "driver loaded?)\n");
    EXPECT_TRUE(device.sent.empty());
}

}  // namespace
