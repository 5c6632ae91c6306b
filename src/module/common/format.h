// printf-style formatting of UTF-16 text, type-safe.
//
// The module's messages are printf formats as the Windows wide-character
// printf reads them: %s and %ls take a UTF-16 string, %S and %hs a narrow
// (UTF-8) one; %d %i %u %x %X %o %c %p %%, flags "-+ #0", width and precision
// (also "*"), and the length modifiers h, l, ll, I64 and I32, which only
// choose how many bits of an integer are shown. An argument of the wrong
// kind is shown as well as it can be; a missing argument shows nothing. No
// input can make formatting fail.
//
// Details: a string given for a number (or a number for a string) is shown
// as text; %n writes nothing; an unknown or unfinished conversion is copied
// as written; widths and precisions above 4096 count as 4096.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace ovsvc {

class FormatArg {
public:
    enum class Kind { Signed, Unsigned, Double, Wide, Narrow, Pointer };

    template <typename T>
        requires(std::is_integral_v<T> && std::is_signed_v<T>)
    FormatArg(T v) : kind_(Kind::Signed), i_(v) {}  // NOLINT(google-explicit-constructor)
    template <typename T>
        requires(std::is_integral_v<T> && std::is_unsigned_v<T> && !std::is_same_v<T, bool> &&
                 !std::is_same_v<T, char16_t>)
    FormatArg(T v) : kind_(Kind::Unsigned), u_(v) {}  // NOLINT
    FormatArg(bool v) : kind_(Kind::Unsigned), u_(v ? 1 : 0) {}                        // NOLINT
    FormatArg(char16_t v) : kind_(Kind::Unsigned), u_(v) {}                            // NOLINT
    FormatArg(double v) : kind_(Kind::Double), d_(v) {}                                // NOLINT
    FormatArg(const char16_t* v) : kind_(Kind::Wide), w_(v ? v : u"(null)") {}        // NOLINT
    FormatArg(std::u16string_view v) : kind_(Kind::Wide), w_(v) {}                    // NOLINT
    FormatArg(const std::u16string& v) : kind_(Kind::Wide), w_(v) {}                  // NOLINT
    FormatArg(const char* v) : kind_(Kind::Narrow), n_(v ? v : "(null)") {}            // NOLINT
    FormatArg(std::string_view v) : kind_(Kind::Narrow), n_(v) {}                     // NOLINT
    FormatArg(const std::string& v) : kind_(Kind::Narrow), n_(v) {}                   // NOLINT
    FormatArg(const void* v) : kind_(Kind::Pointer), p_(v) {}                          // NOLINT

    Kind kind() const { return kind_; }
    std::int64_t asSigned() const;
    std::uint64_t asUnsigned() const;
    double asDouble() const;
    std::u16string_view wide() const { return w_; }
    std::string_view narrow() const { return n_; }
    const void* pointer() const { return p_; }

private:
    Kind kind_;
    std::int64_t i_ = 0;
    std::uint64_t u_ = 0;
    double d_ = 0;
    std::u16string_view w_;
    std::string_view n_;
    const void* p_ = nullptr;
};

// Appends the formatted text to *out.
void FormatTo(std::u16string* out, std::u16string_view format, std::span<const FormatArg> args);
std::u16string FormatV(std::u16string_view format, std::span<const FormatArg> args);

template <typename... Args>
std::u16string Format(std::u16string_view format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        return FormatV(format, {});
    } else {
        const FormatArg list[] = {FormatArg(args)...};
        return FormatV(format, list);
    }
}

}  // namespace ovsvc
