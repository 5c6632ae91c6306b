// The Reg* calls over the real registry (advapi32).
//
// Windows' registry functions return their status without touching the
// thread's last error; the platform's calls also leave that status as the
// last error. Handles of opened keys are the real HKEY values; the two
// predefined roots map to the real predefined keys.
#include "platform/registry.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "platform/registry_text.h"
#include "win32_api.h"

namespace {
// The real HKEY_CLASSES_ROOT. Spelled outside the platform's namespace,
// where the macro's "HKEY" would name the platform's type.
const ::HKEY kNativeClassesRoot = HKEY_CLASSES_ROOT;
}  // namespace

namespace platform {

namespace {

using win32::FromWide;
using win32::Wide;

// The platform's predefined keys carry the 32-bit values Windows gives them;
// 64-bit Windows sign-extends those values, so both spellings map to the real
// predefined key. Every other handle is a real HKEY already.
::HKEY Native(HKEY key) {
    const auto value = reinterpret_cast<std::uintptr_t>(key);
    const auto low = static_cast<std::uint32_t>(value);
    const std::uintptr_t high = value - low;
    const bool predefinedRange = low >= 0x80000000u && low <= 0x80000006u;
    const bool zeroOrSignExtended =
        high == 0 || high == (~std::uintptr_t{0} - std::uintptr_t{0xFFFFFFFFu});
    if (predefinedRange && zeroOrSignExtended) {
        return reinterpret_cast<::HKEY>(
            static_cast<ULONG_PTR>(static_cast<LONG_PTR>(static_cast<std::int32_t>(low))));
    }
    return reinterpret_cast<::HKEY>(key);
}

HKEY FromNative(::HKEY key) {
    return reinterpret_cast<HKEY>(key);
}

bool IsClassesRoot(HKEY key) {
    return Native(key) == kNativeClassesRoot;
}

// The status of a registry call, also left as the thread's last error.
LSTATUS Done(LSTATUS status) {
    ::SetLastError(static_cast<DWORD>(status));
    return status;
}

// Nothing but a result code leaves a call: running out of memory included.
template <class Body>
LSTATUS Guarded(Body body) noexcept {
    try {
        return body();
    } catch (const std::exception&) {
        return Done(ERROR_OUTOFMEMORY);
    }
}

// A C string ends at its first NUL; Windows reads names as C strings.
std::u16string CName(std::u16string_view name) {
    const auto nul = name.find(u'\0');
    return std::u16string(nul == std::u16string_view::npos ? name : name.substr(0, nul));
}

// Windows' own limit on a key name part is not checked the same way by every
// implementation of the registry, so it is checked here before any part of
// the path is created: a longer part never exists.
bool HasOverlongPart(std::u16string_view path) {
    std::size_t start = 0;
    while (start <= path.size()) {
        auto end = path.find(u'\\', start);
        if (end == std::u16string_view::npos) {
            end = path.size();
        }
        if (end - start > kMaxKeyNameLength) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

// Windows' REGSAM and the platform's are the same bits.
::REGSAM NativeAccess(REGSAM access) {
    return static_cast<::REGSAM>(access);
}

::LPDWORD NativeDword(DWORD* value) {
    static_assert(sizeof(DWORD) == sizeof(::DWORD));
    return reinterpret_cast<::LPDWORD>(value);
}

// Reads the value at `index` whatever its size; retries when it changes
// between the size query and the read.
LSTATUS ValueAt(::HKEY key, DWORD index, std::u16string& nameBuffer, RegistryValue* value) {
    constexpr int kAttempts = 64;
    LSTATUS status = ERROR_MORE_DATA;
    for (int attempt = 0; attempt < kAttempts && status == ERROR_MORE_DATA; ++attempt) {
        ::DWORD nameLength = static_cast<::DWORD>(nameBuffer.size());
        ::DWORD size = 0;
        ::DWORD type = REG_NONE;
        status = ::RegEnumValueW(key, index, win32::WideBuffer(nameBuffer), &nameLength, nullptr,
                                 &type, nullptr, &size);
        if (status == ERROR_MORE_DATA) {
            // Only a name longer than any the key held when it was measured.
            nameBuffer.resize(
                std::max<std::size_t>(nameBuffer.size() * 2, kMaxValueNameLength + 1));
            continue;
        }
        if (status != ERROR_SUCCESS) {
            return status;
        }
        value->data.resize(size);
        std::byte scratch{};
        ::DWORD room = size;
        nameLength = static_cast<::DWORD>(nameBuffer.size());
        status = ::RegEnumValueW(
            key, index, win32::WideBuffer(nameBuffer), &nameLength, nullptr, &type,
            reinterpret_cast<::LPBYTE>(size != 0 ? value->data.data() : &scratch), &room);
        if (status == ERROR_SUCCESS) {
            value->name = FromWide(win32::Wide(nameBuffer), nameLength);
            value->type = static_cast<DWORD>(type);
            value->data.resize(room);
        }
    }
    return status;
}

// ---- key paths, for export -----------------------------------------------------

// NtQueryKey's KeyNameInformation: the full name of an open key
// ("\REGISTRY\MACHINE\SOFTWARE\..."), in the case it is stored with.
using NtQueryKeyFunction = LONG(WINAPI*)(HANDLE key, int infoClass, void* info, ULONG length,
                                         ULONG* resultLength);
using RtlNtStatusToDosErrorFunction = ULONG(WINAPI*)(LONG status);
constexpr int kKeyNameInformation = 3;
constexpr LONG kStatusBufferOverflow = static_cast<LONG>(0x80000005);
constexpr LONG kStatusBufferTooSmall = static_cast<LONG>(0xC0000023);

template <class Function>
Function NtdllFunction(const char* name) {
    const ::HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr
               ? reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(ntdll, name)))
               : nullptr;
}

// The one place native status codes become Win32 errors.
DWORD FromNtStatus(LONG status) {
    static const auto convert =
        NtdllFunction<RtlNtStatusToDosErrorFunction>("RtlNtStatusToDosError");
    return convert != nullptr ? static_cast<DWORD>(convert(status)) : ERROR_INVALID_FUNCTION;
}

LSTATUS FullKeyName(::HKEY key, std::u16string* name) {
    static const auto query = NtdllFunction<NtQueryKeyFunction>("NtQueryKey");
    if (query == nullptr) {
        return ERROR_NOT_SUPPORTED;
    }
    std::vector<std::byte> buffer(512);
    for (int attempt = 0; attempt < 8; ++attempt) {
        ULONG needed = 0;
        const LONG status = query(key, kKeyNameInformation, buffer.data(),
                                  static_cast<ULONG>(buffer.size()), &needed);
        if (status == kStatusBufferOverflow || status == kStatusBufferTooSmall) {
            buffer.resize(std::max<std::size_t>(needed, buffer.size() * 2));
            continue;
        }
        if (status < 0) {
            return static_cast<LSTATUS>(FromNtStatus(status));
        }
        ULONG bytes = 0;
        std::memcpy(&bytes, buffer.data(), sizeof bytes);
        const std::size_t available = buffer.size() - sizeof(ULONG);
        bytes = static_cast<ULONG>(std::min<std::size_t>(bytes, available));
        name->assign(bytes / sizeof(char16_t), u'\0');
        std::memcpy(name->data(), buffer.data() + sizeof(ULONG), name->size() * sizeof(char16_t));
        return ERROR_SUCCESS;
    }
    return ERROR_MORE_DATA;
}

bool StartsWithKeyPath(const std::u16string& path, std::u16string_view top) {
    const std::u16string prefix(top);
    if (path.size() < prefix.size() ||
        ::CompareStringOrdinal(Wide(path), static_cast<int>(prefix.size()), Wide(prefix),
                               static_cast<int>(prefix.size()), TRUE) != CSTR_EQUAL) {
        return false;
    }
    return path.size() == prefix.size() || path[prefix.size()] == u'\\';
}

// The key's path as a .reg file names it. Below HKEY_CLASSES_ROOT: the root's
// name and the last parts of the key's full name, as many as `subKey` has;
// for any other handle: its full name below \REGISTRY\MACHINE.
LSTATUS FilePath(bool classes, std::u16string_view subKey, const std::u16string& fullName,
                 std::u16string* path) {
    constexpr std::u16string_view kMachine = u"\\REGISTRY\\MACHINE";
    if (!classes) {
        if (!StartsWithKeyPath(fullName, kMachine)) {
            return ERROR_INVALID_PARAMETER;  // not below a root a file can name
        }
        *path = u"HKEY_LOCAL_MACHINE" + fullName.substr(kMachine.size());
        return ERROR_SUCCESS;
    }
    std::size_t parts = 0;
    for (std::size_t at = 0; at < subKey.size(); ++at) {
        if (subKey[at] != u'\\' && (at == 0 || subKey[at - 1] == u'\\')) {
            ++parts;
        }
    }
    std::size_t start = fullName.size();
    for (; parts > 0; --parts) {
        start = fullName.rfind(u'\\', start - 1);
        if (start == std::u16string::npos || start == 0) {
            return ERROR_INVALID_PARAMETER;
        }
    }
    *path = u"HKEY_CLASSES_ROOT" + fullName.substr(start);
    return ERROR_SUCCESS;
}

LSTATUS ExportKey(::HKEY key, const std::u16string& path, std::u16string* text) {
    if (path.find_first_of(u"\r\n") != std::u16string::npos) {
        return ERROR_INVALID_DATA;  // a section line could not hold this name
    }
    *text += u"[" + path + u"]\r\n";
    std::vector<RegistryValue> values;
    if (LSTATUS error = RegEnumValues(FromNative(key), &values); error != ERROR_SUCCESS) {
        return error;
    }
    for (const auto& value : values) {
        *text += regtext::FormatValueLine(value) + u"\r\n";
    }
    *text += u"\r\n";
    std::vector<std::u16string> children;
    if (LSTATUS error = RegEnumSubKeys(FromNative(key), &children); error != ERROR_SUCCESS) {
        return error;
    }
    for (const auto& name : children) {
        ::HKEY child = nullptr;
        LSTATUS error = ::RegOpenKeyExW(key, Wide(name), 0, KEY_READ, &child);
        if (error == ERROR_SUCCESS) {
            UniqueKey owner(FromNative(child));
            error = ExportKey(child, path + u"\\" + name, text);
        }
        if (error != ERROR_SUCCESS) {
            return error;
        }
    }
    return ERROR_SUCCESS;
}

// ---- import ----------------------------------------------------------------------

// Applies the entries of a checked file in order. Keys stay open while
// consecutive entries name the same key.
class Importer {
  public:
    LSTATUS Apply(const regtext::Entry& entry) {
        switch (entry.kind) {
            case regtext::Entry::Kind::CreateKey:
                return Open(entry, true);
            case regtext::Entry::Kind::DeleteKey: {
                current_.reset();
                const std::u16string subKey = entry.subKey;
                LSTATUS status = ::RegDeleteTreeW(Native(entry.root), Wide(subKey));
                return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;  // already gone
            }
            case regtext::Entry::Kind::SetValue: {
                if (LSTATUS status = Open(entry, true); status != ERROR_SUCCESS) {
                    return status;
                }
                const auto& data = entry.value.data;
                return ::RegSetValueExW(Native(current_.get()), Wide(entry.value.name), 0,
                                        static_cast<::DWORD>(entry.value.type),
                                        reinterpret_cast<const BYTE*>(data.data()),
                                        static_cast<::DWORD>(data.size()));
            }
            case regtext::Entry::Kind::DeleteValue: {
                LSTATUS status = Open(entry, false);
                if (status == ERROR_SUCCESS) {
                    status = ::RegDeleteValueW(Native(current_.get()), Wide(entry.value.name));
                }
                return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;
            }
        }
        return ERROR_INVALID_PARAMETER;
    }

