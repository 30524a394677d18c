// Monitored processes: the listed ids and the always-monitored image names.
#include "test_core_support.h"
#include "control/process_list.h"
#include "base/log.h"

namespace tervane::test {
namespace {

class ProcessTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }
    static void Add(ULONG pid, const std::u16string& name) {
        std::vector<uint8_t> record = ProcessRecord(pid, name);
        AddMonitoredProcess(reinterpret_cast<const TervaneProcessRecord*>(record.data()));
    }
    static std::vector<std::pair<ULONG, std::u16string>> List() {
        ULONG count = 0;
        EXPECT_TRUE(GetMonitoredProcessCount(&count));
        std::vector<uint8_t> out(count * 44);
        ULONG written = 0;
        EXPECT_TRUE(GetMonitoredProcessList(out.data(), (ULONG)out.size(), &written));
        std::vector<std::pair<ULONG, std::u16string>> result;
        for (ULONG at = 0; at < written; at += 44) {
            ULONG pid;
            memcpy(&pid, out.data() + at, 4);
            std::u16string name;
            for (ULONG i = 0; i < 20; i++) {
                char16_t c;
                memcpy(&c, out.data() + at + 4 + 2 * i, 2);
                if (c == 0) break;
                name.push_back(c);
            }
            result.emplace_back(pid, name);
        }
        return result;
    }
};

TEST_F(ProcessTest, ListKeepsOrderFirstNamesAndCutsLongNames) {
    Kernel([] {
        Add(1234, u"first.exe");
        Add(99, u"other.exe");
        Add(1234, u"second.exe");
        Add(7, u"abcdefghijklmnopqrst");  // fills the field, no zero
        RemoveMonitoredProcess(555);
        using L = std::vector<std::pair<ULONG, std::u16string>>;
        EXPECT_EQ(List(), (L{{1234, u"first.exe"}, {99, u"other.exe"}, {7, u"abcdefghijklmnopqrs"}}));
        EXPECT_EQ(g_pMonitoredProcessList->m_pNext->m_pNext->m_ustrName.Length, 40) << "stored whole";

        std::vector<uint8_t> out(3 * 44 - 1, kUntouched);
        ULONG written = 0;
        EXPECT_FALSE(GetMonitoredProcessList(out.data(), (ULONG)out.size(), &written));
        EXPECT_EQ(written, 88u);
        EXPECT_EQ(out[88], kUntouched);
        EXPECT_FALSE(GetMonitoredProcessCount(nullptr));

        RemoveMonitoredProcess(99);
        EXPECT_EQ(List(), (L{{1234, u"first.exe"}, {7, u"abcdefghijklmnopqrs"}}));
        ClearMonitoredProcessList();
        ClearMonitoredProcessList();
        EXPECT_EQ(List(), L{});
    });
}

struct MonitorCase {
    const char* image;
    bool listed;
    bool monitored;
};

class MonitorTest : public ProcessTest, public ::testing::WithParamInterface<MonitorCase> {};

TEST_P(MonitorTest, ImageNameOrListedId) {
    const MonitorCase& c = GetParam();
    if (c.listed) Kernel([] { Add(4321, u"listed-name"); });
    emu::Process* process = machine->CreateProcess(4321, c.image);
    machine->Run(process, [&] {
        WCHAR buffer[20];
        UNICODE_STRING name = {0, sizeof(buffer), buffer};
        EXPECT_EQ(IsMonitoredProcess(4321, &name) != FALSE, c.monitored);
        if (c.monitored) {
            // The image name, cut to 15 characters, is what comes back.
            std::string image(c.image);
            image = image.substr(0, 15);
            EXPECT_EQ(emu::Utf16ToUtf8(name), image);
        }
        EXPECT_EQ(IsMonitoredProcess(4321, nullptr) != FALSE, c.monitored);
    });
}

