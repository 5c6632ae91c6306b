#include "create/postscript_driver.h"

#include <algorithm>

#include "common/ovstring.h"
#include "create/packed_ppd.h"
#include "platform/kernel.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

constexpr std::uint32_t kTemplateMissing = 2;
constexpr char16_t kManufacturer[] = u"Orvelle";
constexpr char16_t kOemUrl[] = u"http://www.orvelle.com";

// The part of a path after its last backslash.
std::u16string_view FileName(std::u16string_view path) {
    const std::size_t cut = path.find_last_of(u'\\');
    return cut == std::u16string_view::npos ? path : path.substr(cut + 1);
}

// 32 hexadecimal digits of a new UUID, the third group in lower case.
std::u16string NewUuidDigits() {
    platform::GUID id;
    platform::UuidCreate(&id);
    return Format(u"%08lX%04X%04x%02X%02X%02X%02X%02X%02X%02X%02X", id.Data1, id.Data2, id.Data3,
                  id.Data4[0], id.Data4[1], id.Data4[2], id.Data4[3], id.Data4[4], id.Data4[5],
                  id.Data4[6], id.Data4[7]);
}

}  // namespace

PostScriptDriver::PostScriptDriver(const void* ppd, std::uint32_t ppdSize,
                                   const char16_t* templateName)
    : m_pPPD(ppd),
      m_dwPPDSize(ppdSize),
      m_strTemplate(templateName != nullptr ? templateName : kPostScriptTemplateDriver) {
    if (auto directory = platform::GetPrinterDriverDirectoryW(u"", platform::kEnvironmentX64, 1)) {
        m_strDriverDirectory = std::move(*directory);
    } else {
        m_dwDirectoryError = platform::GetLastError();
    }
    if (auto drivers = platform::EnumPrinterDriversW(u"", platform::kEnvironmentX64, 6)) {
        m_installedDrivers = std::move(*drivers);
    } else {
        m_dwEnumError = platform::GetLastError();
    }

    switch (CheckPackedPpd(m_pPPD, m_dwPPDSize)) {
        case PackedPpdState::kUsable:
            break;
        case PackedPpdState::kTooBig:
            m_fUseStandardPPD = true;
            OVTRACE(ERR | NORM, "no PPD file, , take standard");
            OVTRACE(ERR | NORM, "PPD File to big for shared memory, the standard will be used");
            break;
        case PackedPpdState::kMissing:
        case PackedPpdState::kCutOff:
            m_fUseStandardPPD = true;
            OVTRACE(ERR | NORM, "no PPD file, , take standard");
            break;
        case PackedPpdState::kWrongSignature:
            m_fUseStandardPPD = true;
            OVTRACE(ERR | NORM, "PPD wrong signature, take standard");
            break;
    }

    if (m_dwDirectoryError != 0) {
        OVTRACE(ERR | NORM, "PrinterDriverDir fails <%d>", m_dwDirectoryError);
        return;
    }
    if (m_dwEnumError != 0) {
        OVTRACE(ERR | NORM, "EnumPrinterDrivers fails <%d>", m_dwEnumError);
        return;
    }
    m_dwTemplateError = kTemplateMissing;
    const auto found = std::find_if(m_installedDrivers.begin(), m_installedDrivers.end(),
                                    [&](const auto& d) { return d.name == m_strTemplate; });
    if (found == m_installedDrivers.end()) {
        OVTRACE(ERR | NORM, "Driver Template found <%s> not found", m_strTemplate);
        return;
    }
    m_driver = *found;
    m_dwTemplateError = 0;
    OVTRACE(INF | NORM, "Driver Template found <%s>", m_strTemplate);
}

PostScriptDriver::~PostScriptDriver() {
    DeleteCreatedFiles();
}

