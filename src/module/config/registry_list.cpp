#include "config/registry_list.h"

#include <cstring>

namespace ovsvc {

using platform::DWORD;

std::vector<std::u16string> StringListFromData(DWORD type, std::span<const std::byte> data) {
    std::vector<std::u16string> list;
    if (type != platform::REG_SZ && type != platform::REG_EXPAND_SZ &&
        type != platform::REG_MULTI_SZ) {
        return list;
    }
    const std::size_t units = data.size() / 2;
    std::u16string current;
    for (std::size_t i = 0; i < units; ++i) {
        char16_t c = 0;
        std::memcpy(&c, data.data() + i * 2, sizeof c);
        if (c != 0) {
            current.push_back(c);
            continue;
        }
        if (current.empty()) {
            return list;  // the empty string ends the list
        }
        list.push_back(std::move(current));
        current.clear();
    }
    if (!current.empty()) {
        list.push_back(std::move(current));
    }
    return list;
}

bool ReadStringList(platform::HKEY key, std::u16string_view valueName,
                    std::vector<std::u16string>* list) {
    list->clear();
    DWORD type = platform::REG_NONE;
    DWORD size = 0;
    if (platform::RegQueryValueExW(key, valueName, &type, nullptr, &size) !=
        static_cast<platform::LSTATUS>(platform::ERROR_SUCCESS)) {
        return false;
    }
    if (size == 0) {
        return true;
    }
    // Room beyond the reported size, in case the value grows between the
    // two calls; the data is terminated here rather than trusted to be.
    std::vector<std::byte> data(static_cast<std::size_t>(size) + 128);
    DWORD got = static_cast<DWORD>(data.size());
    if (platform::RegQueryValueExW(key, valueName, &type, data.data(), &got) !=
        static_cast<platform::LSTATUS>(platform::ERROR_SUCCESS)) {
        return true;
    }
    data.resize(got);
    *list = StringListFromData(type, data);
    return true;
}

platform::LSTATUS WriteStringList(platform::HKEY key, std::u16string_view valueName,
                                  std::span<const std::u16string> list) {
    std::u16string data;
    for (const std::u16string& line : list) {
        data.append(line);
        data.push_back(u'\0');
    }
    return platform::RegSetValueExW(key, valueName, platform::REG_MULTI_SZ, data.data(),
                                    static_cast<DWORD>(data.size() * sizeof(char16_t)));
}

}  // namespace ovsvc
