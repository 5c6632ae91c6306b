// UUIDs, the system directory, the ANSI code page and startup information
// of the embedded machine.
#include <filesystem>
#include <fstream>

#include "platform/kernel.h"
#include "platform/machine.h"
#include "platform/process.h"

namespace platform {

namespace {

// Windows-1252 from 0x80 to 0x9F; the rest of the code page is Latin-1.
constexpr char16_t kHigh1252[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

}  // namespace

long UuidCreate(GUID* uuid) {
    unsigned char bytes[16] = {};
    std::ifstream random("/dev/urandom", std::ios::binary);
    random.read(reinterpret_cast<char*>(bytes), sizeof bytes);
    if (!random) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return static_cast<long>(ERROR_NOT_ENOUGH_MEMORY);
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    uuid->Data1 =
        static_cast<std::uint32_t>(bytes[0]) << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
    uuid->Data2 = static_cast<std::uint16_t>(bytes[4] << 8 | bytes[5]);
    uuid->Data3 = static_cast<std::uint16_t>(bytes[6] << 8 | bytes[7]);
    for (int i = 0; i < 8; ++i) {
        uuid->Data4[i] = bytes[8 + i];
    }
    SetLastError(ERROR_SUCCESS);
    return RPC_S_OK;
}

std::optional<std::u16string> GetSystemDirectoryW() {
    std::error_code ec;
    std::filesystem::create_directories(machine::Root() + "/drive_c/Windows/System32", ec);
    if (ec) {
        SetLastError(ERROR_ACCESS_DENIED);
        return std::nullopt;
    }
    SetLastError(ERROR_SUCCESS);
    return u"C:\\Windows\\System32";
}

std::u16string AnsiToWide(std::string_view bytes) {
    std::u16string text;
    text.reserve(bytes.size());
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        text.push_back(b >= 0x80 && b < 0xA0 ? kHigh1252[b - 0x80] : static_cast<char16_t>(b));
    }
    return text;
}

std::string WideToAnsi(std::u16string_view text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (const char16_t c : text) {
        char byte = '?';
        if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) {
            byte = static_cast<char>(c);
        } else {
            for (unsigned i = 0; i < 32; ++i) {
                if (kHigh1252[i] == c) {
                    byte = static_cast<char>(0x80 + i);
                    break;
                }
            }
        }
        bytes.push_back(byte);
    }
    return bytes;
}

void GetStartupInfoW(STARTUPINFOW* startup) {
    *startup = STARTUPINFOW{};
}

}  // namespace platform