std::uint32_t PostScriptDriver::GetError() const {
    for (const std::uint32_t error : {m_dwDirectoryError, m_dwEnumError, m_dwTemplateError}) {
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

void PostScriptDriver::CopyIntoDriverDirectory(std::u16string_view file) {
    if (file.empty()) {
        return;
    }
    const std::u16string target = m_strDriverDirectory + u'\\' + std::u16string(FileName(file));
    // An existing file is not overwritten and not ours to delete; a failed
    // copy shows when the spooler looks for the file.
    if (platform::CopyFileW(file, target, true)) {
        m_createdFiles.push_back(target);
    }
}

int PostScriptDriver::Install(std::u16string_view baseName) {
    if (GetError() != 0) {
        return 0;
    }
    m_strNewDriverName = std::u16string(baseName) + u' ' + NewUuidDigits();
    platform::DriverInfo6 record = m_driver;

    for (const std::u16string* file : {&record.configFile, &record.driverPath, &record.helpFile}) {
        CopyIntoDriverDirectory(*file);
    }
    std::erase_if(record.dependentFiles, [&](const std::u16string& file) {
        return file.empty() || (m_fUseStandardPPD &&
                                (file.ends_with(u"\\ovps.ini") || file.ends_with(u"\\ovps.dll")));
    });
    for (const std::u16string& file : record.dependentFiles) {
        CopyIntoDriverDirectory(file);
    }

    const std::u16string ppdPath = m_strDriverDirectory + u'\\' + m_strNewDriverName + u".ppd";
    if (m_fUseStandardPPD) {
        if (platform::CopyFileW(m_driver.dataFile, ppdPath, true)) {
            m_createdFiles.push_back(ppdPath);
        }
    } else {
        platform::UniqueFile file =
            platform::CreateFileW(ppdPath, platform::GENERIC_WRITE, 0, platform::CREATE_ALWAYS,
                                  platform::FILE_ATTRIBUTE_NORMAL);
        if (!file) {
            OVTRACE(ERR | NORM, "Cannot open <%s>, with error %d", ppdPath,
                    platform::GetLastError());
            return 0;
        }
        m_createdFiles.push_back(ppdPath);
        const bool unpacked = DecompressPPD(
            file.get(), static_cast<const std::byte*>(m_pPPD) + kPackedPpdSignatureBytes,
            m_dwPPDSize - static_cast<std::uint32_t>(kPackedPpdSignatureBytes));
        file.reset();
        if (!unpacked) {
            OVTRACE(ERR | NORM, "Decompression failed");
            return 0;
        }
    }
    record.dataFile = ppdPath;

    record.name = m_strNewDriverName;
    record.mfgName = kManufacturer;
    record.oemUrl = kOemUrl;
    record.hardwareId.clear();
    record.monitorName.clear();
    record.driverDate = 0;
    record.driverVersion = 0;

    if (!platform::AddPrinterDriverW(u"", 6, record)) {
        m_dwTemplateError = platform::GetLastError();
        OVTRACE(ERR | NORM, "AddPrinterDriver <%s> = %d", m_strNewDriverName, m_dwTemplateError);
        return 0;
    }
    OVTRACE(INF | NORM, "AddPrinterDriver <%s> added ok", m_strNewDriverName);
    return 1;
}

void PostScriptDriver::DeleteCreatedFiles() {
    for (const std::u16string& path : m_createdFiles) {
        const bool deleted = platform::DeleteFileW(path);
        OVTRACE(INF | NORM, "Delete File <%s> = %d", path, deleted ? 1 : 0);
    }
    m_createdFiles.clear();
}

bool DecompressPPD(platform::HANDLE file, const void* streams, std::uint32_t size) {
    platform::DWORD writeError = 0;
    const PpdUnpackResult result = UnpackPpdStreams(
        std::span<const std::byte>(static_cast<const std::byte*>(streams), size),
        [&](std::span<const std::byte> piece) {
            platform::DWORD written = 0;
            if (!platform::WriteFile(file, piece.data(), static_cast<platform::DWORD>(piece.size()),
                                     &written) ||
                written != piece.size()) {
                writeError = platform::GetLastError();
                return false;
            }
            return true;
        });
    switch (result.status) {
        case PpdUnpackStatus::kOk:
            return true;
        case PpdUnpackStatus::kZlibError:
        case PpdUnpackStatus::kTruncated:
            OVTRACE(ERR | NORM, "PPD file ZIP ERROR: %d:%S", result.zlibCode, result.message);
            return false;
        case PpdUnpackStatus::kTooBig:
            OVTRACE(ERR | NORM, "PPD file refused: unpacked it exceeds %I64u bytes",
                    MaxUnpackedPpdBytes(size));
            return false;
        case PpdUnpackStatus::kWriteFailed:
            OVTRACE(ERR | NORM, "PPD file cannot be written, error %d", writeError);
            return false;
    }
    return false;
}

bool DeletePostScriptDriver(std::u16string_view driverName) {
    platform::SetLastError(platform::ERROR_SUCCESS);
    const bool deleted = platform::DeletePrinterDriverExW(
        u"", platform::kEnvironmentX64, driverName, platform::DPD_DELETE_UNUSED_FILES, 0);
    const platform::DWORD error = platform::GetLastError();
    if (deleted) {
        OVTRACE(INF | NORM, "DeletePrinterDriverEx <%s> = %d (ok)", driverName, error);
    } else {
        OVTRACE(ERR | NORM, "DeletePrinterDriverEx <%s> = %d", driverName, error);
    }
    platform::SetLastError(error);
    return deleted;
}

}  // namespace ovsvc
