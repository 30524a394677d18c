// Path pools and the bounded string operations.
#include "test_core_support.h"
#include "base/strings.h"

namespace tervane::test {
namespace {

class StringsTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }
};

// A destination over a guarded buffer: writes past the capacity show up in
// the guard.
struct Dest {
    explicit Dest(USHORT capacityChars, const std::u16string& initial = u"") : buffer(capacityChars + 8, u'#') {
        s.Buffer = reinterpret_cast<PWSTR>(buffer.data());
        s.MaximumLength = capacityChars * 2;
        std::copy(initial.begin(), initial.end(), buffer.begin());
        s.Length = (USHORT)(initial.size() * 2);
    }
    std::u16string Text() const { return std::u16string(buffer.data(), s.Length / 2); }
    bool GuardIntact() const {
        return std::all_of(buffer.begin() + s.MaximumLength / 2, buffer.end(), [](char16_t c) { return c == u'#'; });
    }
    std::vector<char16_t> buffer;
    UNICODE_STRING s;
};

TEST(CountedStringValidation, Rules) {
    WCHAR b[2];
    struct Case {
        UNICODE_STRING s;
        ULONG max;
        NTSTATUS expected;
    } cases[] = {
        {{0, 0, nullptr}, 32767, STATUS_SUCCESS},       {{2, 4, b}, 32767, STATUS_SUCCESS},
        {{0, 65534, b}, 32767, STATUS_SUCCESS},         {{1, 4, b}, 32767, STATUS_INVALID_PARAMETER},
        {{2, 3, b}, 32767, STATUS_INVALID_PARAMETER},   {{6, 4, b}, 32767, STATUS_INVALID_PARAMETER},
        {{0, 2048, nullptr}, 32767, STATUS_INVALID_PARAMETER}, {{2, 4, b}, 1, STATUS_INVALID_PARAMETER},
        {{0, 2, b}, 1, STATUS_SUCCESS},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ValidateCountedString(&c.s, c.max), c.expected) << c.s.Length << "/" << c.s.MaximumLength;
    }
}

TEST(CountedStringCopies, CopyAndAppend) {
    struct Case {
        const char* op;
        USHORT capacity;
        std::u16string initial, source;
        NTSTATUS status;
        std::u16string result;
    } cases[] = {
        {"copy", 0, u"", u"abc", STATUS_BUFFER_OVERFLOW, u""},
        {"copy", 0, u"", u"", STATUS_SUCCESS, u""},
        {"copy", 3, u"zz", u"abc", STATUS_SUCCESS, u"abc"},
        {"copy", 2, u"", u"abc", STATUS_BUFFER_OVERFLOW, u"ab"},
        {"append", 6, u"xyz", u"abc", STATUS_SUCCESS, u"xyzabc"},
        {"append", 5, u"xyz", u"abc", STATUS_BUFFER_OVERFLOW, u"xyzab"},
        {"appendz", 6, u"xyz", u"abc", STATUS_SUCCESS, u"xyzabc"},
        {"appendz", 5, u"xyz", u"abc", STATUS_BUFFER_OVERFLOW, u"xyzab"},
        {"copyz", 3, u"q", u"abc", STATUS_SUCCESS, u"abc"},
        {"copyz", 2, u"q", u"abc", STATUS_BUFFER_OVERFLOW, u"ab"},
        {"appendn2", 10, u"x", u"abc", STATUS_SUCCESS, u"xab"},
        {"appendn2", 2, u"x", u"abc", STATUS_BUFFER_OVERFLOW, u"xa"},
        {"appendn2", 3, u"x", u"abc", STATUS_SUCCESS, u"xab"},
        {"appendn9", 10, u"x", u"ab", STATUS_SUCCESS, u"xab"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.op) + " " + emu::Utf16ToUtf8(c.source) + " cap " + std::to_string(c.capacity));
        Dest d(c.capacity, c.initial);
        std::u16string src = c.source;
        UNICODE_STRING source = emu::MakeUnicodeString(src);
        const PCWSTR z = reinterpret_cast<PCWSTR>(src.c_str());
        std::string op = c.op;
        NTSTATUS status = op == "copy"       ? CopyCountedString(&d.s, &source)
                          : op == "append"   ? AppendCountedString(&d.s, &source)
                          : op == "appendz"  ? AppendStringToCounted(&d.s, z)
                          : op == "copyz"    ? CopyStringToCounted(&d.s, z)
                          : op == "appendn2" ? AppendStringToCountedN(&d.s, z, 2)
                                             : AppendStringToCountedN(&d.s, z, 9);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(d.Text(), c.result);
        EXPECT_TRUE(d.GuardIntact());
    }
}