  private:
    LSTATUS Open(const regtext::Entry& entry, bool create) {
        if (current_ && entry.root == root_ && entry.subKey == subKey_ && (created_ || !create)) {
            return ERROR_SUCCESS;
        }
        current_.reset();
        ::HKEY key = nullptr;
        const LSTATUS status =
            create
                ? ::RegCreateKeyExW(Native(entry.root), Wide(entry.subKey), 0, nullptr,
                                    REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &key, nullptr)
                : ::RegOpenKeyExW(Native(entry.root), Wide(entry.subKey), 0, KEY_ALL_ACCESS, &key);
        if (status == ERROR_SUCCESS) {
            current_.reset(FromNative(key));
            root_ = entry.root;
            subKey_ = entry.subKey;
            created_ = create;
        }
        return status;
    }

    UniqueKey current_;
    HKEY root_ = nullptr;
    std::u16string subKey_;
    bool created_ = false;
};

}  // namespace

LSTATUS RegOpenKeyExW(HKEY parent, std::u16string_view subKey, DWORD options, REGSAM access,
                      UniqueKey* result) {
    return Guarded([&]() -> LSTATUS {
        if (result == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        const std::u16string path = CName(subKey);
        ::HKEY opened = nullptr;
        const LSTATUS status = HasOverlongPart(path)
                                   ? ERROR_FILE_NOT_FOUND  // no such key can exist
                                   : ::RegOpenKeyExW(Native(parent), Wide(path), options,
                                                     NativeAccess(access), &opened);
        result->reset(status == ERROR_SUCCESS ? FromNative(opened) : nullptr);
        return Done(status);
    });
}

LSTATUS RegCreateKeyExW(HKEY parent, std::u16string_view subKey, DWORD options, REGSAM access,
                        UniqueKey* result, DWORD* disposition) {
    return Guarded([&]() -> LSTATUS {
        if (result == nullptr) {
            return Done(ERROR_BADKEY);
        }
        const std::u16string path = CName(subKey);
        ::HKEY opened = nullptr;
        ::DWORD how = 0;
        const LSTATUS status =
            HasOverlongPart(path)
                ? ERROR_INVALID_PARAMETER
                : ::RegCreateKeyExW(Native(parent), Wide(path), 0, nullptr, options,
                                    NativeAccess(access), nullptr, &opened, &how);
        result->reset(status == ERROR_SUCCESS ? FromNative(opened) : nullptr);
        if (status == ERROR_SUCCESS && disposition != nullptr) {
            *disposition = static_cast<DWORD>(how);
        }
        return Done(status);
    });
}

LSTATUS RegCloseKey(HKEY key) {
    return Done(::RegCloseKey(Native(key)));
}

LSTATUS RegDeleteKeyW(HKEY parent, std::u16string_view subKey) {
    return Guarded([&]() -> LSTATUS {
        const std::u16string path = CName(subKey);
        return Done(::RegDeleteKeyW(Native(parent), Wide(path)));
    });
}

LSTATUS RegDeleteTreeW(HKEY parent, std::u16string_view subKey) {
    return Guarded([&]() -> LSTATUS {
        const std::u16string path = CName(subKey);
        return Done(::RegDeleteTreeW(Native(parent), path.empty() ? nullptr : Wide(path)));
    });
}

// A failed query leaves the caller's type and size as they were (Windows
// zeroes the size of a missing value); only ERROR_MORE_DATA reports the size
// needed.
LSTATUS RegQueryValueExW(HKEY key, std::u16string_view valueName, DWORD* type, void* data,
                         DWORD* dataSize) {
    return Guarded([&]() -> LSTATUS {
        const std::u16string name = CName(valueName);
        const DWORD typeBefore = type != nullptr ? *type : 0;
        const DWORD sizeBefore = dataSize != nullptr ? *dataSize : 0;
        const LSTATUS status =
            ::RegQueryValueExW(Native(key), Wide(name), nullptr, NativeDword(type),
                               static_cast<::LPBYTE>(data), NativeDword(dataSize));
        if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA) {
            if (type != nullptr) {
                *type = typeBefore;
            }
            if (dataSize != nullptr) {
                *dataSize = sizeBefore;
            }
        }
        return Done(status);
    });
}

LSTATUS RegSetValueExW(HKEY key, std::u16string_view valueName, DWORD type, const void* data,
                       DWORD dataSize) {
    return Guarded([&]() -> LSTATUS {
        const std::u16string name = CName(valueName);
        return Done(::RegSetValueExW(Native(key), Wide(name), 0, static_cast<::DWORD>(type),
                                     static_cast<const BYTE*>(data),
                                     static_cast<::DWORD>(dataSize)));
    });
}

LSTATUS RegDeleteValueW(HKEY key, std::u16string_view valueName) {
    return Guarded([&]() -> LSTATUS {
        const std::u16string name = CName(valueName);
        return Done(::RegDeleteValueW(Native(key), Wide(name)));
    });
}

LSTATUS RegEnumValueW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength, DWORD* type,
                      void* data, DWORD* dataSize) {
    return Done(::RegEnumValueW(Native(key), static_cast<::DWORD>(index),
                                reinterpret_cast<wchar_t*>(name), NativeDword(nameLength), nullptr,
                                NativeDword(type), static_cast<::LPBYTE>(data),
                                NativeDword(dataSize)));
}

