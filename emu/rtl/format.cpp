// The one printf engine behind DbgPrint, _vsnprintf and _vsnwprintf, with the
// conversions and flags of ntoskrnl's C run-time:
//   %c %C %s %S %Z %wZ %ws %ls %hs %wc %lc %hc  characters, strings, counted strings
//   %d %i %u %o %x %X %p                         integers (h, l, I, I32, I64, ll sizes)
//   flags - + space # 0, width and precision (both may be *).
// In the narrow engine %s/%c are narrow and %S/%C wide; in the wide engine the
// other way round. Wide text written by the narrow engine is converted to the
// ANSI code page. A null string pointer (or a counted string without buffer)
// prints "(null)". An unknown conversion character prints itself.
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "rtl/codepage.h"
#include <nt/rtl.h>

namespace tervane::emu {

namespace {

enum Size { kDefault, kShort, kLong, kWide, k64, kPointer };

template <typename CharT>
class Formatter {
public:
    Formatter(CharT* buffer, size_t count) : buffer_(buffer), count_(count) {}

    // Returns what _vsnprintf returns: characters written, or -1 when COUNT
    // was exceeded (then the buffer holds COUNT characters, unterminated).
    int Run(const CharT* format, va_list args) {
        va_copy(args_, args);
        while (*format) {
            // The text up to the next conversion, in one piece.
            const CharT* run = format;
            format = NextConversion(format);
            PutRun(run, static_cast<size_t>(format - run));
            if (*format) format = Conversion(format + 1);
        }
        va_end(args_);
        if (total_ > count_) return -1;
        if (total_ < count_) buffer_[total_] = 0;
        return static_cast<int>(total_);
    }

private:
    struct Directive {
        bool left = false, plus = false, space = false, alt = false, zero = false;
        int width = 0;
        int precision = -1;
        Size size = kDefault;
    };

    // The first '%' or the terminator at or after TEXT.
    static const CharT* NextConversion(const CharT* text) {
        if constexpr (sizeof(CharT) == 1) {
            return strchrnul(text, '%');
        } else {
            while (*text && *text != '%') ++text;
            return text;
        }
    }
    // Units before the terminator, at most LIMIT.
    template <typename TextT>
    static int Length(const TextT* text, int limit) {
        if constexpr (sizeof(TextT) == 1) {
            return static_cast<int>(strnlen(text, static_cast<size_t>(limit)));
        } else {
            int length = 0;
            while (length < limit && text[length]) ++length;
            return length;
        }
    }

    void Put(CharT c) {
        if (total_ < count_) buffer_[total_] = c;
        ++total_;
    }
    // N characters of this engine's width, as N calls of Put would write them.
    void PutRun(const CharT* text, size_t n) {
        if (total_ < count_) {
            const size_t room = count_ - total_;
            std::memcpy(buffer_ + total_, text, (n < room ? n : room) * sizeof(CharT));
        }
        total_ += n;
    }
    void Pad(int n, CharT c) {
        for (; n > 0; --n) Put(c);
    }
    // One character of the other width, converted to this engine's width
    // (ASCII stands for itself in every ANSI code page).
    static CharT FromWide(WCHAR w) {
        if constexpr (sizeof(CharT) == 1) return w < 0x80 ? static_cast<char>(w) : UnicodeToAnsiChar(w);
        else return w;
    }
    static CharT FromNarrow(char a) {
        if constexpr (sizeof(CharT) == 1) return a;
        else return AnsiToUnicodeChar(static_cast<unsigned char>(a));
    }

    // Writes PREFIX and TEXT (LENGTH units, narrow or wide) padded to the width.
    template <typename TextT>
    void Emit(const Directive& directive, const char* prefix, const TextT* text, int length) {
        int prefixLength = 0;
        while (prefix[prefixLength]) ++prefixLength;
        int padding = directive.width - prefixLength - length;
        if (!directive.left && !directive.zero) Pad(padding, ' ');
        for (int i = 0; i < prefixLength; ++i) Put(static_cast<CharT>(prefix[i]));
        if (!directive.left && directive.zero) Pad(padding, '0');
        if constexpr (sizeof(TextT) == sizeof(CharT)) {
            PutRun(reinterpret_cast<const CharT*>(text), static_cast<size_t>(length > 0 ? length : 0));
        } else if (length > 0) {
            // Converted straight into the buffer as far as it has room.
            const size_t room = total_ < count_ ? count_ - total_ : 0;
            const size_t fits = static_cast<size_t>(length) < room ? static_cast<size_t>(length) : room;
            for (size_t i = 0; i < fits; ++i) {
                if constexpr (sizeof(TextT) == 1) buffer_[total_ + i] = FromNarrow(text[i]);
                else buffer_[total_ + i] = FromWide(text[i]);
            }
            total_ += static_cast<size_t>(length);
        }
        if (directive.left) Pad(padding, ' ');
    }

