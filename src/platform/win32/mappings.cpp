// Page-file-backed file mappings and their views.
#include "platform/kernel.h"

#include "win32_api.h"

#include "kernel_internal.h"

namespace platform {

namespace {

constexpr std::uint64_t kAllocationGranularity = 65536;
constexpr ::DWORD kErrorMappedAlignment = 1132;

// The size a mapping was created with (NtQuerySection), when the handle has
// the right to query it (FILE_MAP_ALL_ACCESS has).
std::optional<std::uint64_t> SectionSize(HANDLE mapping) {
    struct SectionBasicInformation {
        void* base;
        ::ULONG attributes;
        ::LARGE_INTEGER size;
    };
    using QuerySection = ::LONG(WINAPI*)(HANDLE, int, void*, ::SIZE_T, ::SIZE_T*);
    static const auto query = reinterpret_cast<QuerySection>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySection")));
    SectionBasicInformation info{};
    if (query == nullptr || query(mapping, 0, &info, sizeof(info), nullptr) < 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(info.size.QuadPart);
}

}  // namespace

UniqueMapping CreateFileMappingW(const SecurityAttributes* attributes, DWORD protect,
                                 std::uint64_t maximumSize, std::u16string_view name) {
    if (protect != PAGE_READONLY && protect != PAGE_READWRITE) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return UniqueMapping();
    }
    if (maximumSize == 0) {  // a page-file mapping needs a size
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return UniqueMapping();
    }
    if (const DWORD error = win32::CheckObjectName(name); error != ERROR_SUCCESS) {
        ::SetLastError(error);
        return UniqueMapping();
    }
    win32::Win32SecurityAttributes security;
    if (!security.Build(attributes)) {
        return UniqueMapping();
    }
    const win32::ObjectName objectName(name);
    UniqueMapping mapping(::CreateFileMappingW(
        INVALID_HANDLE_VALUE, security.get(), protect, static_cast<::DWORD>(maximumSize >> 32),
        static_cast<::DWORD>(maximumSize & 0xFFFFFFFFu), objectName.get()));
    if (mapping && ::GetLastError() != ERROR_ALREADY_EXISTS) {
        ::SetLastError(ERROR_SUCCESS);
    }
    return mapping;
}

UniqueMapping OpenFileMappingW(DWORD desiredAccess, bool inheritHandle, std::u16string_view name) {
    if (const DWORD error = win32::CheckObjectName(name); error != ERROR_SUCCESS) {
        ::SetLastError(error);
        return UniqueMapping();
    }
    const win32::ObjectName objectName(name);
    UniqueMapping mapping(
        ::OpenFileMappingW(desiredAccess, inheritHandle ? TRUE : FALSE, objectName.get()));
    if (mapping) {
        ::SetLastError(ERROR_SUCCESS);
    }
    return mapping;
}

MappedView MapViewOfFile(HANDLE mapping, DWORD desiredAccess, std::uint64_t offset,
                         std::size_t bytes) {
    if (win32::IsNoHandle(mapping)) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return MappedView();
    }
    if (desiredAccess == 0) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return MappedView();
    }
    if (offset % kAllocationGranularity != 0) {
        ::SetLastError(kErrorMappedAlignment);
        return MappedView();
    }
    const std::optional<std::uint64_t> size = SectionSize(mapping);
    if (size && (offset >= *size || bytes > *size - offset)) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return MappedView();
    }
    void* base = ::MapViewOfFile(mapping, desiredAccess, static_cast<::DWORD>(offset >> 32),
                                 static_cast<::DWORD>(offset & 0xFFFFFFFFu), bytes);
    if (base == nullptr) {
        return MappedView();
    }
    std::size_t viewSize = bytes;
    if (viewSize == 0 && size) {
        viewSize = static_cast<std::size_t>(*size - offset);
    } else if (viewSize == 0) {
        // Without the right to query the mapping, the view's pages tell its size.
        ::MEMORY_BASIC_INFORMATION region{};
        if (::VirtualQuery(base, &region, sizeof(region)) != 0) {
            viewSize = region.RegionSize;
        }
    }
    ::SetLastError(ERROR_SUCCESS);
    return MappedView(base, viewSize);
}

bool UnmapViewOfFile(const void* base) {
    return ::UnmapViewOfFile(base) != FALSE;
}

}  // namespace platform