LSTATUS RegEnumKeyExW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength) {
    return Done(::RegEnumKeyExW(Native(key), static_cast<::DWORD>(index),
                                reinterpret_cast<wchar_t*>(name), NativeDword(nameLength), nullptr,
                                nullptr, nullptr, nullptr));
}

LSTATUS RegGetValue(HKEY key, std::u16string_view valueName, RegistryValue* value) {
    return Guarded([&]() -> LSTATUS {
        if (value == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        const std::u16string name = CName(valueName);
        const ::HKEY native = Native(key);
        constexpr int kAttempts = 64;
        LSTATUS status = ERROR_MORE_DATA;
        for (int attempt = 0; attempt < kAttempts && status == ERROR_MORE_DATA; ++attempt) {
            ::DWORD type = REG_NONE;
            ::DWORD size = 0;
            status = ::RegQueryValueExW(native, Wide(name), nullptr, &type, nullptr, &size);
            if (status != ERROR_SUCCESS) {
                break;
            }
            // A buffer of at least one byte, so that a value grown to a
            // non-empty one since the size query reports ERROR_MORE_DATA.
            std::vector<std::byte> data(std::max<::DWORD>(size, 1));
            ::DWORD room = static_cast<::DWORD>(data.size());
            status = ::RegQueryValueExW(native, Wide(name), nullptr, &type,
                                        reinterpret_cast<::LPBYTE>(data.data()), &room);
            if (status == ERROR_SUCCESS) {
                data.resize(room);
                value->name = name;
                value->type = static_cast<DWORD>(type);
                value->data = std::move(data);
            }
        }
        return Done(status);
    });
}

LSTATUS RegEnumValues(HKEY key, std::vector<RegistryValue>* values) {
    return Guarded([&]() -> LSTATUS {
        if (values == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        const ::HKEY native = Native(key);
        ::DWORD longestName = 0;
        LSTATUS status =
            ::RegQueryInfoKeyW(native, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, &longestName, nullptr, nullptr, nullptr);
        if (status != ERROR_SUCCESS) {
            return Done(status);
        }
        std::u16string nameBuffer(static_cast<std::size_t>(longestName) + 1, u'\0');
        std::vector<RegistryValue> found;
        for (DWORD index = 0;; ++index) {
            RegistryValue value;
            status = ValueAt(native, index, nameBuffer, &value);
            if (status == ERROR_NO_MORE_ITEMS) {
                break;
            }
            if (status != ERROR_SUCCESS) {
                return Done(status);
            }
            found.push_back(std::move(value));
        }
        *values = std::move(found);
        return Done(ERROR_SUCCESS);
    });
}

LSTATUS RegEnumSubKeys(HKEY key, std::vector<std::u16string>* names) {
    return Guarded([&]() -> LSTATUS {
        if (names == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        const ::HKEY native = Native(key);
        // Room for the longest key name Windows allows, and its terminator.
        std::u16string buffer(kMaxKeyNameLength + 1, u'\0');
        std::vector<std::u16string> found;
        for (::DWORD index = 0;; ++index) {
            ::DWORD length = static_cast<::DWORD>(buffer.size());
            const LSTATUS status = ::RegEnumKeyExW(native, index, win32::WideBuffer(buffer),
                                                   &length, nullptr, nullptr, nullptr, nullptr);
            if (status == ERROR_NO_MORE_ITEMS) {
                break;
            }
            if (status == ERROR_MORE_DATA && buffer.size() < 32768) {
                buffer.resize(buffer.size() * 4);  // a name longer than Windows allows
                --index;
                continue;
            }
            if (status != ERROR_SUCCESS) {
                return Done(status);
            }
            found.push_back(FromWide(Wide(buffer), length));
        }
        *names = std::move(found);
        return Done(ERROR_SUCCESS);
    });
}

// ---- .reg text ---------------------------------------------------------------

// The real registry has no transaction a whole file could run in: the file is
// checked completely first, so a malformed file changes nothing, but when
// the registry itself refuses an entry (access, a deleted key), the entries
// before it stay applied. The message names the refused line.
LSTATUS RegImportText(std::u16string_view text, std::string* error) {
    return Guarded([&]() -> LSTATUS {
        std::string scratch;
        std::string& message = error != nullptr ? *error : scratch;
        message.clear();
        std::vector<regtext::Entry> entries;
        if (!regtext::ParseFile(text, &entries, &message)) {
            return Done(ERROR_INVALID_DATA);
        }
        Importer importer;
        for (const auto& entry : entries) {
            if (LSTATUS status = importer.Apply(entry); status != ERROR_SUCCESS) {
                message = "line " + std::to_string(entry.line) +
                          ": the registry refused it (error " + std::to_string(status) + ")";
                return Done(status);
            }
        }
        return Done(ERROR_SUCCESS);
    });
}

LSTATUS RegExportText(HKEY root, std::u16string_view subKey, std::u16string* text) {
    return Guarded([&]() -> LSTATUS {
        if (text == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        const std::u16string path = CName(subKey);
        ::HKEY opened = nullptr;
        LSTATUS status = ::RegOpenKeyExW(Native(root), Wide(path), 0, KEY_READ, &opened);
        if (status != ERROR_SUCCESS) {
            return Done(status);
        }
        UniqueKey key(FromNative(opened));
        std::u16string keyName;
        std::u16string fullPath;
        if ((status = FullKeyName(opened, &keyName)) != ERROR_SUCCESS ||
            (status = FilePath(IsClassesRoot(root), path, keyName, &fullPath)) != ERROR_SUCCESS) {
            return Done(status);
        }

        std::u16string out = std::u16string(regtext::kHeader5) + u"\r\n\r\n";
        if ((status = ExportKey(opened, fullPath, &out)) != ERROR_SUCCESS) {
            return Done(status);
        }
        *text = std::move(out);
        return Done(ERROR_SUCCESS);
    });
}

}  // namespace platform
