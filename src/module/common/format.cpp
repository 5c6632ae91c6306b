#include "common/format.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "common/ovstring.h"

namespace ovsvc {

std::int64_t FormatArg::asSigned() const {
    switch (kind_) {
        case Kind::Signed:
            return i_;
        case Kind::Unsigned:
            return static_cast<std::int64_t>(u_);
        case Kind::Double:
            if (std::isnan(d_)) {
                return 0;
            }
            if (d_ >= 9.2233720368547758e18) {
                return std::numeric_limits<std::int64_t>::max();
            }
            if (d_ <= -9.2233720368547758e18) {
                return std::numeric_limits<std::int64_t>::min();
            }
            return static_cast<std::int64_t>(d_);
        case Kind::Pointer:
            return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(p_));
        case Kind::Wide:
        case Kind::Narrow:
            break;
    }
    return 0;
}

std::uint64_t FormatArg::asUnsigned() const {
    switch (kind_) {
        case Kind::Signed:
            return static_cast<std::uint64_t>(i_);
        case Kind::Unsigned:
            return u_;
        case Kind::Double:
            if (std::isnan(d_) || d_ <= 0) {
                return static_cast<std::uint64_t>(asSigned());
            }
            if (d_ >= 1.8446744073709552e19) {
                return std::numeric_limits<std::uint64_t>::max();
            }
            return static_cast<std::uint64_t>(d_);
        case Kind::Pointer:
            return reinterpret_cast<std::uintptr_t>(p_);
        case Kind::Wide:
        case Kind::Narrow:
            break;
    }
    return 0;
}

double FormatArg::asDouble() const {
    switch (kind_) {
        case Kind::Signed:
            return static_cast<double>(i_);
        case Kind::Unsigned:
            return static_cast<double>(u_);
        case Kind::Double:
            return d_;
        case Kind::Pointer:
            return static_cast<double>(reinterpret_cast<std::uintptr_t>(p_));
        case Kind::Wide:
        case Kind::Narrow:
            break;
    }
    return 0;
}

namespace {

// Widths and precisions are capped so that no format can ask for unbounded
// padding.
constexpr int kMaxPadding = 4096;

// How many bits of an integer a length modifier shows. Without one an
// integer is 32 bits wide, as `int` and `long` are on Windows.
enum class Size { Default, Char, Short, Long, LongLong, Pointer };

int Bits(Size size) {
    switch (size) {
        case Size::Char:
            return 8;
        case Size::Short:
            return 16;
        case Size::LongLong:
        case Size::Pointer:
            return 64;
        case Size::Default:
        case Size::Long:
            break;
    }
    return 32;
}

struct Directive {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alt = false;
    bool zero = false;
    int width = 0;
    int precision = -1;  // -1: none
    Size size = Size::Default;
    bool narrowHint = false;  // h: %s / %c take a narrow string / char
    bool wideHint = false;    // l, w: wide
    char16_t conversion = 0;
};

class Formatter {
  public:
    Formatter(std::u16string* out, std::u16string_view format, std::span<const FormatArg> args)
        : out_(*out), format_(format), args_(args) {}

    void Run() {
        while (pos_ < format_.size()) {
            const std::size_t percent = format_.find(u'%', pos_);
            if (percent == std::u16string_view::npos) {
                out_.append(format_.substr(pos_));
                return;
            }
            out_.append(format_.substr(pos_, percent - pos_));
            pos_ = percent + 1;
            Conversion(percent);
        }
    }

  private:
    const FormatArg* NextArg() { return next_ < args_.size() ? &args_[next_++] : nullptr; }

    bool AtEnd() const { return pos_ >= format_.size(); }
    char16_t Peek(std::size_t ahead = 0) const {
        return pos_ + ahead < format_.size() ? format_[pos_ + ahead] : char16_t{0};
    }