INSTANTIATE_TEST_SUITE_P(Names, MonitorTest,
                         ::testing::Values(MonitorCase{"csrss.exe", false, true},
                                           MonitorCase{"CSRSS.EXE", false, true},
                                           MonitorCase{"MsiExec.exe", false, true},
                                           MonitorCase{"notepad.exe", false, false},
                                           MonitorCase{"notepad.exe", true, true},
                                           MonitorCase{"averyveryverylongname.exe", true, true}));

// Names that do not fit the receiving string are logged and do not change
// the answer; a process image name is never longer than 15 characters.
TEST_F(ProcessTest, NameThatDoesNotFitIsLogged) {
    Kernel([] { Add(4321, u"x"); });
    emu::Process* process = machine->CreateProcess(4321, "notepad.exe");
    machine->Run(process, [&] {
        WCHAR buffer[4];
        UNICODE_STRING name = {0, sizeof(buffer), buffer};
        EXPECT_TRUE(IsMonitoredProcess(4321, &name));
        EXPECT_EQ(name.Length, 8);
    });
    EXPECT_EQ(LogMatching("IsMonitoredProcess() (124):\tProcessName Copy Fail: [notepad.exe] Status[0x80000005]").size(),
              1u);
}

TEST_F(ProcessTest, GetCurrentProcessNameBounds) {
    emu::Process* process = machine->CreateProcess(31, "abcdefghijk.exe");  // 15 characters
    machine->Run(process, [&] {
        WCHAR small[10];
        memset(small, 0x55, sizeof(small));
        UNICODE_STRING name = {6, 20, small};
        EXPECT_FALSE(GetCurrentProcessName(&name)) << "32 bytes are needed";
        EXPECT_EQ(name.Length, 0);
        for (WCHAR c : small) EXPECT_EQ(c, 0);

        WCHAR fits[16];
        UNICODE_STRING whole = {0, sizeof(fits), fits};
        EXPECT_TRUE(GetCurrentProcessName(&whole));
        EXPECT_EQ(emu::Utf16ToUtf8(whole), "abcdefghijk.exe");

        const ULONG offset = g_ulProcessNameOffset;
        g_ulProcessNameOffset = 0;
        UNICODE_STRING kept = {2, sizeof(fits), fits};
        EXPECT_FALSE(GetCurrentProcessName(&kept));
        EXPECT_EQ(kept.Length, 2) << "left unchanged";
        g_ulProcessNameOffset = offset;
    });
}

// Requests of several processes run at once: a log head names the process
// whose thread logs, never the one whose request captured a name last. Only
// when the image name cannot be read does the captured name stand in, and
// only for the process that captured it.
TEST_F(ProcessTest, LogHeadNamesTheLoggingProcess) {
    emu::Process* app = machine->CreateProcess(1234, "app.exe");
    emu::Process* other = machine->CreateProcess(77, "other.exe");
    struct Case {
        const char* name;
        bool imageNameKnown;
        emu::Process* capturer;
        emu::Process* logger;
        const char* head;
    } cases[] = {
        {"another process captured", true, app, other, "[other.exe][77]"},
        {"this process captured", true, app, app, "[app.exe][1234]"},
        {"image name unknown, this process captured", false, app, app, "[app.exe][1234]"},
        {"image name unknown, another process captured", false, app, other, "[][77]"},
    };
    const ULONG offset = g_ulProcessNameOffset;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        g_ulProcessNameOffset = c.imageNameKnown ? offset : 0;
        machine->Run(c.capturer, [] {
            const std::u16string text = u"app.exe";
            UNICODE_STRING name = emu::MakeUnicodeString(text);
            SetCurrentProcessName(&name);
        });
        machine->Run(c.logger, [] { TRVN_LOG("LogHeadTest", 1, "probe\n"); });
        std::vector<std::string> lines = LogMatching("LogHeadTest() (1)");
        ASSERT_FALSE(lines.empty());
        EXPECT_NE(lines.back().find(std::string(c.head) + ":"), std::string::npos) << lines.back();
    }
    g_ulProcessNameOffset = offset;
}

}  // namespace
}  // namespace tervane::test