    template <typename TextT>
    void EmitString(const Directive& directive, const TextT* text) {
        if (!text) {
            EmitString(directive, "(null)");
            return;
        }
        const int limit = directive.precision < 0 ? INT32_MAX : directive.precision;
        Emit(directive, "", text, Length(text, limit));
    }

    void EmitCounted(const Directive& directive, const void* counted, bool wide) {
        if (wide) {
            auto* s = static_cast<const UNICODE_STRING*>(counted);
            if (!s || !s->Buffer) return EmitString<char>(directive, nullptr);
            Emit(directive, "", s->Buffer, s->Length / 2);
        } else {
            auto* s = static_cast<const ANSI_STRING*>(counted);
            if (!s || !s->Buffer) return EmitString<char>(directive, nullptr);
            Emit(directive, "", s->Buffer, s->Length);
        }
    }

    void EmitInteger(Directive directive, uint64_t magnitude, bool negative, unsigned base, bool upper, bool hexPrefix) {
        // Digits are written backwards from the end of TEXT.
        char text[80];
        char* const end = text + sizeof text;
        char* digit = end;
        const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
        // Precision gives the minimum number of digits and turns off zero
        // padding; a zero printed with precision 0 prints no digits.
        if (directive.precision < 0) directive.precision = 1;
        else directive.zero = false;
        // Constant divisors: a division by a variable base costs far more.
        uint64_t v = magnitude;
        if (base == 16) {
            for (; v != 0; v >>= 4) *--digit = set[v & 15];
        } else if (base == 8) {
            for (; v != 0; v >>= 3) *--digit = set[v & 7];
        } else {
            for (; v != 0; v /= 10) *--digit = static_cast<char>('0' + v % 10);
        }
        if (directive.precision > 64) directive.precision = 64;
        while (end - digit < directive.precision) *--digit = '0';
        if (base == 8 && directive.alt && (digit == end || *digit != '0')) *--digit = '0';
        const int n = static_cast<int>(end - digit);
        const char* prefix = "";
        if (negative) prefix = "-";
        else if (directive.plus) prefix = "+";
        else if (directive.space) prefix = " ";
        if (hexPrefix && directive.alt && magnitude != 0) prefix = upper ? "0X" : "0x";
        if (*prefix == 0 && directive.width <= n && sizeof(CharT) == 1) {
            PutRun(reinterpret_cast<const CharT*>(digit), static_cast<size_t>(n));  // no padding, no prefix
            return;
        }
        Emit(directive, prefix, digit, n);
    }

