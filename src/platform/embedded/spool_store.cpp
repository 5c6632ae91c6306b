// Registry helpers, the machine-wide lock, open handles and first-use defaults
// of the embedded spooler.
#include "spool_store.h"

#include "platform/text.h"
#include "registry_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <unordered_map>

#include "platform/machine.h"

namespace platform::spool {

namespace {}  // namespace

std::string ToUtf8(std::u16string_view text) {
    return platform::ToUtf8(text);
}

namespace {

thread_local int t_lockDepth = 0;

struct Handles {
    std::mutex mutex;
    std::uintptr_t next = 0x5000;
    std::unordered_map<std::uintptr_t, HandleState> open;
};

Handles& handles() {
    static Handles* h = new Handles;  // still valid while static destructors close handles
    return *h;
}

struct DefaultsState {
    std::mutex mutex;
    std::string seededRoot;
};

DefaultsState& defaults() {
    static DefaultsState* d = [] {
        auto* state = new DefaultsState;
        machine::OnRootChange([state] {
            std::lock_guard lock(state->mutex);
            state->seededRoot.clear();
        });
        return state;
    }();
    return *d;
}

std::vector<std::byte> StringBytes(std::u16string_view value) {
    std::vector<std::byte> bytes((value.size() + 1) * sizeof(char16_t));
    std::memcpy(bytes.data(), value.data(), value.size() * sizeof(char16_t));
    return bytes;
}

}  // namespace

bool SameName(std::u16string_view a, std::u16string_view b) {
    return NamesEqual(a, b);
}

std::u16string Join(std::u16string_view a, std::u16string_view b) {
    std::u16string out(a);
    out += u'\\';
    out += b;
    return out;
}

// ---- lock ------------------------------------------------------------------------

Lock::Lock(Work work) {
    if (t_lockDepth++ > 0) {
        held_ = true;
        return;
    }
    outer_ = true;
    const std::string path = machine::Root() + "/spool.lock";
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        return;
    }
    while (::flock(fd_, LOCK_EX) != 0) {
        if (errno != EINTR) {
            return;
        }
    }
    held_ = true;
    EnsureDefaults();
    batch_ = std::make_unique<registry_store::Batch>(
        work == kWrites ? registry_store::Batch::kWrite : registry_store::Batch::kRead);
}

DWORD Lock::Commit() {
    return batch_ ? batch_->Commit() : ERROR_SUCCESS;
}

Lock::~Lock() {
    --t_lockDepth;
    batch_.reset();  // committed while the lock is still held
    if (outer_ && fd_ >= 0) {
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
    }
}

// ---- registry helpers -----------------------------------------------------------

ValueMap::ValueMap(std::vector<RegistryValue> values) : values_(std::move(values)) {}

const RegistryValue* ValueMap::Find(std::u16string_view name) const {
    for (const auto& v : values_) {
        if (SameName(v.name, name)) {
            return &v;
        }
    }
    return nullptr;
}

std::u16string ValueMap::String(std::u16string_view name) const {
    const RegistryValue* v = Find(name);
    return v == nullptr ? std::u16string() : AsString(*v);
}

std::u16string AsString(const RegistryValue& value) {
    const RegistryValue* v = &value;
    if (v->type != REG_SZ && v->type != REG_EXPAND_SZ) {
        return {};
    }
    std::u16string out(v->data.size() / sizeof(char16_t), u'\0');
    std::memcpy(out.data(), v->data.data(), out.size() * sizeof(char16_t));
    while (!out.empty() && out.back() == u'\0') {
        out.pop_back();
    }
    return out;
}

DWORD ValueMap::Dword(std::u16string_view name, DWORD fallback) const {
    const RegistryValue* v = Find(name);
    if (v == nullptr || v->type != REG_DWORD || v->data.size() != sizeof(DWORD)) {
        return fallback;
    }
    DWORD out = 0;
    std::memcpy(&out, v->data.data(), sizeof(out));
    return out;
}

std::vector<std::byte> ValueMap::Binary(std::u16string_view name) const {
    const RegistryValue* v = Find(name);
    return v == nullptr ? std::vector<std::byte>{} : v->data;
}

std::vector<std::u16string> ValueMap::MultiString(std::u16string_view name) const {
    const RegistryValue* v = Find(name);
    std::vector<std::u16string> out;
    if (v == nullptr || v->type != REG_MULTI_SZ) {
        return out;
    }
    std::u16string all(v->data.size() / sizeof(char16_t), u'\0');
    std::memcpy(all.data(), v->data.data(), all.size() * sizeof(char16_t));
    std::size_t start = 0;
    while (start < all.size()) {
        const std::size_t end = all.find(u'\0', start);
        const std::size_t stop = end == std::u16string::npos ? all.size() : end;
        if (stop == start) {
            break;
        }
        out.emplace_back(all.substr(start, stop - start));
        start = stop + 1;
    }
    return out;
}