    // Digits or "*"; returns -1 for "*" whose argument is missing or when
    // nothing is there.
    int Number(bool* fromArg, int* argValue) {
        *fromArg = false;
        if (Peek() == u'*') {
            ++pos_;
            *fromArg = true;
            const FormatArg* arg = NextArg();
            if (arg == nullptr) {
                *argValue = 0;
                return -1;
            }
            const std::int64_t v = static_cast<std::int32_t>(arg->asSigned() & 0xFFFFFFFF);
            *argValue = static_cast<int>(std::clamp<std::int64_t>(v, -kMaxPadding, kMaxPadding));
            return *argValue;
        }
        int value = -1;
        while (Peek() >= u'0' && Peek() <= u'9') {
            const int digit = Peek() - u'0';
            value = std::min(kMaxPadding, (value < 0 ? 0 : value) * 10 + digit);
            ++pos_;
        }
        return value;
    }

    void ParseFlags(Directive* conv) {
        for (;;) {
            switch (Peek()) {
                case u'-':
                    conv->left = true;
                    break;
                case u'+':
                    conv->plus = true;
                    break;
                case u' ':
                    conv->space = true;
                    break;
                case u'#':
                    conv->alt = true;
                    break;
                case u'0':
                    conv->zero = true;
                    break;
                default:
                    return;
            }
            ++pos_;
        }
    }

    void ParseSize(Directive* conv) {
        for (;;) {
            const char16_t c = Peek();
            if (c == u'h') {
                ++pos_;
                conv->size = conv->size == Size::Short ? Size::Char : Size::Short;
                conv->narrowHint = true;
            } else if (c == u'l') {
                ++pos_;
                conv->size = conv->size == Size::Long ? Size::LongLong : Size::Long;
                conv->wideHint = true;
            } else if (c == u'w') {
                ++pos_;
                conv->wideHint = true;
            } else if (c == u'L' || c == u'q') {
                ++pos_;
                conv->size = Size::LongLong;
            } else if (c == u'j' || c == u'z' || c == u't') {
                ++pos_;
                conv->size = Size::Pointer;
            } else if (c == u'I') {
                ++pos_;
                if (Peek() == u'6' && Peek(1) == u'4') {
                    pos_ += 2;
                    conv->size = Size::LongLong;
                } else if (Peek() == u'3' && Peek(1) == u'2') {
                    pos_ += 2;
                    conv->size = Size::Long;
                } else {
                    conv->size = Size::Pointer;
                }
            } else {
                return;
            }
        }
    }

    void Conversion(std::size_t start) {
        Directive conv;
        ParseFlags(&conv);
        bool fromArg = false;
        int argValue = 0;
        const int width = Number(&fromArg, &argValue);
        if (fromArg) {
            conv.left = conv.left || argValue < 0;  // a negative "*" width means left-aligned
            conv.width = argValue < 0 ? -argValue : argValue;
        } else {
            conv.width = std::max(width, 0);
        }
        if (Peek() == u'.') {
            ++pos_;
            const int precision = Number(&fromArg, &argValue);
            conv.precision = precision < 0 ? (fromArg ? -1 : 0) : precision;
        }
        ParseSize(&conv);
        if (AtEnd()) {
            out_.append(format_.substr(start));  // an unfinished conversion is shown as written
            return;
        }
        conv.conversion = format_[pos_++];
        Dispatch(conv, start);
    }

    void Dispatch(const Directive& conv, std::size_t start) {
        switch (conv.conversion) {
            case u'%':
                out_.push_back(u'%');
                return;
            case u'd':
            case u'i':
            case u'u':
            case u'x':
            case u'X':
            case u'o':
                Integer(conv, NextArg());
                return;
            case u'c':
            case u'C':
                Character(conv, NextArg());
                return;
            case u's':
            case u'S':
                String(conv, NextArg());
                return;
            case u'p':
                Pointer(conv, NextArg());
                return;
            case u'e':
            case u'E':
            case u'f':
            case u'F':
            case u'g':
            case u'G':
            case u'a':
            case u'A':
                Floating(conv, NextArg());
                return;
            case u'n':
                NextArg();  // never writes through an argument
                return;
            default:
                out_.append(format_.substr(start, pos_ - start));
                return;
        }
    }

    void Pad(int count, char16_t fill) {
        if (count > 0) {
            out_.append(static_cast<std::size_t>(count), fill);
        }
    }