TEST(CountedStringCopies, InvalidStringsChangeNothing) {
    WCHAR b[4] = {'a', 'b', 0, 0};
    UNICODE_STRING nullBuffer = {0, 2048, nullptr};  // a failed AllocatePathBuffer
    UNICODE_STRING good = {4, 8, b};
    EXPECT_EQ(CopyCountedString(&nullBuffer, &good), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(AppendStringToCounted(&nullBuffer, L"x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(FormatCountedString(&nullBuffer, L"x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(nullBuffer.Length, 0);

    Dest d(8, u"keep");
    UNICODE_STRING odd = {3, 8, b};
    EXPECT_EQ(AppendCountedString(&d.s, &odd), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(d.Text(), u"keep") << "an append keeps what it had";
    EXPECT_EQ(CopyCountedString(&d.s, &odd), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(d.Text(), u"") << "a copy keeps nothing";

    Dest n(8, u"ab");
    EXPECT_EQ(AppendStringToCountedN(&n.s, L"cd", 32767), STATUS_SUCCESS);
    EXPECT_EQ(AppendStringToCountedN(&n.s, L"ef", 32768), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(n.Text(), u"abcd");
}

TEST(CountedStringCopies, CopyStringToBuffer) {
    struct Case {
        size_t bytes;
        size_t sourceChars;
        NTSTATUS status;
        size_t copied;  // characters before the terminator; SIZE_MAX: nothing written
    } cases[] = {
        {520, 259, STATUS_SUCCESS, 259}, {520, 260, STATUS_BUFFER_OVERFLOW, 259}, {520, 0, STATUS_SUCCESS, 0},
        {2, 1, STATUS_BUFFER_OVERFLOW, 0}, {2, 0, STATUS_SUCCESS, 0},           {1, 5, STATUS_INVALID_PARAMETER, SIZE_MAX},
        {0, 5, STATUS_INVALID_PARAMETER, SIZE_MAX}, {7, 3, STATUS_BUFFER_OVERFLOW, 2 /* 3 characters of room */},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.bytes) + " bytes, source " + std::to_string(c.sourceChars));
        std::u16string source(c.sourceChars, u's');
        std::vector<char16_t> buffer(c.bytes / 2 + 4, u'#');
        NTSTATUS status = CopyStringToBuffer(reinterpret_cast<PWSTR>(buffer.data()), c.bytes,
                                             reinterpret_cast<PCWSTR>(source.c_str()));
        EXPECT_EQ(status, c.status);
        if (c.copied == SIZE_MAX) {
            EXPECT_EQ(buffer[0], u'#');
            continue;
        }
        const size_t expect = std::min(c.copied, c.sourceChars);
        EXPECT_EQ(std::u16string(buffer.data(), expect), std::u16string(expect, u's'));
        EXPECT_EQ(buffer[expect], 0);
        for (size_t i = c.bytes / 2; i < buffer.size(); i++) EXPECT_EQ(buffer[i], u'#');
    }
}

TEST_F(StringsTest, FormatFillsToCapacity) {
    Kernel([] {
        Dest exact(5);
        EXPECT_EQ(FormatCountedString(&exact.s, L"%s-%d", L"ab", 12), STATUS_SUCCESS);
        EXPECT_EQ(exact.Text(), u"ab-12");
        EXPECT_TRUE(exact.GuardIntact());
        Dest cut(4);
        EXPECT_EQ(FormatCountedString(&cut.s, L"%s-%d", L"ab", 12), STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(cut.s.Length, 8);
        EXPECT_TRUE(cut.GuardIntact());
        Dest empty(4, u"old");
        EXPECT_EQ(FormatCountedString(&empty.s, L""), STATUS_SUCCESS);
        EXPECT_EQ(empty.s.Length, 0);
    });
}

}  // namespace
}  // namespace tervane::test
