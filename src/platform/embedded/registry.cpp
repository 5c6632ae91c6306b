// The Reg* calls over the registry store: handles, access rights, argument
// checks and the thread's last error.
#include "platform/registry.h"

#include <cstring>
#include <exception>

#include "platform/registry_text.h"
#include "registry_store.h"

namespace platform {

namespace {

using registry_store::KeyId;
using registry_store::Store;
using registry_store::Transaction;

constexpr REGSAM kGenericRead = 0x80000000;
constexpr REGSAM kGenericWrite = 0x40000000;
constexpr REGSAM kGenericExecute = 0x20000000;
constexpr REGSAM kGenericAll = 0x10000000;
constexpr REGSAM kMaximumAllowed = 0x02000000;

LSTATUS Done(DWORD error) {
    SetLastError(error);
    return static_cast<LSTATUS>(error);
}

REGSAM MapAccess(REGSAM access) {
    REGSAM mapped = access & KEY_ALL_ACCESS;
    if ((access & (kGenericRead | kGenericExecute)) != 0) {
        mapped |= KEY_READ;
    }
    if ((access & kGenericWrite) != 0) {
        mapped |= KEY_WRITE;
    }
    if ((access & (kGenericAll | kMaximumAllowed)) != 0) {
        mapped |= KEY_ALL_ACCESS;
    }
    return mapped;
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

bool IsPredefined(HKEY key) {
    return key == HKEY_LOCAL_MACHINE || key == HKEY_CLASSES_ROOT;
}

// Locks the store, opens it and finds the key behind a handle.
class Call {
  public:
    explicit Call(HKEY key) : lock_(Store::Get().mutex()), store_(Store::Get()) {
        if (key == nullptr) {
            status_ = ERROR_INVALID_HANDLE;
            return;
        }
        if (!IsPredefined(key) &&
            (!store_.handles().contains(key) || key->generation != store_.generation())) {
            status_ = ERROR_INVALID_HANDLE;
            return;
        }
        status_ = store_.Open();
        if (status_ != ERROR_SUCCESS) {
            return;
        }
        if (key == HKEY_LOCAL_MACHINE) {
            id_ = registry_store::kMachineKey;
            access_ = KEY_ALL_ACCESS;
        } else if (key == HKEY_CLASSES_ROOT) {
            status_ = store_.ClassesRoot(&id_);
            access_ = KEY_ALL_ACCESS;
        } else {
            object_ = key;
            id_ = key->id;
            access_ = key->access;
        }
    }
    DWORD status() const { return status_; }
    // The handle's enumeration cursor (none for the predefined keys).
    EnumCursor* cursor(EnumCursor RegistryKeyObject::*which) {
        return object_ != nullptr ? &(object_->*which) : nullptr;
    }
    bool Allows(REGSAM needed) const { return (access_ & needed) == needed; }
    KeyId id() const { return id_; }
    Store& store() { return store_; }

    HKEY NewHandle(KeyId id, REGSAM access) {
        auto* object = new RegistryKeyObject;
        object->id = id;
        object->access = MapAccess(access);
        object->generation = store_.generation();
        store_.handles().insert(object);
        return object;
    }

  private:
    std::lock_guard<std::recursive_mutex> lock_;
    Store& store_;
    DWORD status_ = ERROR_SUCCESS;
    RegistryKeyObject* object_ = nullptr;
    KeyId id_ = 0;
    REGSAM access_ = 0;
};

// A C string ends at its first NUL.
std::u16string_view CName(std::u16string_view name) {
    const auto nul = name.find(u'\0');
    return nul == std::u16string_view::npos ? name : name.substr(0, nul);
}

}  // namespace

LSTATUS RegOpenKeyExW(HKEY parent, std::u16string_view subKey, DWORD /*options*/, REGSAM access,
                      UniqueKey* result) {
    return Guarded([&]() -> LSTATUS {
        if (result == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        HKEY opened = nullptr;
        DWORD error = ERROR_SUCCESS;
        {
            Call call(parent);
            error = call.status();
            KeyId id = 0;
            if (error == ERROR_SUCCESS) {
                error = call.store().Resolve(call.id(), subKey, &id);
            }
            if (error == ERROR_SUCCESS) {
                opened = call.NewHandle(id, access);
            }
        }
        result->reset(opened);
        return Done(error);
    });
}

LSTATUS RegCreateKeyExW(HKEY parent, std::u16string_view subKey, DWORD /*options*/, REGSAM access,
                        UniqueKey* result, DWORD* disposition) {
    return Guarded([&]() -> LSTATUS {
        if (result == nullptr) {
            return Done(ERROR_BADKEY);
        }
        HKEY opened = nullptr;
        DWORD error = ERROR_SUCCESS;
        bool created = false;
        {
            // As on Windows, the parent handle's own rights do not matter here.
            Call call(parent);
            error = call.status();
            KeyId id = 0;
            if (error == ERROR_SUCCESS) {
                error = call.store().Create(call.id(), subKey, &id, &created);
            }
            if (error == ERROR_SUCCESS) {
                opened = call.NewHandle(id, access);
            }
        }
        result->reset(opened);
        if (error == ERROR_SUCCESS && disposition != nullptr) {
            *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
        }
        return Done(error);
    });
}

LSTATUS RegCloseKey(HKEY key) {
    if (IsPredefined(key)) {
        return Done(ERROR_SUCCESS);
    }
    Store& store = Store::Get();
    std::lock_guard lock(store.mutex());
    if (key == nullptr || store.handles().erase(key) == 0) {
        return Done(ERROR_INVALID_HANDLE);
    }
    delete key;
    return Done(ERROR_SUCCESS);
}

LSTATUS RegDeleteKeyW(HKEY parent, std::u16string_view subKey) {
    return Guarded([&]() -> LSTATUS {
        Call call(parent);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        KeyId id = 0;
        DWORD error = call.store().Resolve(call.id(), subKey, &id);
        if (error == ERROR_SUCCESS) {
            error = call.store().DeleteKey(id);
        }
        return Done(error);
    });
}

LSTATUS RegDeleteTreeW(HKEY parent, std::u16string_view subKey) {
    return Guarded([&]() -> LSTATUS {
        Call call(parent);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        const bool own = CName(subKey).empty();
        const REGSAM needed =
            KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | (own ? KEY_SET_VALUE : REGSAM{0});
        if (!call.Allows(needed)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        KeyId id = call.id();
        DWORD error = own ? ERROR_SUCCESS : call.store().Resolve(call.id(), subKey, &id);
        if (error == ERROR_SUCCESS) {
            error = call.store().DeleteTree(id, !own);
        }
        return Done(error);
    });
}

LSTATUS RegQueryValueExW(HKEY key, std::u16string_view valueName, DWORD* type, void* data,
                         DWORD* dataSize) {
    return Guarded([&]() -> LSTATUS {
        Call call(key);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        if (data != nullptr && dataSize == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        if (!call.Allows(KEY_QUERY_VALUE)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        return Done(call.store().Query(call.id(), CName(valueName), type, data, dataSize));
    });
}

LSTATUS RegSetValueExW(HKEY key, std::u16string_view valueName, DWORD type, const void* data,
                       DWORD dataSize) {
    return Guarded([&]() -> LSTATUS {
        Call call(key);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        valueName = CName(valueName);
        if (valueName.size() > kMaxValueNameLength) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        if (data == nullptr && dataSize != 0) {
            return Done(ERROR_NOACCESS);
        }
        if (!call.Allows(KEY_SET_VALUE)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        return Done(call.store().SetValue(call.id(), valueName, type, data, dataSize));
    });
}

LSTATUS RegDeleteValueW(HKEY key, std::u16string_view valueName) {
    return Guarded([&]() -> LSTATUS {
        Call call(key);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        if (!call.Allows(KEY_SET_VALUE)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        return Done(call.store().DeleteValue(call.id(), CName(valueName)));
    });
}

LSTATUS RegEnumValueW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength, DWORD* type,
                      void* data, DWORD* dataSize) {
    return Guarded([&]() -> LSTATUS {
        Call call(key);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        if (name == nullptr || nameLength == nullptr || (data != nullptr && dataSize == nullptr)) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        if (!call.Allows(KEY_QUERY_VALUE)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        RegistryValue value;
        if (DWORD error = call.store().ValueAt(call.id(), index, &value,
                                               call.cursor(&RegistryKeyObject::values));
            error != ERROR_SUCCESS) {
            return Done(error);
        }
        const auto size = static_cast<DWORD>(value.data.size());
        if (type != nullptr) {
            *type = value.type;
        }
        if (dataSize != nullptr) {
            const DWORD room = *dataSize;
            *dataSize = size;
            if (value.name.size() >= *nameLength) {
                return Done(ERROR_MORE_DATA);  // name and data left untouched
            }
            if (data != nullptr && room < size) {
                std::memcpy(name, value.name.data(), value.name.size() * sizeof(char16_t));
                name[value.name.size()] = u'\0';
                *nameLength = static_cast<DWORD>(value.name.size());
                return Done(ERROR_MORE_DATA);
            }
        } else if (value.name.size() >= *nameLength) {
            return Done(ERROR_MORE_DATA);
        }
        std::memcpy(name, value.name.data(), value.name.size() * sizeof(char16_t));
        name[value.name.size()] = u'\0';
        *nameLength = static_cast<DWORD>(value.name.size());
        if (data != nullptr && size != 0) {
            std::memcpy(data, value.data.data(), size);
        }
        return Done(ERROR_SUCCESS);
    });
}

LSTATUS RegEnumKeyExW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength) {
    return Guarded([&]() -> LSTATUS {
        Call call(key);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        if (name == nullptr || nameLength == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        if (!call.Allows(KEY_ENUMERATE_SUB_KEYS)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        std::u16string found;
        if (DWORD error = call.store().SubKeyAt(call.id(), index, &found,
                                                call.cursor(&RegistryKeyObject::subKeys));
            error != ERROR_SUCCESS) {
            return Done(error);
        }
        if (found.size() >= *nameLength) {
            return Done(ERROR_MORE_DATA);
        }
        std::memcpy(name, found.data(), found.size() * sizeof(char16_t));
        name[found.size()] = u'\0';
        *nameLength = static_cast<DWORD>(found.size());
        return Done(ERROR_SUCCESS);
    });
}

LSTATUS RegGetValue(HKEY key, std::u16string_view valueName, RegistryValue* value) {
    return Guarded([&]() -> LSTATUS {
        Call call(key);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        if (value == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        if (!call.Allows(KEY_QUERY_VALUE)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        return Done(call.store().GetValue(call.id(), CName(valueName), value));
    });
}

LSTATUS RegEnumValues(HKEY key, std::vector<RegistryValue>* values) {
    return Guarded([&]() -> LSTATUS {
        Call call(key);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        if (values == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        if (!call.Allows(KEY_QUERY_VALUE)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        return Done(call.store().Values(call.id(), values));
    });
}

LSTATUS RegEnumSubKeys(HKEY key, std::vector<std::u16string>* names) {
    return Guarded([&]() -> LSTATUS {
        Call call(key);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        if (names == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        if (!call.Allows(KEY_ENUMERATE_SUB_KEYS)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        std::vector<std::pair<KeyId, std::u16string>> keys;
        const DWORD error = call.store().SubKeys(call.id(), &keys);
        names->clear();
        for (auto& k : keys) {
            names->push_back(std::move(k.second));
        }
        return Done(error);
    });
}

// ---- .reg text ---------------------------------------------------------------

namespace {

DWORD ApplyEntry(Store& store, KeyId classes, const regtext::Entry& entry) {
    const KeyId root = entry.root == HKEY_CLASSES_ROOT ? classes : registry_store::kMachineKey;
    KeyId key = 0;
    bool created = false;
    switch (entry.kind) {
        case regtext::Entry::Kind::CreateKey:
            return store.Create(root, entry.subKey, &key, &created);
        case regtext::Entry::Kind::DeleteKey: {
            const DWORD error = store.Resolve(root, entry.subKey, &key);
            if (error == ERROR_FILE_NOT_FOUND) {
                return ERROR_SUCCESS;  // already gone
            }
            return error == ERROR_SUCCESS ? store.DeleteTree(key, true) : error;
        }
        case regtext::Entry::Kind::SetValue: {
            DWORD error = store.Create(root, entry.subKey, &key, &created);
            if (error == ERROR_SUCCESS) {
                error =
                    store.SetValue(key, entry.value.name, entry.value.type, entry.value.data.data(),
                                   static_cast<DWORD>(entry.value.data.size()));
            }
            return error;
        }
        case regtext::Entry::Kind::DeleteValue: {
            DWORD error = store.Resolve(root, entry.subKey, &key);
            if (error == ERROR_SUCCESS) {
                error = store.DeleteValue(key, entry.value.name);
            }
            return error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : error;
        }
    }
    return ERROR_INVALID_PARAMETER;
}

DWORD ExportKey(Store& store, KeyId key, const std::u16string& path, std::u16string* text) {
    if (path.find_first_of(u"\r\n") != std::u16string::npos) {
        return ERROR_INVALID_DATA;  // a section line could not hold this name
    }
    *text += u"[" + path + u"]\r\n";
    std::vector<RegistryValue> values;
    if (DWORD error = store.Values(key, &values); error != ERROR_SUCCESS) {
        return error;
    }
    for (const auto& value : values) {
        *text += regtext::FormatValueLine(value) + u"\r\n";
    }
    *text += u"\r\n";
    std::vector<std::pair<KeyId, std::u16string>> children;
    if (DWORD error = store.SubKeys(key, &children); error != ERROR_SUCCESS) {
        return error;
    }
    for (const auto& [id, name] : children) {
        if (DWORD error = ExportKey(store, id, path + u"\\" + name, text); error != ERROR_SUCCESS) {
            return error;
        }
    }
    return ERROR_SUCCESS;
}

}  // namespace

LSTATUS RegImportText(std::u16string_view text, std::string* error) {
    return Guarded([&]() -> LSTATUS {
        std::string scratch;
        std::string& message = error != nullptr ? *error : scratch;
        message.clear();
        std::vector<regtext::Entry> entries;
        if (!regtext::ParseFile(text, &entries, &message)) {
            return Done(ERROR_INVALID_DATA);
        }
        Call call(HKEY_CLASSES_ROOT);
        if (call.status() != ERROR_SUCCESS) {
            message = "the registry cannot be opened (error " + std::to_string(call.status()) + ")";
            return Done(call.status());
        }
        Store& store = call.store();
        Transaction txn(store, true);
        if (txn.status() != ERROR_SUCCESS) {
            message = "the registry cannot be written (error " + std::to_string(txn.status()) + ")";
            return Done(txn.status());
        }
        for (const auto& entry : entries) {
            if (DWORD status = ApplyEntry(store, call.id(), entry); status != ERROR_SUCCESS) {
                message = "line " + std::to_string(entry.line) +
                          ": the registry refused it (error " + std::to_string(status) + ")";
                return Done(status);  // the transaction rolls back
            }
        }
        if (DWORD status = txn.Commit(); status != ERROR_SUCCESS) {
            message = "the registry cannot be written (error " + std::to_string(status) + ")";
            return Done(status);
        }
        return Done(ERROR_SUCCESS);
    });
}

LSTATUS RegExportText(HKEY root, std::u16string_view subKey, std::u16string* text) {
    return Guarded([&]() -> LSTATUS {
        if (text == nullptr) {
            return Done(ERROR_INVALID_PARAMETER);
        }
        Call call(root);
        if (call.status() != ERROR_SUCCESS) {
            return Done(call.status());
        }
        if (!call.Allows(KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS)) {
            return Done(ERROR_ACCESS_DENIED);
        }
        Store& store = call.store();
        Transaction txn(store, false);  // one consistent picture of the subtree
        if (txn.status() != ERROR_SUCCESS) {
            return Done(txn.status());
        }
        KeyId key = 0;
        if (DWORD error = store.Resolve(call.id(), subKey, &key); error != ERROR_SUCCESS) {
            return Done(error);
        }
        KeyId top = registry_store::kMachineKey;
        std::u16string path = u"HKEY_LOCAL_MACHINE";
        KeyId classes = 0;
        if (root == HKEY_CLASSES_ROOT && store.ClassesRoot(&classes) == ERROR_SUCCESS) {
            top = classes;
            path = u"HKEY_CLASSES_ROOT";
        }
        std::u16string below;
        if (DWORD error = store.PathBelow(key, top, &below); error != ERROR_SUCCESS) {
            return Done(error);
        }
        if (!below.empty()) {
            path += u"\\" + below;
        }
        std::u16string out = std::u16string(regtext::kHeader5) + u"\r\n\r\n";
        if (DWORD error = ExportKey(store, key, path, &out); error != ERROR_SUCCESS) {
            return Done(error);
        }
        if (DWORD error = txn.Commit(); error != ERROR_SUCCESS) {
            return Done(error);
        }
        *text = std::move(out);
        return Done(ERROR_SUCCESS);
    });
}

}  // namespace platform