    // Lays out sign or prefix, zero padding and digits within the width.
    void Emit(const Directive& conv, std::u16string_view prefix, std::u16string_view body,
              bool zeroPadAllowed) {
        const int length = static_cast<int>(prefix.size() + body.size());
        const int fill = conv.width - length;
        if (conv.left) {
            out_.append(prefix);
            out_.append(body);
            Pad(fill, u' ');
        } else if (conv.zero && zeroPadAllowed) {
            out_.append(prefix);
            Pad(fill, u'0');
            out_.append(body);
        } else {
            Pad(fill, u' ');
            out_.append(prefix);
            out_.append(body);
        }
    }

    static std::u16string Digits(std::uint64_t value, unsigned base, bool upper) {
        const char16_t* set = upper ? u"0123456789ABCDEF" : u"0123456789abcdef";
        char16_t buffer[64];
        std::size_t n = 0;
        do {
            buffer[n++] = set[value % base];
            value /= base;
        } while (value != 0);
        std::u16string text(buffer, n);
        std::reverse(text.begin(), text.end());
        return text;
    }

    void Integer(const Directive& conv, const FormatArg* arg) {
        if (arg == nullptr) {
            return;
        }
        if (arg->kind() == FormatArg::Kind::Wide || arg->kind() == FormatArg::Kind::Narrow) {
            Directive text = conv;
            text.precision = -1;
            String(text, arg);
            return;
        }
        const int bits = Bits(conv.size);
        const std::uint64_t mask = bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1;
        const bool isSigned = conv.conversion == u'd' || conv.conversion == u'i';
        bool negative = false;
        std::uint64_t magnitude = arg->asUnsigned() & mask;
        if (isSigned) {
            std::int64_t value = static_cast<std::int64_t>(magnitude);
            if (bits < 64 && (magnitude >> (bits - 1)) != 0) {
                value = static_cast<std::int64_t>(magnitude | ~mask);  // sign-extend
            }
            negative = value < 0;
            magnitude = negative ? 0 - static_cast<std::uint64_t>(value)
                                 : static_cast<std::uint64_t>(value);
        }
        unsigned base = 10;
        if (conv.conversion == u'x' || conv.conversion == u'X') {
            base = 16;
        } else if (conv.conversion == u'o') {
            base = 8;
        }
        std::u16string body;
        if (!(conv.precision == 0 && magnitude == 0)) {
            body = Digits(magnitude, base, conv.conversion == u'X');
        }
        if (conv.precision > static_cast<int>(body.size())) {
            body.insert(0, static_cast<std::size_t>(conv.precision) - body.size(), u'0');
        }
        std::u16string prefix;
        if (isSigned) {
            if (negative) {
                prefix = u"-";
            } else if (conv.plus) {
                prefix = u"+";
            } else if (conv.space) {
                prefix = u" ";
            }
        } else if (conv.alt && base == 16 && magnitude != 0) {
            prefix = conv.conversion == u'X' ? u"0X" : u"0x";
        } else if (conv.alt && base == 8 && (body.empty() || body[0] != u'0')) {
            body.insert(0, 1, u'0');
        }
        Emit(conv, prefix, body, conv.precision < 0);
    }

    void Character(const Directive& conv, const FormatArg* arg) {
        if (arg == nullptr) {
            return;
        }
        char16_t c = 0;
        const bool narrow = conv.narrowHint || (conv.conversion == u'C' && !conv.wideHint);
        switch (arg->kind()) {
            case FormatArg::Kind::Wide:
                c = arg->wide().empty() ? char16_t{0} : arg->wide()[0];
                break;
            case FormatArg::Kind::Narrow:
                c = arg->narrow().empty() ? char16_t{0} : ToUtf16(arg->narrow().substr(0, 4))[0];
                break;
            default:
                c = static_cast<char16_t>(arg->asUnsigned() & (narrow ? 0xFF : 0xFFFF));
                break;
        }
        std::u16string body;
        if (c != 0) {
            body.push_back(c);
        }
        Emit(conv, {}, body, false);
    }

