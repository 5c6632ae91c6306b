// Printers: enumeration, open and close, level 2/3/8 records, add, delete,
// printer data and the owner of a printer's security.
#include <cstring>

#include "fault.h"
#include "spool_caller.h"
#include "spool_store.h"

namespace platform {

using namespace spool;

namespace {

constexpr DWORD kReadControl = 0x00020000;
constexpr DWORD kWriteDac = 0x00040000;
constexpr DWORD kWriteOwner = 0x00080000;
constexpr DWORD kDelete = 0x00010000;
constexpr DWORD kMaxPriority = 99;
constexpr DWORD kDefaultPriority = 1;

bool ValidPrinterName(std::u16string_view name) {
    if (name.empty() || name.size() > kMaxPrinterNameLength) {
        return false;
    }
    for (char16_t c : name) {
        if (c == u'\\' || c == u',' || c < 0x20) {
            return false;
        }
    }
    return true;
}

std::vector<std::u16string> SplitPorts(std::u16string_view list) {
    std::vector<std::u16string> ports;
    std::size_t start = 0;
    while (start <= list.size()) {
        const std::size_t comma = list.find(u',', start);
        const std::size_t stop = comma == std::u16string_view::npos ? list.size() : comma;
        std::u16string port(list.substr(start, stop - start));
        while (!port.empty() && port.front() == u' ') {
            port.erase(port.begin());
        }
        if (!port.empty()) {
            ports.push_back(std::move(port));
        }
        if (comma == std::u16string_view::npos) {
            break;
        }
        start = comma + 1;
    }
    return ports;
}

// Share names are found through an index (Print\ShareNames: value name = share
// name, data = printer name), so that opening an unknown name does not read
// every printer.
LSTATUS RememberShareName(std::u16string_view share, std::u16string_view printer) {
    if (share.empty()) {
        return ERROR_SUCCESS;
    }
    UniqueKey index;
    LSTATUS rc = CreateKey(kShareIndexKey, &index);
    if (rc == ERROR_SUCCESS) {
        rc = WriteString(index.get(), share, printer);
    }
    return rc;
}

void ForgetShareName(std::u16string_view share, std::u16string_view printer) {
    UniqueKey index;
    RegistryValue owner;
    if (share.empty() || OpenKey(kShareIndexKey, KEY_ALL_ACCESS, &index) != ERROR_SUCCESS ||
        RegGetValue(index.get(), share, &owner) != ERROR_SUCCESS) {
        return;
    }
    if (SameName(AsString(owner), printer)) {
        RegDeleteValueW(index.get(), share);
    }
}

void RecordFromValues(const ValueMap& v, PrinterInfo2* info) {
    info->serverName.clear();
    info->printerName = v.String(u"Name");
    info->shareName = v.String(u"Share Name");
    info->portName = v.String(u"Port");
    info->driverName = v.String(u"Printer Driver");
    info->comment = v.String(u"Description");
    info->location = v.String(u"Location");
    info->devMode = DevMode::Parse(v.Binary(u"Default DevMode"));
    info->sepFile = v.String(u"Separator File");
    info->printProcessor = v.String(u"Print Processor");
    info->datatype = v.String(u"Datatype");
    info->parameters = v.String(u"Parameters");
    info->securityDescriptor = v.Binary(u"Security");
    info->attributes = v.Dword(u"Attributes");
    info->priority = v.Dword(u"Priority");
    info->defaultPriority = v.Dword(u"Default Priority");
    info->startTime = v.Dword(u"StartTime");
    info->untilTime = v.Dword(u"UntilTime");
    info->status = v.Dword(u"Status");
    info->cJobs = 0;
    info->averagePPM = 0;
}

// Reads a printer's record by its key name. ERROR_INVALID_PRINTER_NAME when
// the printer is gone.
DWORD LoadPrinter(std::u16string_view keyName, PrinterInfo2* info) {
    UniqueKey key;
    if (OpenKey(PrinterKey(keyName), KEY_READ, &key) != ERROR_SUCCESS) {
        return ERROR_INVALID_PRINTER_NAME;
    }
    ValueMap values;
    const LSTATUS rc = ReadValues(key.get(), &values);
    if (rc != ERROR_SUCCESS) {
        return rc;
    }
    RecordFromValues(values, info);
    if (info->printerName.empty()) {
        info->printerName = keyName;
    }
    info->cJobs = CountJobs(keyName);
    return ERROR_SUCCESS;
}

// Writes the record's values; the device mode and descriptor only when
// given. With the record as stored (`current`), only
// the values that change are written: each value is its own registry write,
// and a changed Location or descriptor should not cost the whole record.
LSTATUS StorePrinter(HKEY key, const PrinterInfo2& info, const std::vector<std::byte>& devMode,
                     const std::vector<std::byte>& security,
                     const PrinterInfo2* current = nullptr) {
    LSTATUS rc = ERROR_SUCCESS;
    auto str = [&](std::u16string_view name, std::u16string_view value,
                   const std::u16string* stored) {
        if (rc == ERROR_SUCCESS && (stored == nullptr || *stored != value)) {
            rc = WriteString(key, name, value);
        }
    };
    auto dword = [&](std::u16string_view name, DWORD value, const DWORD* stored) {
        if (rc == ERROR_SUCCESS && (stored == nullptr || *stored != value)) {
            rc = WriteDword(key, name, value);
        }
    };
    const auto* c = current;
    str(u"Name", info.printerName, c ? &c->printerName : nullptr);
    str(u"Share Name", info.shareName, c ? &c->shareName : nullptr);
    str(u"Port", info.portName, c ? &c->portName : nullptr);
    str(u"Printer Driver", info.driverName, c ? &c->driverName : nullptr);
    str(u"Description", info.comment, c ? &c->comment : nullptr);
    str(u"Location", info.location, c ? &c->location : nullptr);
    str(u"Print Processor", info.printProcessor, c ? &c->printProcessor : nullptr);
    str(u"Datatype", info.datatype.empty() ? std::u16string(u"RAW") : info.datatype,
        c ? &c->datatype : nullptr);
    str(u"Parameters", info.parameters, c ? &c->parameters : nullptr);
    str(u"Separator File", info.sepFile, c ? &c->sepFile : nullptr);
    dword(u"Attributes", info.attributes, c ? &c->attributes : nullptr);
    dword(u"Priority", info.priority == 0 ? kDefaultPriority : info.priority,
          c ? &c->priority : nullptr);
    dword(u"Default Priority", info.defaultPriority, c ? &c->defaultPriority : nullptr);
    dword(u"StartTime", info.startTime, c ? &c->startTime : nullptr);
    dword(u"UntilTime", info.untilTime, c ? &c->untilTime : nullptr);
    if (rc == ERROR_SUCCESS && !devMode.empty() &&
        (c == nullptr || !c->devMode || c->devMode->Serialize() != devMode)) {
        rc = WriteBinary(key, u"Default DevMode", devMode);
    }
    if (rc == ERROR_SUCCESS && !security.empty() &&
        (c == nullptr || c->securityDescriptor != security)) {
        rc = WriteBinary(key, u"Security", security);
    }
    if (rc == ERROR_SUCCESS &&
        (c == nullptr || c->shareName != info.shareName || c->printerName != info.printerName)) {
        rc = RememberShareName(info.shareName, info.printerName);
    }
    return rc;
}

// The printer a handle refers to; fails with ERROR_INVALID_HANDLE for other
// handle kinds.
std::optional<HandleState> PrinterHandle(HANDLE printer) {
    auto state = FindHandle(printer);
    if (!state) {
        return std::nullopt;
    }
    if (state->kind != HandleKind::Printer) {
        SetLastError(ERROR_INVALID_HANDLE);
        return std::nullopt;
    }
    return state;
}

// Checks the writable fields of a record against the installed drivers,
// ports and print processors. `self` is the printer being changed (empty when
// adding one).
DWORD ValidateRecord(const PrinterInfo2& info, std::u16string_view self) {
    if (!ValidPrinterName(info.printerName)) {
        return ERROR_INVALID_PRINTER_NAME;
    }
    if (auto existing = ResolvePrinter(info.printerName, false);
        existing && (self.empty() || !SameName(*existing, self))) {
        return ERROR_PRINTER_ALREADY_EXISTS;
    }
    if (info.driverName.empty() || !DriverExists(info.driverName)) {
        return ERROR_UNKNOWN_PRINTER_DRIVER;
    }
    const auto ports = SplitPorts(info.portName);
    if (ports.empty()) {
        return ERROR_UNKNOWN_PORT;
    }
    for (const auto& port : ports) {
        if (!PortExists(port)) {
            return ERROR_UNKNOWN_PORT;
        }
    }
    if (info.printProcessor.empty() || !PrintProcessorExists(info.printProcessor)) {
        return ERROR_UNKNOWN_PRINTPROCESSOR;
    }
    if (info.priority > kMaxPriority || info.defaultPriority > kMaxPriority) {
        return ERROR_INVALID_PRIORITY;
    }
    if ((info.attributes & PRINTER_ATTRIBUTE_SHARED) != 0) {
        if (!ValidPrinterName(info.shareName)) {
            return ERROR_INVALID_SHARENAME;
        }
        if (auto owner = ResolvePrinter(info.shareName);
            owner && (self.empty() || !SameName(*owner, self)) &&
            !SameName(*owner, info.printerName)) {
            return ERROR_INVALID_SHARENAME;
        }
    }
    if (!info.securityDescriptor.empty() && !ValidDescriptor(info.securityDescriptor)) {
        return ERROR_INVALID_SECURITY_DESCR;
    }
    return ERROR_SUCCESS;
}

DevMode DriverDefaultDevMode(std::u16string_view printerName) {
    DevMode dm;
    dm.dmDeviceName = printerName.substr(0, DevMode::kNameChars - 1);
    dm.dmFields = DM_ORIENTATION | DM_PAPERSIZE | DM_COPIES | DM_DEFAULTSOURCE | DM_PRINTQUALITY |
                  DM_COLOR | DM_DUPLEX | DM_YRESOLUTION | DM_COLLATE | DM_FORMNAME;
    dm.dmOrientation = DMORIENT_PORTRAIT;
    dm.dmPaperSize = DMPAPER_LETTER;
    dm.dmCopies = 1;
    dm.dmDefaultSource = DMBIN_AUTO;
    dm.dmPrintQuality = 300;
    dm.dmColor = 1;
    dm.dmDuplex = DMDUP_SIMPLEX;
    dm.dmYResolution = 300;
    dm.dmCollate = 0;
    dm.dmFormName = u"Letter";
    return dm;
}

bool RenamePrinter(std::u16string_view from, std::u16string_view to) {
    if (CopyTree(PrinterKey(from), PrinterKey(to)) != ERROR_SUCCESS) {
        DeleteKeyTree(PrinterKey(to));
        return false;
    }
    if (RemovePrinterKey(from) != ERROR_SUCCESS) {
        return false;
    }
    RenameHandles(from, to);
    return true;
}

}  // namespace

namespace spool {

std::u16string PrinterKey(std::u16string_view name) {
    return Join(kPrintersKey, name);
}

std::optional<std::u16string> ResolvePrinter(std::u16string_view nameOrShare, bool allowShareName) {
    if (!ValidPrinterName(nameOrShare)) {
        return std::nullopt;
    }
    UniqueKey key;
    if (OpenKey(PrinterKey(nameOrShare), KEY_READ, &key) == ERROR_SUCCESS) {
        RegistryValue name;
        if (RegGetValue(key.get(), u"Name", &name) == ERROR_SUCCESS && name.type == REG_SZ) {
            auto canonical = AsString(name);
            if (!canonical.empty()) {
                return canonical;
            }
        }
        return std::u16string(nameOrShare);
    }
    if (!allowShareName) {
        return std::nullopt;
    }
    UniqueKey index;
    RegistryValue owner;
    if (OpenKey(kShareIndexKey, KEY_READ, &index) != ERROR_SUCCESS ||
        RegGetValue(index.get(), nameOrShare, &owner) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    // The index names the printer; the printer's own value has the last word.
    const std::u16string printer = AsString(owner);
    UniqueKey p;
    RegistryValue share;
    if (!printer.empty() && OpenKey(PrinterKey(printer), KEY_READ, &p) == ERROR_SUCCESS &&
        RegGetValue(p.get(), u"Share Name", &share) == ERROR_SUCCESS &&
        SameName(AsString(share), nameOrShare)) {
        return printer;
    }
    return std::nullopt;
}

LSTATUS RemovePrinterKey(std::u16string_view name) {
    UniqueKey key;
    RegistryValue share;
    if (OpenKey(PrinterKey(name), KEY_READ, &key) == ERROR_SUCCESS &&
        RegGetValue(key.get(), u"Share Name", &share) == ERROR_SUCCESS) {
        ForgetShareName(AsString(share), name);
    }
    key.reset();
    return DeleteKeyTree(PrinterKey(name));
}

}  // namespace spool

// ---- enumeration, open, close ----------------------------------------------------

std::optional<std::vector<PrinterInfo2>> EnumPrintersW(DWORD flags, std::u16string_view name,
                                                       DWORD level) {
    if (fault::Inject("EnumPrintersW")) {
        return std::nullopt;
    }
    if (level != 2) {
        SetLastError(ERROR_INVALID_LEVEL);
        return std::nullopt;
    }
    if ((flags & PRINTER_ENUM_LOCAL) == 0 || !name.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return std::nullopt;
    }
    Lock lock;
    std::vector<std::u16string> keys;
    if (const LSTATUS rc = ReadSubKeys(kPrintersKey, &keys); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return std::nullopt;
    }
    std::vector<PrinterInfo2> printers;
    printers.reserve(keys.size());
    for (const auto& key : keys) {
        PrinterInfo2 info;
        if (LoadPrinter(key, &info) == ERROR_SUCCESS) {
            printers.push_back(std::move(info));
        }
    }
    SetLastError(ERROR_SUCCESS);
    return printers;
}

UniquePrinter OpenPrinterW(std::u16string_view name, const PrinterDefaults* defaults) {
    if (fault::Inject("OpenPrinterW")) {
        return {};
    }
    constexpr std::u16string_view kXcvMonitor = u",XcvMonitor ";
    constexpr std::u16string_view kXcvPort = u",XcvPort ";
    Lock lock;
    HandleState state;
    state.user = CallerName();
    if (name.empty()) {
        state.kind = HandleKind::Server;
        state.granted = SERVER_ACCESS_ENUMERATE | SERVER_ACCESS_ADMINISTER;
        SetLastError(ERROR_SUCCESS);
        return UniquePrinter(NewHandle(std::move(state)));
    }
    if (name.starts_with(kXcvMonitor) || name.starts_with(kXcvPort)) {
        const bool byPort = name.starts_with(kXcvPort);
        const auto target = name.substr(byPort ? kXcvPort.size() : kXcvMonitor.size());
        std::vector<std::u16string> monitors;
        ReadSubKeys(kMonitorsKey, &monitors);
        for (const auto& monitor : monitors) {
            UniqueKey port;
            const bool match =
                byPort ? OpenKey(Join(Join(Join(kMonitorsKey, monitor), u"Ports"), target),
                                 KEY_READ, &port) == ERROR_SUCCESS
                       : SameName(monitor, target);
            if (match) {
                state.kind = HandleKind::XcvMonitor;
                state.name = monitor;
                state.granted = SERVER_ACCESS_ADMINISTER;
                SetLastError(ERROR_SUCCESS);
                return UniquePrinter(NewHandle(std::move(state)));
            }
        }
        SetLastError(ERROR_INVALID_PRINTER_NAME);
        return {};
    }
    const auto keyName = ResolvePrinter(name);
    if (!keyName) {
        SetLastError(ERROR_INVALID_PRINTER_NAME);
        return {};
    }
    PrinterInfo2 info;
    if (const DWORD rc = LoadPrinter(*keyName, &info); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return {};
    }
    DWORD granted = 0;
    const DWORD desired = defaults != nullptr ? defaults->desiredAccess : 0;
    if (const DWORD rc = CheckAccess(info.securityDescriptor, desired, &granted);
        rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return {};
    }
    state.kind = HandleKind::Printer;
    state.name = *keyName;
    state.granted = granted;
    SetLastError(ERROR_SUCCESS);
    return UniquePrinter(NewHandle(std::move(state)));
}

bool ClosePrinter(HANDLE printer) noexcept {
    if (!RemoveHandle(printer)) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    return Succeed();
}

// ---- get and set -----------------------------------------------------------------

bool GetPrinterW(HANDLE printer, PrinterInfo2* info) {
    if (fault::Inject("GetPrinterW")) {
        return false;
    }
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    if (info == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    Lock lock;
    PrinterInfo2 record;
    if (const DWORD rc = LoadPrinter(h->name, &record); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    if ((h->granted & kReadControl) == 0) {
        record.securityDescriptor.clear();
    }
    *info = std::move(record);
    return Succeed();
}

bool GetPrinterW(HANDLE printer, PrinterInfo3* info) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    if (info == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if ((h->granted & kReadControl) == 0) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    Lock lock;
    PrinterInfo2 record;
    if (const DWORD rc = LoadPrinter(h->name, &record); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    info->securityDescriptor = std::move(record.securityDescriptor);
    return Succeed();
}

bool GetPrinterW(HANDLE printer, PrinterInfo8* info) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    if (info == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    Lock lock;
    PrinterInfo2 record;
    if (const DWORD rc = LoadPrinter(h->name, &record); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    info->devMode = std::move(record.devMode);
    return Succeed();
}

bool SetPrinterW(HANDLE printer, const PrinterInfo2& info, DWORD command) {
    if (fault::Inject("SetPrinterW")) {
        return false;
    }
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    if (command != 0) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if ((h->granted & PRINTER_ACCESS_ADMINISTER) == 0 ||
        (!info.securityDescriptor.empty() && (h->granted & kWriteDac) == 0)) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    Lock lock(Lock::kWrites);
    PrinterInfo2 current;
    if (const DWORD rc = LoadPrinter(h->name, &current); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    if (const DWORD rc = ValidateRecord(info, h->name); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    std::vector<std::byte> devMode;
    if (info.devMode) {
        devMode = info.devMode->Serialize();
        if (devMode.empty()) {
            return Fail(ERROR_INVALID_PARAMETER);
        }
    }
    std::vector<std::byte> security;
    if (!info.securityDescriptor.empty()) {
        security = MergeDescriptor(current.securityDescriptor, info.securityDescriptor);
        if (security.empty()) {
            return Fail(ERROR_INVALID_SECURITY_DESCR);
        }
    }
    if (!SameName(current.shareName, info.shareName)) {
        ForgetShareName(current.shareName, h->name);
    }
    std::u16string target = h->name;
    // A change of letter case only keeps the key and changes the name value.
    if (!SameName(info.printerName, h->name)) {
        if (!RenamePrinter(h->name, info.printerName)) {
            return Fail(ERROR_CANTWRITE);
        }
        target = info.printerName;
    }
    UniqueKey key;
    if (const LSTATUS rc = OpenKey(PrinterKey(target), KEY_ALL_ACCESS, &key); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    // A renamed printer's key holds the old record under the new name.
    const PrinterInfo2* stored = target == h->name ? &current : nullptr;
    if (const LSTATUS rc = StorePrinter(key.get(), info, devMode, security, stored);
        rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    if (const DWORD rc = lock.Commit(); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    return Succeed();
}

bool SetPrinterW(HANDLE printer, const PrinterInfo3& info, DWORD command) {
    if (fault::Inject("SetPrinterW")) {
        return false;
    }
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    if (command != 0 || info.securityDescriptor.empty()) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if ((h->granted & (kWriteDac | kWriteOwner)) == 0) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    if (!ValidDescriptor(info.securityDescriptor)) {
        return Fail(ERROR_INVALID_SECURITY_DESCR);
    }
    Lock lock(Lock::kWrites);
    PrinterInfo2 current;
    if (const DWORD rc = LoadPrinter(h->name, &current); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    const auto merged = MergeDescriptor(current.securityDescriptor, info.securityDescriptor);
    if (merged.empty()) {
        return Fail(ERROR_INVALID_SECURITY_DESCR);
    }
    UniqueKey key;
    if (const LSTATUS rc = OpenKey(PrinterKey(h->name), KEY_ALL_ACCESS, &key);
        rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    if (const LSTATUS rc = WriteBinary(key.get(), u"Security", merged); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    if (const DWORD rc = lock.Commit(); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    return Succeed();
}

bool SetPrinterW(HANDLE printer, const PrinterInfo8& info, DWORD command) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    if (command != 0 || !info.devMode) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if ((h->granted & PRINTER_ACCESS_ADMINISTER) == 0) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    const auto bytes = info.devMode->Serialize();
    if (bytes.empty()) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    Lock lock(Lock::kWrites);
    UniqueKey key;
    if (OpenKey(PrinterKey(h->name), KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) {
        return Fail(ERROR_INVALID_PRINTER_NAME);
    }
    if (const LSTATUS rc = WriteBinary(key.get(), u"Default DevMode", bytes); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    return Succeed();
}

bool SetPrinterW(HANDLE printer, DWORD command, DWORD status) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    if (command < PRINTER_CONTROL_PAUSE || command > PRINTER_CONTROL_SET_STATUS) {
        return Fail(ERROR_INVALID_PRINTER_COMMAND);
    }
    if ((h->granted & PRINTER_ACCESS_ADMINISTER) == 0) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    Lock lock(Lock::kWrites);
    UniqueKey key;
    if (OpenKey(PrinterKey(h->name), KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) {
        return Fail(ERROR_INVALID_PRINTER_NAME);
    }
    ValueMap values;
    ReadValues(key.get(), &values);
    DWORD current = values.Dword(u"Status");
    switch (command) {
        case PRINTER_CONTROL_PAUSE:
            current |= PRINTER_STATUS_PAUSED;
            break;
        case PRINTER_CONTROL_RESUME:
            current &= ~PRINTER_STATUS_PAUSED;
            break;
        case PRINTER_CONTROL_PURGE:
            if (const LSTATUS rc = DeleteKeyTree(Join(PrinterKey(h->name), kJobsKey));
                rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) {
                return Fail(rc);
            }
            break;
        default:
            current = status;
            break;
    }
    if (const LSTATUS rc = WriteDword(key.get(), u"Status", current); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    return Succeed();
}

// ---- add and delete ----------------------------------------------------------------

UniquePrinter AddPrinterW(std::u16string_view serverName, const PrinterInfo2& info) {
    if (fault::Inject("AddPrinterW")) {
        return {};
    }
    if (!serverName.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return {};
    }
    Lock lock(Lock::kWrites);
    if (!lock.held()) {
        SetLastError(ERROR_CANTWRITE);
        return {};
    }
    if (!CallerIsAdministrator()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return {};
    }
    if (const DWORD rc = ValidateRecord(info, {}); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return {};
    }
    std::vector<std::byte> devMode =
        (info.devMode ? *info.devMode : DriverDefaultDevMode(info.printerName)).Serialize();
    if (devMode.empty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return {};
    }
    const std::vector<std::byte> security =
        info.securityDescriptor.empty() ? DefaultPrinterSecurity() : info.securityDescriptor;
    UniqueKey key;
    if (const LSTATUS rc = CreateKey(PrinterKey(info.printerName), &key); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return {};
    }
    LSTATUS rc = StorePrinter(key.get(), info, devMode, security);
    if (rc == ERROR_SUCCESS) {
        rc = WriteDword(key.get(), u"Status", 0);
    }
    UniqueKey data;
    if (rc == ERROR_SUCCESS) {
        rc = CreateKey(Join(PrinterKey(info.printerName), kDriverDataKey), &data);
    }
    if (rc != ERROR_SUCCESS) {
        key.reset();
        RemovePrinterKey(info.printerName);
        SetLastError(rc);
        return {};
    }
    if (const DWORD committed = lock.Commit(); committed != ERROR_SUCCESS) {
        SetLastError(committed);
        return {};
    }
    HandleState state;
    state.kind = HandleKind::Printer;
    state.name = info.printerName;
    state.granted = PRINTER_ALL_ACCESS;
    state.user = CallerName();
    SetLastError(ERROR_SUCCESS);
    return UniquePrinter(NewHandle(std::move(state)));
}

bool DeletePrinter(HANDLE printer) {
    if (fault::Inject("DeletePrinter")) {
        return false;
    }
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    if ((h->granted & kDelete) == 0) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    Lock lock(Lock::kWrites);
    UniqueKey key;
    if (OpenKey(PrinterKey(h->name), KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) {
        return Fail(ERROR_INVALID_PRINTER_NAME);
    }
    if (CountJobs(h->name) > 0) {
        ValueMap values;
        ReadValues(key.get(), &values);
        const DWORD status = values.Dword(u"Status") | PRINTER_STATUS_PENDING_DELETION;
        if (const LSTATUS rc = WriteDword(key.get(), u"Status", status); rc != ERROR_SUCCESS) {
            return Fail(rc);
        }
        return Succeed();
    }
    key.reset();
    if (const LSTATUS rc = RemovePrinterKey(h->name); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    if (const DWORD rc = lock.Commit(); rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    return Succeed();
}

// ---- printer data -----------------------------------------------------------------

DWORD SetPrinterDataW(HANDLE printer, std::u16string_view valueName, DWORD type, const void* data,
                      DWORD size) {
    if (fault::Inject("SetPrinterDataW")) {
        return GetLastError();
    }
    auto h = PrinterHandle(printer);
    if (!h) {
        return GetLastError();
    }
    if (data == nullptr && size != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return ERROR_INVALID_PARAMETER;
    }
    if ((h->granted & PRINTER_ACCESS_ADMINISTER) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return ERROR_ACCESS_DENIED;
    }
    Lock lock(Lock::kWrites);
    UniqueKey probe;
    if (OpenKey(PrinterKey(h->name), KEY_READ, &probe) != ERROR_SUCCESS) {
        SetLastError(ERROR_INVALID_PRINTER_NAME);
        return ERROR_INVALID_PRINTER_NAME;
    }
    UniqueKey key;
    LSTATUS rc = CreateKey(Join(PrinterKey(h->name), kDriverDataKey), &key);
    if (rc == ERROR_SUCCESS) {
        rc = RegSetValueExW(key.get(), valueName, type, data, size);
    }
    if (rc == ERROR_SUCCESS) {
        rc = static_cast<LSTATUS>(lock.Commit());
    }
    SetLastError(rc);
    return rc;
}

DWORD GetPrinterDataW(HANDLE printer, std::u16string_view valueName, DWORD* type, void* data,
                      DWORD size, DWORD* needed) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return GetLastError();
    }
    Lock lock;
    UniqueKey key;
    LSTATUS rc = OpenKey(Join(PrinterKey(h->name), kDriverDataKey), KEY_READ, &key);
    RegistryValue value;
    if (rc == ERROR_SUCCESS) {
        rc = RegGetValue(key.get(), valueName, &value);
    } else {
        UniqueKey printerKey;
        rc = OpenKey(PrinterKey(h->name), KEY_READ, &printerKey) == ERROR_SUCCESS
                 ? ERROR_FILE_NOT_FOUND
                 : ERROR_INVALID_PRINTER_NAME;
    }
    if (rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return rc;
    }
    const auto bytes = static_cast<DWORD>(value.data.size());
    if (needed != nullptr) {
        *needed = bytes;
    }
    if (type != nullptr) {
        *type = value.type;
    }
    if (data == nullptr || size < bytes) {
        SetLastError(ERROR_MORE_DATA);
        return ERROR_MORE_DATA;
    }
    if (bytes != 0) {
        std::memcpy(data, value.data.data(), bytes);
    }
    SetLastError(ERROR_SUCCESS);
    return ERROR_SUCCESS;
}

DWORD DeletePrinterDataW(HANDLE printer, std::u16string_view valueName) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return GetLastError();
    }
    if ((h->granted & PRINTER_ACCESS_ADMINISTER) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return ERROR_ACCESS_DENIED;
    }
    Lock lock(Lock::kWrites);
    UniqueKey key;
    LSTATUS rc = OpenKey(Join(PrinterKey(h->name), kDriverDataKey), KEY_ALL_ACCESS, &key);
    if (rc == ERROR_SUCCESS) {
        rc = RegDeleteValueW(key.get(), valueName);
    }
    SetLastError(rc);
    return rc;
}

DWORD SetPrinterOwner(HANDLE printer, const std::vector<std::byte>& ownerSid) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return GetLastError();
    }
    if ((h->granted & kWriteOwner) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return ERROR_ACCESS_DENIED;
    }
    Lock lock(Lock::kWrites);
    PrinterInfo2 current;
    if (const DWORD rc = LoadPrinter(h->name, &current); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return rc;
    }
    const auto changed = ReplaceOwner(current.securityDescriptor, ownerSid);
    if (changed.empty()) {
        SetLastError(ERROR_INVALID_SID);
        return ERROR_INVALID_SID;
    }
    UniqueKey key;
    LSTATUS rc = OpenKey(PrinterKey(h->name), KEY_ALL_ACCESS, &key);
    if (rc == ERROR_SUCCESS) {
        rc = WriteBinary(key.get(), u"Security", changed);
    }
    SetLastError(rc);
    return rc;
}

}  // namespace platform
