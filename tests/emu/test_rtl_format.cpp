// The printf engine behind DbgPrint, _snprintf and _snwprintf.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <emu/machine.h>

using namespace tervane::emu;

namespace {

std::string Narrow(const char* format, ...) {
    char buffer[256];
    va_list args;
    va_start(args, format);
    int n = _vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return n < 0 ? "<cut>" : std::string(buffer, n);
}

std::u16string Wide(const WCHAR* format, ...) {
    WCHAR buffer[256];
    va_list args;
    va_start(args, format);
    int n = _vsnwprintf(buffer, 256, format, args);
    va_end(args);
    return n < 0 ? u"<cut>" : std::u16string(reinterpret_cast<char16_t*>(buffer), n);
}

UNICODE_STRING kUnicode = RTL_CONSTANT_STRING(L"C:\\dir\\file.txt");
char kAnsiText[] = "ansi text";
ANSI_STRING kAnsi = {9, 10, kAnsiText};
UNICODE_STRING kNoBuffer = {0, 0, nullptr};

}  // namespace

TEST(Format, IntegersFlagsWidthPrecision) {
    struct Case {
        std::string got, want;
    } cases[] = {
        {Narrow("%d|%i|%u", -42, 17, 4000000000u), "-42|17|4000000000"},
        {Narrow("%x|%X|%#x|%#X|%#x", 0xbeefu, 0xbeefu, 255u, 255u, 0u), "beef|BEEF|0xff|0XFF|0"},
        {Narrow("%5d|%-5d|%05d|%+d|% d", 42, 42, -42, 42, 42), "   42|42   |-0042|+42| 42"},
        {Narrow("%.3d|%8.3d|%08.3d|%.0d", 7, 7, 7, 0), "007|     007|     007|"},
        {Narrow("%*d|%-*d|%.*d", 4, 1, 4, 2, 3, 3), "   1|2   |003"},
        {Narrow("%*d", -4, 1), "1   "},
        {Narrow("%hd|%hu", 70000, 70000), "4464|4464"},
        {Narrow("%I64d|%I64u|%I64x|%I64X", -5LL, 18446744073709551615ULL, 0x123456789aULL, 0xabcULL),
         "-5|18446744073709551615|123456789a|ABC"},
        {Narrow("%lld|%ld|%lu", -9LL, -3, 3u), "-9|-3|3"},
        {Narrow("%o|%#o", 8u, 8u), "10|010"},
        {Narrow("%%|%5%|100%%"), "%|%|100%"},
        {Narrow("%y"), "y"},
    };
    for (const Case& c : cases) EXPECT_EQ(c.got, c.want);
}

TEST(Format, PointersPrintUpperCaseHexOfThePointerWidth) {
    std::string expect(2 * sizeof(void*) - 4, '0');
    EXPECT_EQ(Narrow("%p", reinterpret_cast<void*>(0xAB12)), expect + "AB12");
    EXPECT_EQ(Narrow("[%20p]", nullptr), "[" + std::string(20 - 2 * sizeof(void*), ' ') +
                                             std::string(2 * sizeof(void*), '0') + "]");
}

TEST(Format, StringsAndCharactersInTheNarrowEngine) {
    struct Case {
        std::string got, want;
    } cases[] = {
        {Narrow("%s|%ws|%ls|%S|%hs", "a", L"b", L"c", L"d", "e"), "a|b|c|d|e"},
        {Narrow("%wZ", &kUnicode), "C:\\dir\\file.txt"},
        {Narrow("%Z", &kAnsi), "ansi text"},
        {Narrow("[%20wZ]", &kUnicode), "[     C:\\dir\\file.txt]"},
        {Narrow("[%-6s][%6s][%.2s][%06s]", "ab", "ab", "abcdef", "ab"), "[ab    ][    ab][ab][0000ab]"},
        {Narrow("%c%C%wc%lc", 'x', L'y', L'z', L'w'), "xyzw"},
        {Narrow("[%3c]", 'q'), "[  q]"},
        {Narrow("%s|%ws|%S|%wZ|%Z", (char*)nullptr, (WCHAR*)nullptr, (WCHAR*)nullptr, nullptr, nullptr),
         "(null)|(null)|(null)|(null)|(null)"},
        {Narrow("%wZ", &kNoBuffer), "(null)"},
        {Narrow("%.3s", (char*)nullptr), "(nu"},
        // Wide text outside the ANSI code page becomes '?'; Latin-1 passes.
        {Narrow("%ws", L"\u00e9\u4e2d"), "\xe9?"},
    };
    for (const Case& c : cases) EXPECT_EQ(c.got, c.want);
}

TEST(Format, TheWideEngineSwapsTheMeaningOfSAndC) {
    EXPECT_EQ(Wide(L"%s|%S|%ws|%hs|%ls", L"w", "n", L"x", "y", L"z"), u"w|n|x|y|z");
    EXPECT_EQ(Wide(L"%c%C%hc", L'\u00e9', 'a', 'b'), u"\u00e9ab");
    EXPECT_EQ(Wide(L"%wZ|%Z", &kUnicode, &kAnsi), u"C:\\dir\\file.txt|ansi text");
    EXPECT_EQ(Wide(L"%s|%S", (WCHAR*)nullptr, (char*)nullptr), u"(null)|(null)");
    EXPECT_EQ(Wide(L"%08.3x|%-4d|%I64u", 0xabu, 5, 1ULL << 40), u"     0ab|5   |1099511627776");
    EXPECT_EQ(Wide(L"%S", "\x80"), u"\u20ac") << "narrow text is read in the ANSI code page";
}