    void String(const Directive& conv, const FormatArg* arg) {
        if (arg == nullptr) {
            return;
        }
        std::u16string converted;
        std::u16string_view text;
        switch (arg->kind()) {
            case FormatArg::Kind::Wide:
                text = arg->wide();
                break;
            case FormatArg::Kind::Narrow:
                converted = ToUtf16(arg->narrow());
                text = converted;
                break;
            case FormatArg::Kind::Signed: {
                const std::int64_t value = arg->asSigned();
                const std::uint64_t magnitude = value < 0 ? 0 - static_cast<std::uint64_t>(value)
                                                          : static_cast<std::uint64_t>(value);
                converted = Digits(magnitude, 10, false);
                if (value < 0) {
                    converted.insert(0, 1, u'-');
                }
                text = converted;
                break;
            }
            case FormatArg::Kind::Unsigned:
                converted = Digits(arg->asUnsigned(), 10, false);
                text = converted;
                break;
            case FormatArg::Kind::Double:
            case FormatArg::Kind::Pointer: {
                Directive shown;
                shown.conversion = arg->kind() == FormatArg::Kind::Double ? u'g' : u'p';
                std::u16string saved;
                saved.swap(out_);
                if (shown.conversion == u'g') {
                    Floating(shown, arg);
                } else {
                    Pointer(shown, arg);
                }
                converted.swap(out_);
                out_.swap(saved);
                text = converted;
                break;
            }
        }
        if (conv.precision >= 0 && static_cast<std::size_t>(conv.precision) < text.size()) {
            std::size_t keep = static_cast<std::size_t>(conv.precision);
            if (keep > 0 && text[keep - 1] >= 0xD800 && text[keep - 1] <= 0xDBFF) {
                --keep;  // never split a surrogate pair
            }
            text = text.substr(0, keep);
        }
        Emit(conv, {}, text, false);
    }

    void Pointer(const Directive& conv, const FormatArg* arg) {
        if (arg == nullptr) {
            return;
        }
        if (arg->kind() == FormatArg::Kind::Wide || arg->kind() == FormatArg::Kind::Narrow) {
            Directive text = conv;
            text.precision = -1;
            String(text, arg);
            return;
        }
        std::u16string body = Digits(arg->asUnsigned(), 16, true);
        const std::size_t digits = sizeof(void*) * 2;
        if (body.size() < digits) {
            body.insert(0, digits - body.size(), u'0');
        }
        Emit(conv, {}, body, false);
    }

    void Floating(const Directive& conv, const FormatArg* arg) {
        if (arg == nullptr) {
            return;
        }
        if (arg->kind() == FormatArg::Kind::Wide || arg->kind() == FormatArg::Kind::Narrow) {
            Directive text = conv;
            text.precision = -1;
            String(text, arg);
            return;
        }
        char format[16];
        std::size_t n = 0;
        format[n++] = '%';
        if (conv.left) {
            format[n++] = '-';
        }
        if (conv.plus) {
            format[n++] = '+';
        }
        if (conv.space) {
            format[n++] = ' ';
        }
        if (conv.alt) {
            format[n++] = '#';
        }
        if (conv.zero) {
            format[n++] = '0';
        }
        format[n++] = '*';
        format[n++] = '.';
        format[n++] = '*';
        format[n++] = static_cast<char>(conv.conversion);
        format[n] = '\0';
        const double value = arg->asDouble();
        const int precision = conv.precision < 0 ? 6 : conv.precision;
        char small[128];
        const int needed = std::snprintf(small, sizeof small, format, conv.width, precision, value);
        if (needed < 0) {
            return;
        }
        if (static_cast<std::size_t>(needed) < sizeof small) {
            out_.append(small, small + needed);
            return;
        }
        std::string large(static_cast<std::size_t>(needed) + 1, '\0');
        std::snprintf(large.data(), large.size(), format, conv.width, precision, value);
        large.resize(static_cast<std::size_t>(needed));
        out_.append(large.begin(), large.end());
    }

    std::u16string& out_;
    std::u16string_view format_;
    std::span<const FormatArg> args_;
    std::size_t pos_ = 0;
    std::size_t next_ = 0;
};

}  // namespace

void FormatTo(std::u16string* out, std::u16string_view format, std::span<const FormatArg> args) {
    if (out == nullptr) {
        return;
    }
    Formatter(out, format, args).Run();
}

std::u16string FormatV(std::u16string_view format, std::span<const FormatArg> args) {
    std::u16string out;
    out.reserve(format.size() + 16 * args.size());
    FormatTo(&out, format, args);
    return out;
}

}  // namespace ovsvc
