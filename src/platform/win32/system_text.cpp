// UUIDs, the system directory, the ANSI code page and startup information
// from Windows itself.
#include "platform/kernel.h"
#include "platform/process.h"
#include "win32_api.h"

#include <rpc.h>

namespace platform {

long UuidCreate(GUID* uuid) {
    ::UUID native{};
    const RPC_STATUS status = ::UuidCreate(&native);
    uuid->Data1 = native.Data1;
    uuid->Data2 = native.Data2;
    uuid->Data3 = native.Data3;
    for (int i = 0; i < 8; ++i) {
        uuid->Data4[i] = native.Data4[i];
    }
    return status;
}

std::optional<std::u16string> GetSystemDirectoryW() {
    wchar_t buffer[MAX_PATH + 1] = {};
    const ::UINT n = ::GetSystemDirectoryW(buffer, MAX_PATH + 1);
    if (n == 0 || n > MAX_PATH) {
        return std::nullopt;
    }
    return win32::FromWide(buffer);
}

std::u16string AnsiToWide(std::string_view bytes) {
    if (bytes.empty()) {
        return {};
    }
    const int size = static_cast<int>(bytes.size());
    const int n = ::MultiByteToWideChar(CP_ACP, 0, bytes.data(), size, nullptr, 0);
    std::u16string text(static_cast<std::size_t>(n), u'\0');
    ::MultiByteToWideChar(CP_ACP, 0, bytes.data(), size, win32::WideBuffer(text), n);
    return text;
}

std::string WideToAnsi(std::u16string_view text) {
    if (text.empty()) {
        return {};
    }
    const std::wstring wide(text.begin(), text.end());
    const int size = static_cast<int>(wide.size());
    const int n = ::WideCharToMultiByte(CP_ACP, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<std::size_t>(n), '\0');
    ::WideCharToMultiByte(CP_ACP, 0, wide.data(), size, bytes.data(), n, nullptr, nullptr);
    return bytes;
}

void GetStartupInfoW(STARTUPINFOW* startup) {
    ::STARTUPINFOW native{};
    native.cb = sizeof native;
    ::GetStartupInfoW(&native);
    *startup = STARTUPINFOW{};
    startup->dwFlags = native.dwFlags;
    startup->wShowWindow = native.wShowWindow;
}

}  // namespace platform