TEST(Format, CutOutputReturnsMinusOneAndAnExactFitIsNotTerminated) {
    struct Case {
        size_t count;
        int want;
        std::u16string contents;  // the buffer's first characters after the call
    } cases[] = {
        {10, 5, std::u16string(u"hello\0", 6)},
        {6, 5, std::u16string(u"hello\0", 6)},
        {5, 5, u"hello#"},   // exactly full: no terminator
        {3, -1, u"hel###"},  // cut: COUNT characters, no terminator
        {0, -1, u"######"},
    };
    // The same text as an argument, as literal text, split between both,
    // and as an argument of the other width (converted on the way).
    for (const Case& c : cases) {
        for (int form = 0; form < 4; ++form) {
            WCHAR buffer[16];
            for (WCHAR& w : buffer) w = L'#';
            const int wide = form == 0 ? _snwprintf(buffer, c.count, L"%s", L"hello")
                             : form == 1 ? _snwprintf(buffer, c.count, L"hello")
                             : form == 2 ? _snwprintf(buffer, c.count, L"he%sl%c", L"l", L'o')
                                         : _snwprintf(buffer, c.count, L"%hs", "hello");
            EXPECT_EQ(wide, c.want) << c.count << " form " << form;
            EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(buffer), 6), c.contents) << c.count << " form " << form;
            char narrow[16];
            std::memset(narrow, '#', sizeof(narrow));
            const int ansi = form == 0 ? _snprintf(narrow, c.count, "%s", "hello")
                             : form == 1 ? _snprintf(narrow, c.count, "hello")
                             : form == 2 ? _snprintf(narrow, c.count, "he%sl%c", "l", 'o')
                                         : _snprintf(narrow, c.count, "%ws", L"hello");
            EXPECT_EQ(ansi, c.want) << c.count << " form " << form;
            std::string expected(c.contents.begin(), c.contents.end());
            EXPECT_EQ(std::string(narrow, 6), expected) << c.count << " form " << form;
        }
    }
}

TEST(DbgPrint, AppendsToTheLogInOrderAndContinuesOpenLines) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        DbgPrint("[TRVN]%x[%wZ][%d]: %s() (%d):\t", 0x1234, &kUnicode, 4, "DriverEntry", 782);
        DbgPrint("started %s\n", "ok");
        DbgPrint("second\r\n");
        DbgPrint("open ");
        DbgPrint("line\n");
    });
    std::vector<std::string> lines = machine.LogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "[TRVN]1234[C:\\dir\\file.txt][4]: DriverEntry() (782):\tstarted ok");
    EXPECT_EQ(lines[1], "second");
    EXPECT_EQ(lines[2], "open line");
    EXPECT_NE(machine.TakeNewLog().find("open line\n"), std::string::npos);
    EXPECT_EQ(machine.TakeNewLog(), "");
    machine.Run(machine.SystemProcess(), [] { DbgPrint("%ws\n", L"\u00e9t\u00e9"); });
    EXPECT_EQ(machine.TakeNewLog(), "\xC3\xA9t\xC3\xA9\n") << "the log is UTF-8 for the host";
    EXPECT_TRUE(machine.Shutdown().Clean());
}

// A long-running machine keeps only its most recent output: whole lines go,
// oldest first, and are counted; what is kept reads as before.
TEST(DbgPrint, TheLogKeepsTheMostRecentLinesWithinItsCapacity) {
    MachineOptions options;
    options.logCapacity = 40;
    Machine machine(options);
    machine.Run(machine.SystemProcess(), [] {
        for (int i = 0; i < 10; i++) DbgPrint("line %d of the log\n", i);  // 18 bytes each
        DbgPrint("open ");
    });
    EXPECT_EQ(machine.LogLines(), (std::vector<std::string>{"line 8 of the log", "line 9 of the log", "open "}));
    EXPECT_EQ(machine.DroppedLogLines(), 8u);
    EXPECT_EQ(machine.TakeNewLog(), "line 8 of the log\nline 9 of the log\nopen ");
    machine.Run(machine.SystemProcess(), [] { DbgPrint("end\n"); });
    EXPECT_EQ(machine.TakeNewLog(), "end\n") << "taken text is not returned again";
    EXPECT_EQ(machine.LogLines().back(), "open end");
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(DbgPrint, OneCallTransmitsAtMost512Bytes) {
    Machine machine;
    std::string longText(1000, 'a');
    machine.Run(machine.SystemProcess(), [&] { DbgPrint("%s\n", longText.c_str()); });
    std::string log = machine.TakeNewLog();
    EXPECT_EQ(log.size(), 511u);
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(RtlAssert, ReportsExpressionFileAndLineAndReturns) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        RtlAssert((PVOID) "NT_SUCCESS( nStatus )", (PVOID) "tervane", 170, nullptr);
        DbgPrint("still running\n");
    });
    EXPECT_EQ(machine.TakeNewLog(),
              "*** Assertion failed: NT_SUCCESS( nStatus )\n***   Source File: tervane, line 170\n\nstill running\n");
    EXPECT_TRUE(machine.Shutdown().Clean());
}
