#include "platform/text.h"

#include <cstdint>

namespace platform {

namespace {

void AppendUtf8(std::string* out, std::uint32_t cp) {
    if (cp < 0x80) {
        out->push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

std::string ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::uint32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        AppendUtf8(&out, c);
    }
    return out;
}

std::u16string ToUtf16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto b = static_cast<unsigned char>(text[i]);
        std::uint32_t cp = 0xFFFD;
        std::size_t len = 1;
        if (b < 0x80) {
            cp = b;
        } else if ((b >> 5) == 0x6) {
            len = 2;
        } else if ((b >> 4) == 0xE) {
            len = 3;
        } else if ((b >> 3) == 0x1E) {
            len = 4;
        }
        if (len > 1) {
            bool ok = i + len <= text.size();
            std::uint32_t v = b & (0x7F >> len);
            for (std::size_t k = 1; ok && k < len; ++k) {
                const auto n = static_cast<unsigned char>(text[i + k]);
                ok = (n & 0xC0) == 0x80;
                v = (v << 6) | (n & 0x3F);
            }
            static constexpr std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
            if (ok && v >= kMin[len] && v <= 0x10FFFF && (v < 0xD800 || v > 0xDFFF)) {
                cp = v;
            } else {
                len = 1;
            }
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += len;
    }
    return out;
}

}  // namespace platform
