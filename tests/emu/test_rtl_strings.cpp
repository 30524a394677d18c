// Counted strings and the 16-bit C run-time routines.
#include <gtest/gtest.h>

#include <emu/machine.h>

using namespace tervane::emu;

namespace {
// A counted string over a caller buffer of CAPACITY bytes holding TEXT.
struct Buffer {
    WCHAR chars[64];
    UNICODE_STRING s;
    Buffer(const char16_t* text, USHORT capacity) {
        for (WCHAR& c : chars) c = L'#';
        size_t n = std::char_traits<char16_t>::length(text);
        for (size_t i = 0; i < n; ++i) chars[i] = text[i];
        s = {static_cast<USHORT>(n * 2), capacity, chars};
    }
    std::u16string Text() const { return std::u16string(reinterpret_cast<const char16_t*>(s.Buffer), s.Length / 2); }
};
UNICODE_STRING U(const WCHAR* text) {
    UNICODE_STRING u;
    RtlInitUnicodeString(&u, text);
    return u;
}
}  // namespace

TEST(RtlStrings, InitCountsBytesAndAllowsNull) {
    UNICODE_STRING u = U(L"abc");
    EXPECT_EQ(u.Length, 6);
    EXPECT_EQ(u.MaximumLength, 8);
    RtlInitUnicodeString(&u, nullptr);
    EXPECT_EQ(u.Length, 0);
    EXPECT_EQ(u.MaximumLength, 0);
    EXPECT_EQ(u.Buffer, nullptr);
    ANSI_STRING a;
    RtlInitAnsiString(&a, "hello");
    EXPECT_EQ(a.Length, 5);
    EXPECT_EQ(a.MaximumLength, 6);
}

TEST(RtlStrings, CopyCutsToCapacityAndTerminatesWhenRoom) {
    struct Case {
        USHORT capacity;
        std::u16string text;
        bool terminated;
    } cases[] = {{20, u"hello", true}, {10, u"hello", false}, {6, u"hel", false}, {0, u"", false}};
    for (const Case& c : cases) {
        Buffer dest(u"", c.capacity);
        UNICODE_STRING src = U(L"hello");
        RtlCopyUnicodeString(&dest.s, &src);
        EXPECT_EQ(dest.Text(), c.text) << c.capacity;
        EXPECT_EQ(dest.chars[c.text.size()], c.terminated ? 0 : L'#') << c.capacity;
    }
    Buffer dest(u"abc", 20);
    RtlCopyUnicodeString(&dest.s, nullptr);
    EXPECT_EQ(dest.s.Length, 0);
}

TEST(RtlStrings, AppendFailsWholeWhenItDoesNotFit) {
    struct Case {
        USHORT capacity;
        NTSTATUS status;
        std::u16string text;
    } cases[] = {
        {20, STATUS_SUCCESS, u"C:\\dir"},
        {12, STATUS_SUCCESS, u"C:\\dir"},  // exact fit, no terminator
        {10, STATUS_BUFFER_TOO_SMALL, u"C:"},
    };
    for (const Case& c : cases) {
        Buffer a(u"C:", c.capacity);
        UNICODE_STRING tail = U(L"\\dir");
        EXPECT_EQ(RtlAppendUnicodeStringToString(&a.s, &tail), c.status);
        EXPECT_EQ(a.Text(), c.text);
        Buffer b(u"C:", c.capacity);
        EXPECT_EQ(RtlAppendUnicodeToString(&b.s, L"\\dir"), c.status);
        EXPECT_EQ(b.Text(), c.text);
    }
    Buffer full(u"C:", 12);
    UNICODE_STRING tail = U(L"\\dir");
    RtlAppendUnicodeStringToString(&full.s, &tail);
    EXPECT_EQ(full.chars[6], L'#') << "nothing written past the capacity";
}