LSTATUS OpenKey(std::u16string_view path, REGSAM access, UniqueKey* key) {
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, access, key);
}

LSTATUS CreateKey(std::u16string_view path, UniqueKey* key) {
    return RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, key,
                           nullptr);
}

LSTATUS ReadValues(HKEY key, ValueMap* values) {
    std::vector<RegistryValue> all;
    const LSTATUS rc = RegEnumValues(key, &all);
    if (rc == ERROR_SUCCESS) {
        *values = ValueMap(std::move(all));
    }
    return rc;
}

LSTATUS ReadSubKeys(std::u16string_view path, std::vector<std::u16string>* names) {
    names->clear();
    UniqueKey key;
    LSTATUS rc = OpenKey(path, KEY_READ, &key);
    if (rc == ERROR_FILE_NOT_FOUND) {
        return ERROR_SUCCESS;
    }
    if (rc != ERROR_SUCCESS) {
        return rc;
    }
    return RegEnumSubKeys(key.get(), names);
}

LSTATUS WriteString(HKEY key, std::u16string_view name, std::u16string_view value) {
    const auto bytes = StringBytes(value);
    return RegSetValueExW(key, name, REG_SZ, bytes.data(), static_cast<DWORD>(bytes.size()));
}

LSTATUS WriteDword(HKEY key, std::u16string_view name, DWORD value) {
    return RegSetValueExW(key, name, REG_DWORD, &value, sizeof(value));
}

LSTATUS WriteBinary(HKEY key, std::u16string_view name, const std::vector<std::byte>& value) {
    return RegSetValueExW(key, name, REG_BINARY, value.data(), static_cast<DWORD>(value.size()));
}

LSTATUS WriteMultiString(HKEY key, std::u16string_view name,
                         const std::vector<std::u16string>& value) {
    std::u16string all;
    for (const auto& s : value) {
        all += s;
        all += u'\0';
    }
    all += u'\0';
    return RegSetValueExW(key, name, REG_MULTI_SZ, all.data(),
                          static_cast<DWORD>(all.size() * sizeof(char16_t)));
}

LSTATUS DeleteKeyTree(std::u16string_view path) {
    const LSTATUS tree = RegDeleteTreeW(HKEY_LOCAL_MACHINE, path);
    if (tree != ERROR_SUCCESS && tree != ERROR_FILE_NOT_FOUND) {
        return tree;
    }
    // Deleting the tree may or may not have taken the key itself.
    const LSTATUS key = RegDeleteKeyW(HKEY_LOCAL_MACHINE, path);
    if (key == ERROR_FILE_NOT_FOUND) {
        return tree;
    }
    return key;
}

LSTATUS CopyTree(std::u16string_view from, std::u16string_view to) {
    UniqueKey source;
    LSTATUS rc = OpenKey(from, KEY_READ, &source);
    if (rc != ERROR_SUCCESS) {
        return rc;
    }
    UniqueKey target;
    rc = CreateKey(to, &target);
    if (rc != ERROR_SUCCESS) {
        return rc;
    }
    std::vector<RegistryValue> values;
    rc = RegEnumValues(source.get(), &values);
    if (rc != ERROR_SUCCESS) {
        return rc;
    }
    for (const auto& v : values) {
        rc = RegSetValueExW(target.get(), v.name, v.type, v.data.data(),
                            static_cast<DWORD>(v.data.size()));
        if (rc != ERROR_SUCCESS) {
            return rc;
        }
    }
    std::vector<std::u16string> subKeys;
    rc = RegEnumSubKeys(source.get(), &subKeys);
    if (rc != ERROR_SUCCESS) {
        return rc;
    }
    for (const auto& sub : subKeys) {
        rc = CopyTree(Join(from, sub), Join(to, sub));
        if (rc != ERROR_SUCCESS) {
            return rc;
        }
    }
    return ERROR_SUCCESS;
}

// ---- handles -----------------------------------------------------------------------

HANDLE NewHandle(HandleState state) {
    Handles& h = handles();
    std::lock_guard lock(h.mutex);
    h.next += 4;
    h.open.emplace(h.next, std::move(state));
    return reinterpret_cast<HANDLE>(h.next);
}

