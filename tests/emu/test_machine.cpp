// The machine's thread and process model, its host API and its shutdown.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include <emu/machine.h>

#include "kernel.h"

using namespace tervane::emu;

TEST(Machine, SystemProcessIsIdFourNamedSystemInsideItsObject) {
    Machine machine;
    Process* system = machine.SystemProcess();
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(machine.FindProcess(4), system);
    machine.Run(system, [] {
        EXPECT_EQ(PsGetCurrentProcessId(), reinterpret_cast<HANDLE>(4));
        // Drivers find the image name by scanning the first 12288 bytes.
        const char* body = reinterpret_cast<const char*>(PsGetCurrentProcess());
        const char* found = nullptr;
        for (size_t i = 0; i + 7 <= 12288 && !found; ++i)
            if (std::memcmp(body + i, "System", 7) == 0) found = body + i;
        EXPECT_NE(found, nullptr);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Machine, ProcessesHaveTheirIdsNamesAndThreads) {
    Machine machine;
    Process* p = machine.CreateProcess(1234, "averyveryverylongname.exe");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(machine.CreateProcess(1234, "other.exe"), nullptr) << "duplicate ids are refused";
    EXPECT_EQ(machine.FindProcess(1234), p);
    PETHREAD runThread = nullptr;
    machine.Run(p, [&] {
        EXPECT_EQ(PsGetCurrentProcessId(), reinterpret_cast<HANDLE>(1234));
        EXPECT_EQ(PsImageName(PsGetCurrentProcess()), "averyveryverylo") << "NT keeps 15 characters";
        EXPECT_EQ(&PsGetCurrentThread()->Tcb, KeGetCurrentThread());
        runThread = PsGetCurrentThread();
    });
    // Run reuses the process's thread; StartThread makes a new one.
    machine.Run(p, [&] { EXPECT_EQ(PsGetCurrentThread(), runThread); });
    PETHREAD other = nullptr;
    HANDLE otherPid = nullptr;
    auto t = machine.StartThread(p, [&] {
        other = PsGetCurrentThread();
        otherPid = PsGetCurrentProcessId();
    });
    t->Join();
    EXPECT_NE(other, runThread);
    EXPECT_EQ(otherPid, reinterpret_cast<HANDLE>(1234));
    machine.TerminateProcess(p);
    EXPECT_EQ(machine.FindProcess(1234), nullptr);
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(Machine, OnlyOneMachineAtATimeAndCurrentFollowsIt) {
    EXPECT_EQ(Machine::Current(), nullptr);
    {
        Machine machine;
        EXPECT_EQ(Machine::Current(), &machine);
        EXPECT_THROW(Machine second, std::logic_error);
        EXPECT_EQ(Machine::Current(), &machine);
    }
    EXPECT_EQ(Machine::Current(), nullptr);
    Machine again;  // a new one can be made once the first is gone
    EXPECT_TRUE(again.Shutdown().Clean());
    EXPECT_TRUE(again.Shutdown().Clean()) << "a second shutdown is harmless";
}

TEST(Machine, BuildNumberCarriesTheFreeBuildMarker) {
    MachineOptions options;
    options.buildNumber = 2195;
    Machine machine(options);
    EXPECT_EQ(NtBuildNumber, 0xF0000000u | 2195);
    machine.SetBuildNumber(3790);
    EXPECT_EQ(NtBuildNumber & 0xFFFF, 3790u);
    EXPECT_EQ(NtBuildNumber >> 28, 0xFu);
}

TEST(Machine, ExceptionsInRunReachTheCaller) {
    Machine machine;
    EXPECT_THROW(machine.Run(machine.SystemProcess(), [] { throw std::runtime_error("boom"); }), std::runtime_error);
    int ran = 0;
    machine.Run(machine.SystemProcess(), [&] { ++ran; });
    EXPECT_EQ(ran, 1) << "the worker survives a throwing task";
}

TEST(Utf, ConversionsRoundTripAndReplaceBadInput) {
    struct Case {
        std::string utf8;
        std::u16string utf16;
    } cases[] = {
        {"", u""},
        {"C:\\a.txt", u"C:\\a.txt"},
        {"\xC3\xA9t\xC3\xA9", u"\u00E9t\u00E9"},
        {"\xF0\x9F\x98\x80", u"\U0001F600"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Utf8ToUtf16(c.utf8), c.utf16);
        EXPECT_EQ(Utf16ToUtf8(c.utf16), c.utf8);
    }
    EXPECT_EQ(Utf8ToUtf16("a\xFF" "b"), u"a\uFFFDb");
    EXPECT_EQ(Utf8ToUtf16("\xE2\x82"), u"\uFFFD") << "truncated sequence";
    EXPECT_EQ(Utf16ToUtf8(std::u16string(1, u'\xD800')), "\xEF\xBF\xBD") << "lone surrogate";
}

// Status names print and parse both ways; the later additions to the header
// are the ones a table falls behind on.
TEST(StatusNames, RoundTrip) {
    const struct {
        const char* name;
        NTSTATUS value;
    } cases[] = {
        {"STATUS_UNRECOGNIZED_VOLUME", STATUS_UNRECOGNIZED_VOLUME},
        {"STATUS_NOT_MAPPED_VIEW", STATUS_NOT_MAPPED_VIEW},
        {"STATUS_INVALID_SID", STATUS_INVALID_SID},
        {"STATUS_INVALID_ACL", STATUS_INVALID_ACL},
        {"STATUS_INVALID_SECURITY_DESCR", STATUS_INVALID_SECURITY_DESCR},
        {"STATUS_USER_APC", STATUS_USER_APC},
        {"STATUS_SUCCESS", STATUS_SUCCESS},  // printed before its alias STATUS_WAIT_0
    };
    for (const auto& c : cases) {
        EXPECT_EQ(StatusName(c.value), c.name);
        NTSTATUS parsed = 0x12345678;
        EXPECT_TRUE(StatusFromName(c.name, &parsed)) << c.name;
        EXPECT_EQ(parsed, c.value) << c.name;
    }
    EXPECT_EQ(StatusName(static_cast<NTSTATUS>(0xC0DE0001u)), "0xC0DE0001");
}