TEST(RtlStrings, CompareEqualPrefixWithAndWithoutCase) {
    struct Case {
        const WCHAR *a, *b;
        BOOLEAN ci;
        int sign;
        BOOLEAN equal, prefix;
    } cases[] = {
        {L"abc", L"abc", FALSE, 0, TRUE, TRUE},
        {L"abc", L"ABC", FALSE, 1, FALSE, FALSE},
        {L"abc", L"ABC", TRUE, 0, TRUE, TRUE},
        {L"ab", L"abc", FALSE, -1, FALSE, TRUE},
        {L"abd", L"abc", FALSE, 1, FALSE, FALSE},
        {L"\u00e9t\u00e9", L"\u00c9T\u00c9", TRUE, 0, TRUE, TRUE},
        {L"\u0434\u043e\u043c", L"\u0414\u041e\u041c", TRUE, 0, TRUE, TRUE},
        {L"\u00df", L"SS", TRUE, 1, FALSE, FALSE},  // no one-to-many mappings
        {L"", L"x", TRUE, -1, FALSE, TRUE},
    };
    for (const Case& c : cases) {
        UNICODE_STRING a = U(c.a), b = U(c.b);
        LONG r = RtlCompareUnicodeString(&a, &b, c.ci);
        EXPECT_EQ((r > 0) - (r < 0), c.sign) << Utf16ToUtf8(a);
        EXPECT_EQ(RtlEqualUnicodeString(&a, &b, c.ci), c.equal) << Utf16ToUtf8(a);
        EXPECT_EQ(RtlPrefixUnicodeString(&a, &b, c.ci), c.prefix) << Utf16ToUtf8(a);
    }
}

TEST(RtlStrings, UpcaseTableFollowsOneToOneMappings) {
    struct Case {
        WCHAR lower, upper;
    } cases[] = {{L'a', L'A'}, {L'z', L'Z'}, {L'1', L'1'}, {0xE0, 0xC0}, {0xFE, 0xDE}, {0xF7, 0xF7},
                 {0xFF, 0x178}, {0x101, 0x100}, {0x3B1, 0x391}, {0x430, 0x410}, {0x450, 0x400},
                 {0xFF41, 0xFF21}, {0x4E2D, 0x4E2D}};
    for (const Case& c : cases) {
        EXPECT_EQ(RtlUpcaseUnicodeChar(c.lower), c.upper) << std::hex << int(c.lower);
        if (c.lower != c.upper) {
            EXPECT_EQ(RtlDowncaseUnicodeChar(c.upper), c.lower) << std::hex << int(c.upper);
        }
    }
}

TEST(RtlStrings, UpcaseStringIntoShortBufferOverflows) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        UNICODE_STRING src = U(L"mixed Case");
        Buffer small(u"", 10);
        EXPECT_EQ(RtlUpcaseUnicodeString(&small.s, &src, FALSE), STATUS_BUFFER_OVERFLOW);
        Buffer big(u"", 40);
        EXPECT_EQ(RtlUpcaseUnicodeString(&big.s, &src, FALSE), STATUS_SUCCESS);
        EXPECT_EQ(big.Text(), u"MIXED CASE");
        UNICODE_STRING allocated;
        EXPECT_EQ(RtlDowncaseUnicodeString(&allocated, &src, TRUE), STATUS_SUCCESS);
        EXPECT_EQ(Utf16ToUtf8(allocated), "mixed case");
        RtlFreeUnicodeString(&allocated);
        EXPECT_EQ(allocated.Buffer, nullptr);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(RtlStrings, AnsiToUnicodeNeedsRoomForTheTerminator) {
    Machine machine;
    machine.Run(machine.SystemProcess(), [] {
        ANSI_STRING a;
        RtlInitAnsiString(&a, "System\x80");
        struct Case {
            USHORT capacity;
            NTSTATUS status;
        } cases[] = {{16, STATUS_SUCCESS}, {15, STATUS_BUFFER_OVERFLOW}, {14, STATUS_BUFFER_OVERFLOW}};
        for (const Case& c : cases) {
            Buffer u(u"", c.capacity);
            EXPECT_EQ(RtlAnsiStringToUnicodeString(&u.s, &a, FALSE), c.status) << c.capacity;
            if (c.status == STATUS_SUCCESS) {
                EXPECT_EQ(u.Text(), u"System\u20ac");
                EXPECT_EQ(u.chars[7], 0);
            } else {
                EXPECT_EQ(u.s.Length, 0) << "left unchanged";
                EXPECT_EQ(u.chars[0], L'#');
            }
        }
        UNICODE_STRING allocated;
        EXPECT_EQ(RtlAnsiStringToUnicodeString(&allocated, &a, TRUE), STATUS_SUCCESS);
        EXPECT_EQ(allocated.Length, 14);
        EXPECT_EQ(allocated.MaximumLength, 16);
        RtlFreeUnicodeString(&allocated);
    });
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(RtlStrings, UnicodeToAnsiTruncatesIntoShortBuffer) {
    UNICODE_STRING u = U(L"abc\u4e2d");
    char chars[8];
    ANSI_STRING a = {0, 3, chars};
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&a, &u, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::string(a.Buffer, a.Length), "ab");
    a.MaximumLength = 8;
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&a, &u, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(std::string(a.Buffer), "abc?");
}