std::optional<HandleState> FindHandle(HANDLE handle) {
    Handles& h = handles();
    std::lock_guard lock(h.mutex);
    auto it = h.open.find(reinterpret_cast<std::uintptr_t>(handle));
    if (it == h.open.end()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return std::nullopt;
    }
    return it->second;
}

bool UpdateHandle(HANDLE handle, const HandleState& state) {
    Handles& h = handles();
    std::lock_guard lock(h.mutex);
    auto it = h.open.find(reinterpret_cast<std::uintptr_t>(handle));
    if (it == h.open.end()) {
        return false;
    }
    it->second = state;
    return true;
}

bool RemoveHandle(HANDLE handle) {
    Handles& h = handles();
    std::lock_guard lock(h.mutex);
    return h.open.erase(reinterpret_cast<std::uintptr_t>(handle)) == 1;
}

void RenameHandles(std::u16string_view from, std::u16string_view to) {
    Handles& h = handles();
    std::lock_guard lock(h.mutex);
    for (auto& [id, state] : h.open) {
        if (state.kind == HandleKind::Printer && SameName(state.name, from)) {
            state.name = to;
        }
    }
}

// ---- paths -----------------------------------------------------------------------------

std::string DriverDirectoryHost() {
    return machine::Root() + "/drive_c/Windows/System32/spool/drivers/x64";
}

std::string DriverStoreHost() {
    return DriverDirectoryHost() + "/3";
}

std::u16string DriverStoreDirectory() {
    return Join(kDriverDirectory, u"3");
}

// ---- first-use defaults ---------------------------------------------------------------

namespace {

constexpr char16_t kDefaultsMarker[] = u"EmbeddedDefaults";
constexpr char16_t kGenericDriver[] = u"Generic / Text Only";

void SeedDefaults() {
    registry_store::Batch batch(registry_store::Batch::kWrite);
    UniqueKey print;
    if (CreateKey(kPrintKey, &print) != ERROR_SUCCESS) {
        return;
    }
    ValueMap values;
    if (ReadValues(print.get(), &values) == ERROR_SUCCESS && values.Dword(kDefaultsMarker) == 1) {
        return;
    }
    UniqueKey key;
    CreateKey(kPrintersKey, &key);
    const std::u16string monitor = Join(kMonitorsKey, u"Local Port");
    if (CreateKey(monitor, &key) == ERROR_SUCCESS) {
        WriteString(key.get(), u"Driver", u"localspl.dll");
    }
    for (const char16_t* port :
         {u"LPT1:", u"LPT2:", u"LPT3:", u"COM1:", u"COM2:", u"FILE:", u"NUL:"}) {
        if (CreateKey(Join(Join(monitor, u"Ports"), port), &key) == ERROR_SUCCESS) {
            WriteString(key.get(), kPortInfoValue, u"Protocol=0\n");
        }
    }
    if (CreateKey(Join(kProcessorsKey, u"winprint"), &key) == ERROR_SUCCESS) {
        WriteString(key.get(), u"Driver", u"winprint.dll");
    }
    std::error_code ec;
    std::filesystem::create_directories(DriverStoreHost(), ec);
    const char* files[] = {"GENTEXT.DLL", "GENTEXT.GPD", "UNIDRV.DLL", "UNIDRVUI.DLL",
                           "UNIDRV.HLP"};
    for (const char* file : files) {
        const std::string path = DriverStoreHost() + "/" + file;
        if (!std::filesystem::exists(path, ec)) {
            std::ofstream(path) << "embedded driver file " << file << '\n';
        }
    }
    if (CreateKey(Join(kDriversKey, kGenericDriver), &key) == ERROR_SUCCESS) {
        WriteString(key.get(), u"Driver", u"GENTEXT.DLL");
        WriteString(key.get(), u"Data File", u"GENTEXT.GPD");
        WriteString(key.get(), u"Configuration File", u"UNIDRVUI.DLL");
        WriteString(key.get(), u"Help File", u"UNIDRV.HLP");
        WriteMultiString(key.get(), u"Dependent Files", {u"UNIDRV.DLL"});
        WriteString(key.get(), u"Datatype", u"RAW");
        WriteString(key.get(), u"Manufacturer", u"Generic");
        WriteString(key.get(), u"Provider", u"Microsoft");
        WriteDword(key.get(), u"Version", 3);
    }
    WriteDword(print.get(), kDefaultsMarker, 1);
}

}  // namespace

void EnsureDefaults() {
    DefaultsState& d = defaults();
    std::lock_guard lock(d.mutex);
    const std::string& root = machine::Root();
    if (d.seededRoot == root) {
        return;
    }
    LastErrorKeeper keep;
    SeedDefaults();
    d.seededRoot = root;
}

}  // namespace platform::spool
