// What the spooler files of the Win32 backend share: buffers for winspool's
// size protocol, text and multi-string conversions, device modes and
// self-relative descriptors as winspool takes and gives them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/spooler.h"
// After the platform headers, whose names are macros in <windows.h>.
#include "win32_api.h"

namespace platform::win32::spool {

// Caller-sized winspool buffers hold structures with pointers: keep them
// aligned for any of them.
class RecordBuffer {
  public:
    void Resize(::DWORD bytes) {
        words_.assign((static_cast<std::size_t>(bytes) + 7) / 8, 0);
        size_ = bytes;
    }
    // Null while empty, as winspool wants for the size query.
    ::BYTE* data() { return size_ == 0 ? nullptr : reinterpret_cast<::BYTE*>(words_.data()); }
    ::DWORD size() const { return size_; }
    template <typename T>
    const T* As() const {
        return reinterpret_cast<const T*>(words_.data());
    }

  private:
    std::vector<std::uint64_t> words_;
    ::DWORD size_ = 0;
};

// Runs a winspool call of the form call(buffer, size, &needed) until the
// buffer is large enough (the size can grow between two calls). false with
// the call's last error when it fails for another reason.
template <typename Call>
bool FillBuffer(RecordBuffer& buffer, Call call) {
    buffer.Resize(0);
    for (int attempt = 0; attempt < 8; ++attempt) {
        ::DWORD needed = 0;
        if (call(buffer.data(), buffer.size(), &needed)) {
            return true;
        }
        if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.size()) {
            return false;
        }
        buffer.Resize(needed);
    }
    return false;
}

// winspool's declarations take LPWSTR for strings they only read.
inline wchar_t* In(const std::u16string& text) {
    return const_cast<wchar_t*>(Wide(text));
}
// Null for an empty text: "none", "this machine" or "the default".
inline wchar_t* InOrNull(const std::u16string& text) {
    return text.empty() ? nullptr : In(text);
}

// "a\0b\0\0" from {a, b}; empty for none (passed as a null pointer).
inline std::u16string JoinMultiSz(const std::vector<std::u16string>& items) {
    std::u16string joined;
    for (const auto& item : items) {
        joined += item;
        joined.push_back(u'\0');
    }
    if (!joined.empty()) {
        joined.push_back(u'\0');
    }
    return joined;
}

inline std::vector<std::u16string> SplitMultiSz(const wchar_t* text) {
    std::vector<std::u16string> items;
    while (text != nullptr && *text != L'\0') {
        items.push_back(FromWide(text));
        text += items.back().size() + 1;
    }
    return items;
}

// A DEVMODEW as winspool returns it, as the platform's record.
inline std::optional<DevMode> ToDevMode(const ::DEVMODEW* dm) {
    if (dm == nullptr) {
        return std::nullopt;
    }
    return DevMode::Parse(reinterpret_cast<const std::byte*>(dm),
                          static_cast<std::size_t>(dm->dmSize) + dm->dmDriverExtra);
}

// A record as winspool takes it; Pointer() is null when there is none.
class DevModeBytes {
  public:
    // false when the record cannot be written (a name too long for its field).
    bool Set(const std::optional<DevMode>& dm) {
        buffer_.Resize(0);
        if (!dm) {
            return true;
        }
        const auto bytes = dm->Serialize();
        if (bytes.empty()) {
            return false;
        }
        buffer_.Resize(static_cast<::DWORD>(bytes.size()));
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::byte*>(buffer_.data()));
        return true;
    }
    ::DEVMODEW* Pointer() { return reinterpret_cast<::DEVMODEW*>(buffer_.data()); }

  private:
    RecordBuffer buffer_;
};

// The self-relative bytes of any descriptor winspool returns; empty for none
// (or one that cannot be made self-relative).
std::vector<std::byte> SelfRelativeBytes(::PSECURITY_DESCRIPTOR sd);

// A caller's descriptor, checked before winspool reads it: a self-relative
// descriptor whose parts all lie inside its bytes and are well formed.
// Pointer() is null for none.
class DescriptorBytes {
  public:
    // false with ERROR_INVALID_SECURITY_DESCR for a malformed descriptor.
    bool Set(const std::vector<std::byte>& sd);
    ::PSECURITY_DESCRIPTOR Pointer() {
        return buffer_.size() == 0 ? nullptr : static_cast<::PSECURITY_DESCRIPTOR>(buffer_.data());
    }

  private:
    RecordBuffer buffer_;
};

}  // namespace platform::win32::spool