TEST(RtlStrings, IntegersToAndFromText) {
    struct Case {
        ULONG value, base;
        const char16_t* text;
    } cases[] = {{1234, 10, u"1234"}, {255, 16, u"FF"}, {5, 2, u"101"}, {8, 8, u"10"}, {0, 0, u"0"}};
    for (const Case& c : cases) {
        Buffer b(u"", 40);
        EXPECT_EQ(RtlIntegerToUnicodeString(c.value, c.base, &b.s), STATUS_SUCCESS);
        EXPECT_EQ(b.Text(), c.text);
        ULONG back = 99;
        EXPECT_EQ(RtlUnicodeStringToInteger(&b.s, c.base, &back), STATUS_SUCCESS);
        EXPECT_EQ(back, c.value);
    }
    Buffer b(u"", 40);
    EXPECT_EQ(RtlIntegerToUnicodeString(1, 7, &b.s), STATUS_INVALID_PARAMETER);
    Buffer tiny(u"", 4);
    EXPECT_EQ(RtlIntegerToUnicodeString(123, 10, &tiny.s), STATUS_BUFFER_OVERFLOW);
    struct Parse {
        const WCHAR* text;
        ULONG want;
    } parses[] = {{L"  -12", 0xFFFFFFF4u}, {L"0x1F", 31}, {L"0b101", 5}, {L"42abc", 42}, {L"", 0}};
    for (const Parse& p : parses) {
        UNICODE_STRING s = U(p.text);
        ULONG v = 99;
        EXPECT_EQ(RtlUnicodeStringToInteger(&s, 0, &v), STATUS_SUCCESS);
        EXPECT_EQ(v, p.want) << Utf16ToUtf8(s);
    }
}

TEST(RtlCrt, WideRoutinesUse16BitCharacters) {
    EXPECT_EQ(EmuCrt_wcslen(L"abc"), 3u);
    EXPECT_EQ(_wcsicmp(L"Hello", L"hELLO"), 0);
    EXPECT_LT(_wcsicmp(L"abc", L"abd"), 0);
    EXPECT_EQ(_wcsnicmp(L"abcX", L"ABCY", 3), 0);
    EXPECT_GT(EmuCrt_wcscmp(L"b", L"a"), 0);
    EXPECT_EQ(EmuCrt_wcsncmp(L"abX", L"abY", 2), 0);
    const WCHAR* path = L"C:\\dir\\file";
    EXPECT_EQ(EmuCrt_wcschr(path, L'\\'), path + 2);
    EXPECT_EQ(EmuCrt_wcsrchr(path, L'\\'), path + 6);
    EXPECT_EQ(EmuCrt_wcschr(path, L'z'), nullptr);
    WCHAR buffer[6];
    EmuCrt_wcsncpy(buffer, L"ab", 6);
    EXPECT_EQ(buffer[1], L'b');
    EXPECT_EQ(buffer[5], 0) << "padded with zeros";
    EmuCrt_wcscpy(buffer, L"xyz");
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(buffer)), u"xyz");
    EXPECT_EQ(RtlCompareMemory("abcd", "abXd", 4), 2u);
}