    const CharT* Conversion(const CharT* f) {
        Directive directive;
        for (;; ++f) {
            if (*f == '-') directive.left = true;
            else if (*f == '+') directive.plus = true;
            else if (*f == ' ') directive.space = true;
            else if (*f == '#') directive.alt = true;
            else if (*f == '0') directive.zero = true;
            else break;
        }
        if (*f == '*') {
            directive.width = va_arg(args_, int);
            if (directive.width < 0) {
                directive.left = true;
                directive.width = -directive.width;
            }
            ++f;
        } else {
            while (*f >= '0' && *f <= '9') directive.width = directive.width * 10 + (*f++ - '0');
        }
        if (*f == '.') {
            ++f;
            directive.precision = 0;
            if (*f == '*') {
                directive.precision = va_arg(args_, int);
                if (directive.precision < 0) directive.precision = -1;
                ++f;
            } else {
                while (*f >= '0' && *f <= '9') directive.precision = directive.precision * 10 + (*f++ - '0');
            }
        }
        if (directive.left) directive.zero = false;
        // Size prefixes.
        if (*f == 'h') { directive.size = kShort; ++f; }
        else if (*f == 'l' && f[1] == 'l') { directive.size = k64; f += 2; }
        else if (*f == 'l') { directive.size = kLong; ++f; }
        else if (*f == 'w') { directive.size = kWide; ++f; }
        else if (*f == 'L') { ++f; }
        else if (*f == 'I') {
            if (f[1] == '6' && f[2] == '4') { directive.size = k64; f += 3; }
            else if (f[1] == '3' && f[2] == '2') { directive.size = kDefault; f += 3; }
            else { directive.size = kPointer; ++f; }
        }
        CharT type = *f;
        if (type == 0) return f;  // a lone '%' at the end prints nothing
        ++f;
        const bool narrowEngine = sizeof(CharT) == 1;
        const bool sizeWide = directive.size == kLong || directive.size == kWide;
        switch (type) {
        case 'c':
        case 'C': {
            // Which width the character argument has.
            bool wide = type == 'c' ? (narrowEngine ? sizeWide : directive.size != kShort)
                                    : (narrowEngine ? directive.size != kShort : sizeWide);
            int value = va_arg(args_, int);
            if (wide) {
                WCHAR w = static_cast<WCHAR>(value);
                Emit(directive, "", &w, 1);
            } else {
                char a = static_cast<char>(value);
                Emit(directive, "", &a, 1);
            }
            break;
        }
        case 's':
        case 'S': {
            bool wide = type == 's' ? (narrowEngine ? sizeWide : directive.size != kShort)
                                    : (narrowEngine ? directive.size != kShort : sizeWide);
            if (wide) EmitString(directive, va_arg(args_, const WCHAR*));
            else EmitString(directive, va_arg(args_, const char*));
            break;
        }
        case 'Z':
            EmitCounted(directive, va_arg(args_, const void*), sizeWide);
            break;
        case 'd':
        case 'i': {
            int64_t v;
            if (directive.size == k64) v = va_arg(args_, int64_t);
            else if (directive.size == kPointer) v = va_arg(args_, intptr_t);
            else if (directive.size == kShort) v = static_cast<short>(va_arg(args_, int));
            else v = va_arg(args_, int);
            uint64_t magnitude = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
            EmitInteger(directive, magnitude, v < 0, 10, false, false);
            break;
        }
        case 'u':
        case 'o':
        case 'x':
        case 'X': {
            uint64_t v;
            if (directive.size == k64) v = va_arg(args_, uint64_t);
            else if (directive.size == kPointer) v = va_arg(args_, uintptr_t);
            else if (directive.size == kShort) v = static_cast<unsigned short>(va_arg(args_, unsigned));
            else v = va_arg(args_, unsigned);
            unsigned base = type == 'u' ? 10 : type == 'o' ? 8 : 16;
            EmitInteger(directive, v, false, base, type == 'X', base == 16);
            break;
        }
        case 'p': {
            // Upper-case hex padded to the pointer width: 8 digits on 32-bit
            // NT, 16 in this 64-bit build of the machine.
            uintptr_t v = reinterpret_cast<uintptr_t>(va_arg(args_, void*));
            directive.precision = 2 * sizeof(void*);
            directive.alt = false;
            EmitInteger(directive, v, false, 16, true, true);
            break;
        }
        case 'n':
            (void)va_arg(args_, void*);  // never written through: nothing is stored
            break;
        default:
            Put(type);
            break;
        }
        return f;
    }

    CharT* buffer_;
    size_t count_;
    va_list args_;
    size_t total_ = 0;
};

}  // namespace
}  // namespace tervane::emu

using tervane::emu::Formatter;

namespace {

// The formatter works on its own copy of ARGS, so a caller's list stays usable.
template <typename Ch>
int FormatList(Ch* buffer, size_t count, const Ch* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    int n = Formatter<Ch>(buffer, count).Run(format, copy);
    va_end(copy);
    return n;
}

}  // namespace

extern "C" int _vsnprintf(char* Buffer, size_t Count, const char* Format, va_list Args) {
    return FormatList(Buffer, Count, Format, Args);
}

extern "C" int _vsnwprintf(WCHAR* Buffer, size_t Count, const WCHAR* Format, va_list Args) {
    return FormatList(Buffer, Count, Format, Args);
}

extern "C" int _snprintf(char* Buffer, size_t Count, const char* Format, ...) {
    va_list args;
    va_start(args, Format);
    int n = FormatList(Buffer, Count, Format, args);
    va_end(args);
    return n;
}

extern "C" int _snwprintf(WCHAR* Buffer, size_t Count, const WCHAR* Format, ...) {
    va_list args;
    va_start(args, Format);
    int n = FormatList(Buffer, Count, Format, args);
    va_end(args);
    return n;
}
