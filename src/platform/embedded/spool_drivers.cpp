// Printer drivers: the driver directory, the driver store, and the drivers
// installed for "Windows x64".
#include <cstring>
#include <filesystem>

#include "fault.h"
#include "platform/machine.h"
#include "spool_caller.h"
#include "spool_store.h"

namespace platform {

using namespace spool;

namespace fs = std::filesystem;

namespace {

bool KnownEnvironment(std::u16string_view environment) {
    return environment.empty() || SameName(environment, kEnvironmentX64);
}

bool ValidLevel(DWORD level) {
    return level >= 1 && level <= 6;
}

std::u16string BaseName(std::u16string_view path) {
    const std::size_t cut = path.find_last_of(u"\\/");
    return std::u16string(cut == std::u16string_view::npos ? path : path.substr(cut + 1));
}

std::u16string StorePath(std::u16string_view file) {
    return file.empty() ? std::u16string() : Join(DriverStoreDirectory(), file);
}

// The entry of `dir` whose name equals `name` without regard to case.
std::optional<fs::path> FindInDirectory(const fs::path& dir, std::u16string_view name) {
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::u16string entry = it->path().filename().u16string();
        if (SameName(entry, name)) {
            return it->path();
        }
    }
    return std::nullopt;
}

// The host file a Windows path ("C:\...") or absolute host path names, with
// each component matched without regard to case.
std::optional<fs::path> HostFile(std::u16string_view path) {
    fs::path current;
    std::u16string_view rest;
    if (path.size() >= 3 && (path[0] == u'C' || path[0] == u'c') && path[1] == u':' &&
        path[2] == u'\\') {
        current = fs::path(machine::Root()) / "drive_c";
        rest = path.substr(3);
    } else if (!path.empty() && path[0] == u'/') {
        fs::path direct{std::u16string(path)};
        std::error_code ec;
        return fs::is_regular_file(direct, ec) ? std::optional<fs::path>(direct) : std::nullopt;
    } else {
        return std::nullopt;
    }
    while (!rest.empty()) {
        const std::size_t cut = rest.find(u'\\');
        const auto part = rest.substr(0, cut);
        rest = cut == std::u16string_view::npos ? std::u16string_view() : rest.substr(cut + 1);
        if (part.empty()) {
            continue;
        }
        auto next = FindInDirectory(current, part);
        if (!next) {
            return std::nullopt;
        }
        current = *next;
    }
    std::error_code ec;
    return fs::is_regular_file(current, ec) ? std::optional<fs::path>(current) : std::nullopt;
}

// Where a named driver file is taken from: a full path as given, else the
// driver directory, else the store (already installed).
std::optional<fs::path> SourceFile(std::u16string_view named) {
    if (named.find(u'\\') != std::u16string_view::npos || named.starts_with(u"/")) {
        if (auto direct = HostFile(named)) {
            return direct;
        }
    }
    const std::u16string base = BaseName(named);
    if (auto inDirectory = FindInDirectory(DriverDirectoryHost(), base)) {
        return inDirectory;
    }
    return FindInDirectory(DriverStoreHost(), base);
}

std::vector<std::u16string> DriverFiles(const ValueMap& v) {
    std::vector<std::u16string> files;
    for (const char16_t* name : {u"Driver", u"Data File", u"Configuration File", u"Help File"}) {
        if (auto file = v.String(name); !file.empty()) {
            files.push_back(std::move(file));
        }
    }
    for (auto& dep : v.MultiString(u"Dependent Files")) {
        files.push_back(std::move(dep));
    }
    return files;
}

std::uint64_t Qword(const ValueMap& v, std::u16string_view name) {
    const auto bytes = v.Binary(name);
    std::uint64_t out = 0;
    if (bytes.size() == sizeof(out)) {
        std::memcpy(&out, bytes.data(), sizeof(out));
    }
    return out;
}

std::vector<std::byte> QwordBytes(std::uint64_t value) {
    std::vector<std::byte> bytes(sizeof(value));
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

DriverInfo6 DriverFromValues(std::u16string_view name, const ValueMap& v) {
    DriverInfo6 info;
    info.cVersion = v.Dword(u"Version", 3);
    info.name = name;
    info.environment = kEnvironmentX64;
    info.driverPath = StorePath(v.String(u"Driver"));
    info.dataFile = StorePath(v.String(u"Data File"));
    info.configFile = StorePath(v.String(u"Configuration File"));
    info.helpFile = StorePath(v.String(u"Help File"));
    for (const auto& dep : v.MultiString(u"Dependent Files")) {
        info.dependentFiles.push_back(StorePath(dep));
    }
    info.monitorName = v.String(u"Monitor");
    info.defaultDataType = v.String(u"Datatype");
    info.previousNames = v.MultiString(u"Previous Names");
    info.driverDate = Qword(v, u"DriverDate");
    info.driverVersion = Qword(v, u"DriverVersion");
    info.mfgName = v.String(u"Manufacturer");
    info.oemUrl = v.String(u"OEM Url");
    info.hardwareId = v.String(u"HardwareID");
    info.provider = v.String(u"Provider");
    return info;
}

// The canonical name and values of an installed driver.
bool LoadDriver(std::u16string_view name, std::u16string* canonical, ValueMap* values) {
    if (name.empty() || name.find(u'\\') != std::u16string_view::npos) {
        return false;
    }
    std::vector<std::u16string> names;
    ReadSubKeys(kDriversKey, &names);
    for (const auto& n : names) {
        if (SameName(n, name)) {
            UniqueKey key;
            if (OpenKey(Join(kDriversKey, n), KEY_READ, &key) != ERROR_SUCCESS ||
                ReadValues(key.get(), values) != ERROR_SUCCESS) {
                return false;
            }
            *canonical = n;
            return true;
        }
    }
    return false;
}

bool DriverInUse(std::u16string_view driver) {
    std::vector<std::u16string> printers;
    ReadSubKeys(kPrintersKey, &printers);
    for (const auto& printer : printers) {
        UniqueKey key;
        RegistryValue value;
        if (OpenKey(PrinterKey(printer), KEY_READ, &key) == ERROR_SUCCESS &&
            RegGetValue(key.get(), u"Printer Driver", &value) == ERROR_SUCCESS) {
            if (SameName(AsString(value), driver)) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

namespace spool {

bool DriverExists(std::u16string_view name) {
    std::u16string canonical;
    ValueMap values;
    return LoadDriver(name, &canonical, &values);
}

}  // namespace spool

std::optional<std::u16string> GetPrinterDriverDirectoryW(std::u16string_view serverName,
                                                         std::u16string_view environment,
                                                         DWORD level) {
    if (!serverName.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return std::nullopt;
    }
    if (!KnownEnvironment(environment)) {
        SetLastError(ERROR_INVALID_ENVIRONMENT);
        return std::nullopt;
    }
    if (level != 1) {
        SetLastError(ERROR_INVALID_LEVEL);
        return std::nullopt;
    }
    Lock lock;
    std::error_code ec;
    fs::create_directories(DriverDirectoryHost(), ec);
    SetLastError(ERROR_SUCCESS);
    return std::u16string(kDriverDirectory);
}

std::optional<std::vector<DriverInfo6>> EnumPrinterDriversW(std::u16string_view serverName,
                                                            std::u16string_view environment,
                                                            DWORD level) {
    if (!serverName.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return std::nullopt;
    }
    if (!KnownEnvironment(environment) && environment != u"all") {
        SetLastError(ERROR_INVALID_ENVIRONMENT);
        return std::nullopt;
    }
    if (!ValidLevel(level)) {
        SetLastError(ERROR_INVALID_LEVEL);
        return std::nullopt;
    }
    Lock lock;
    std::vector<std::u16string> names;
    if (const LSTATUS rc = ReadSubKeys(kDriversKey, &names); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return std::nullopt;
    }
    std::vector<DriverInfo6> drivers;
    for (const auto& name : names) {
        UniqueKey key;
        ValueMap values;
        if (OpenKey(Join(kDriversKey, name), KEY_READ, &key) == ERROR_SUCCESS &&
            ReadValues(key.get(), &values) == ERROR_SUCCESS) {
            drivers.push_back(DriverFromValues(name, values));
        }
    }
    SetLastError(ERROR_SUCCESS);
    return drivers;
}

std::optional<DriverInfo6> GetPrinterDriverW(HANDLE printer, std::u16string_view environment,
                                             DWORD level) {
    auto h = FindHandle(printer);
    if (!h) {
        return std::nullopt;
    }
    if (h->kind != HandleKind::Printer) {
        SetLastError(ERROR_INVALID_HANDLE);
        return std::nullopt;
    }
    if (!KnownEnvironment(environment)) {
        SetLastError(ERROR_INVALID_ENVIRONMENT);
        return std::nullopt;
    }
    if (!ValidLevel(level)) {
        SetLastError(ERROR_INVALID_LEVEL);
        return std::nullopt;
    }
    Lock lock;
    UniqueKey key;
    RegistryValue driverValue;
    if (OpenKey(PrinterKey(h->name), KEY_READ, &key) != ERROR_SUCCESS) {
        SetLastError(ERROR_INVALID_PRINTER_NAME);
        return std::nullopt;
    }
    RegGetValue(key.get(), u"Printer Driver", &driverValue);
    const std::u16string driver = AsString(driverValue);
    std::u16string canonical;
    ValueMap values;
    if (!LoadDriver(driver, &canonical, &values)) {
        SetLastError(ERROR_UNKNOWN_PRINTER_DRIVER);
        return std::nullopt;
    }
    SetLastError(ERROR_SUCCESS);
    return DriverFromValues(canonical, values);
}

bool AddPrinterDriverW(std::u16string_view serverName, DWORD level, const DriverInfo6& info) {
    if (fault::Inject("AddPrinterDriverW")) {
        return false;
    }
    if (!serverName.empty()) {
        return Fail(ERROR_INVALID_NAME);
    }
    if (level < 2 || level > 6 || level == 5) {
        return Fail(ERROR_INVALID_LEVEL);
    }
    if (!KnownEnvironment(info.environment)) {
        return Fail(ERROR_INVALID_ENVIRONMENT);
    }
    if (info.name.empty() || info.name.size() > kMaxKeyNameLength ||
        info.name.find(u'\\') != std::u16string::npos || info.driverPath.empty()) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    Lock lock(Lock::kWrites);
    if (!CallerIsAdministrator()) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    // Every file must be found before anything is copied or registered.
    std::vector<std::u16string> named = {info.driverPath, info.dataFile, info.configFile,
                                         info.helpFile};
    named.insert(named.end(), info.dependentFiles.begin(), info.dependentFiles.end());
    std::vector<std::pair<fs::path, std::u16string>> copies;
    for (const auto& file : named) {
        if (file.empty()) {
            continue;
        }
        auto source = SourceFile(file);
        if (!source) {
            return Fail(ERROR_FILE_NOT_FOUND);
        }
        copies.emplace_back(*source, BaseName(file));
    }
    std::error_code ec;
    fs::create_directories(DriverStoreHost(), ec);
    for (const auto& [source, base] : copies) {
        const fs::path target = FindInDirectory(DriverStoreHost(), base)
                                    .value_or(fs::path(DriverStoreHost()) / fs::path(base));
        if (fs::equivalent(source, target, ec)) {
            continue;
        }
        ec.clear();
        // As APD_COPY_NEW_FILES: a file in the store is replaced only by a newer one.
        fs::copy_file(source, target, fs::copy_options::update_existing, ec);
        if (ec) {
            return Fail(ERROR_CANTWRITE);
        }
    }
    std::u16string canonical = info.name;
    ValueMap old;
    LoadDriver(info.name, &canonical, &old);
    const std::u16string keyPath = Join(kDriversKey, canonical);
    DeleteKeyTree(keyPath);
    UniqueKey key;
    LSTATUS rc = CreateKey(keyPath, &key);
    auto str = [&](std::u16string_view name, std::u16string_view value) {
        if (rc == ERROR_SUCCESS) {
            rc = WriteString(key.get(), name, value);
        }
    };
    str(u"Driver", BaseName(info.driverPath));
    str(u"Data File", BaseName(info.dataFile));
    str(u"Configuration File", BaseName(info.configFile));
    str(u"Help File", BaseName(info.helpFile));
    str(u"Monitor", info.monitorName);
    str(u"Datatype", info.defaultDataType);
    str(u"Manufacturer", info.mfgName);
    str(u"OEM Url", info.oemUrl);
    str(u"HardwareID", info.hardwareId);
    str(u"Provider", info.provider);
    std::vector<std::u16string> deps;
    for (const auto& dep : info.dependentFiles) {
        if (!dep.empty()) {
            deps.push_back(BaseName(dep));
        }
    }
    if (rc == ERROR_SUCCESS) {
        rc = WriteMultiString(key.get(), u"Dependent Files", deps);
    }
    if (rc == ERROR_SUCCESS) {
        rc = WriteMultiString(key.get(), u"Previous Names", info.previousNames);
    }
    if (rc == ERROR_SUCCESS) {
        rc = WriteBinary(key.get(), u"DriverDate", QwordBytes(info.driverDate));
    }
    if (rc == ERROR_SUCCESS) {
        rc = WriteBinary(key.get(), u"DriverVersion", QwordBytes(info.driverVersion));
    }
    if (rc == ERROR_SUCCESS) {
        rc = WriteDword(key.get(), u"Version", 3);
    }
    if (rc != ERROR_SUCCESS) {
        key.reset();
        DeleteKeyTree(keyPath);
        return Fail(rc);
    }
    return Succeed();
}

bool DeletePrinterDriverExW(std::u16string_view serverName, std::u16string_view environment,
                            std::u16string_view driverName, DWORD deleteFlags, DWORD versionFlag) {
    if (fault::Inject("DeletePrinterDriverExW")) {
        return false;
    }
    if (!serverName.empty()) {
        return Fail(ERROR_INVALID_NAME);
    }
    if (!KnownEnvironment(environment)) {
        return Fail(ERROR_INVALID_ENVIRONMENT);
    }
    if ((deleteFlags &
         ~(DPD_DELETE_UNUSED_FILES | DPD_DELETE_SPECIFIC_VERSION | DPD_DELETE_ALL_FILES)) != 0) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    Lock lock(Lock::kWrites);
    if (!CallerIsAdministrator()) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    std::u16string canonical;
    ValueMap values;
    if (!LoadDriver(driverName, &canonical, &values) ||
        ((deleteFlags & DPD_DELETE_SPECIFIC_VERSION) != 0 &&
         versionFlag != values.Dword(u"Version", 3))) {
        return Fail(ERROR_UNKNOWN_PRINTER_DRIVER);
    }
    if (DriverInUse(canonical)) {
        return Fail(ERROR_PRINTER_DRIVER_IN_USE);
    }
    const std::u16string keyPath = Join(kDriversKey, canonical);
    if (const LSTATUS rc = DeleteKeyTree(keyPath); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    if ((deleteFlags & (DPD_DELETE_UNUSED_FILES | DPD_DELETE_ALL_FILES)) != 0) {
        std::vector<std::u16string> stillUsed;
        if ((deleteFlags & DPD_DELETE_ALL_FILES) == 0) {
            std::vector<std::u16string> others;
            ReadSubKeys(kDriversKey, &others);
            for (const auto& other : others) {
                UniqueKey key;
                ValueMap otherValues;
                if (OpenKey(Join(kDriversKey, other), KEY_READ, &key) == ERROR_SUCCESS &&
                    ReadValues(key.get(), &otherValues) == ERROR_SUCCESS) {
                    for (auto& f : DriverFiles(otherValues)) {
                        stillUsed.push_back(std::move(f));
                    }
                }
            }
        }
        for (const auto& file : DriverFiles(values)) {
            bool used = false;
            for (const auto& other : stillUsed) {
                used = used || SameName(other, file);
            }
            if (!used) {
                if (auto path = FindInDirectory(DriverStoreHost(), file)) {
                    std::error_code ec;
                    fs::remove(*path, ec);
                }
            }
        }
    }
    return Succeed();
}

}  // namespace platform
