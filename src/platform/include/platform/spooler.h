// The print spooler (winspool), with the Win32 calls' meaning and errors.
//
// Printers, their data, drivers, print processors, port monitors and jobs.
// Every call sets the thread's last error (ERROR_SUCCESS on success).
// Records come back whole as C++ types; only the two size protocols the
// module relies on stay visible: GetPrinterDataW and XcvDataW answer
// ERROR_MORE_DATA with the needed size when the caller's buffer is short.
//
// Where the embedded machine keeps it, as Windows does, under
// HKLM\SYSTEM\CurrentControlSet\Control\Print:
//   Printers\<name>                 Name, Share Name, Port, Printer Driver,
//                                   Description, Location, Print Processor,
//                                   Datatype, Parameters, Separator File,
//                                   Attributes, Priority, Default Priority,
//                                   StartTime, UntilTime, Status, Security
//                                   (self-relative descriptor), Default DevMode
//   Printers\<name>\PrinterDriverData   the printer data (SetPrinterDataW)
//   Printers\<name>\Jobs\<id>       queued jobs: Document, User, Datatype
//   Environments\Windows x64\Drivers\Version-3\<driver>
//   Environments\Windows x64\Print Processors\<name>
//   Monitors\<monitor>\Ports\<port> value "PortInfo": what XcvData "GetPort" answers
//   ShareNames                      one value per share name: the printer's name
//                                   (kept by the spooler so that opening by share
//                                   name does not read every printer)
// Driver files: C:\Windows\System32\spool\drivers\x64 is the driver
// directory (GetPrinterDriverDirectoryW); installed files are copied into its
// subdirectory "3", the driver store.
//
// A fresh machine gets, on its first spooler call:
//   - the monitor "Local Port" with the ports LPT1:, LPT2:, LPT3:, COM1:,
//     COM2:, FILE: and NUL: (each answering "Protocol=0\n" to "GetPort");
//   - the print processor "winprint" (winprint.dll);
//   - the driver "Generic / Text Only" (GENTEXT.DLL, GENTEXT.GPD, UNIDRV.DLL,
//     UNIDRVUI.DLL, UNIDRV.HLP), whose default device mode is Letter, portrait,
//     300 dpi, one copy, simplex.
//
// Access: OpenPrinterW checks the desired access against the printer's DACL
// for the calling process's token; generic rights map to the printer rights
// (read, write and execute to PRINTER_ACCESS_USE with READ_CONTROL, all to
// PRINTER_ALL_ACCESS; MAXIMUM_ALLOWED gives all the DACL grants). ACEs marked
// inherit-only apply to documents, not to the printer. The owner may always
// read and change the DACL. No DACL, or a NULL one, grants everything. A
// printer added without a descriptor is owned by its creator and grants
// SYSTEM and Administrators full control, CREATOR OWNER document management
// and Everyone printing.
//
// Adding printers, drivers, monitors, ports (XcvData) and print processors,
// and deleting drivers, needs an administrator (SYSTEM or a member of
// Administrators); others get ERROR_ACCESS_DENIED.
//
// Several processes may change the spooler at once: every call that reads or
// changes more than one value holds a machine-wide lock for its duration (an
// advisory lock on the file spool.lock in the machine root). A process that
// dies while changing a printer can leave that printer half written.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/handle.h"
#include "platform/kernel.h"

namespace platform {

// ---- constants --------------------------------------------------------------

inline constexpr DWORD PRINTER_ENUM_LOCAL = 0x00000002;

inline constexpr DWORD SERVER_ACCESS_ADMINISTER = 0x00000001;
inline constexpr DWORD SERVER_ACCESS_ENUMERATE = 0x00000002;
inline constexpr DWORD PRINTER_ACCESS_ADMINISTER = 0x00000004;
inline constexpr DWORD PRINTER_ACCESS_USE = 0x00000008;
inline constexpr DWORD JOB_ACCESS_ADMINISTER = 0x00000010;
inline constexpr DWORD JOB_ACCESS_READ = 0x00000020;
inline constexpr DWORD PRINTER_ALL_ACCESS = 0x000F000C;
inline constexpr DWORD PRINTER_READ = 0x00020008;

inline constexpr DWORD PRINTER_ATTRIBUTE_QUEUED = 0x00000001;
inline constexpr DWORD PRINTER_ATTRIBUTE_DIRECT = 0x00000002;
inline constexpr DWORD PRINTER_ATTRIBUTE_DEFAULT = 0x00000004;
inline constexpr DWORD PRINTER_ATTRIBUTE_SHARED = 0x00000008;
inline constexpr DWORD PRINTER_ATTRIBUTE_LOCAL = 0x00000040;

inline constexpr DWORD PRINTER_STATUS_PAUSED = 0x00000001;
inline constexpr DWORD PRINTER_STATUS_PENDING_DELETION = 0x00000004;

inline constexpr DWORD PRINTER_CONTROL_PAUSE = 1;
inline constexpr DWORD PRINTER_CONTROL_RESUME = 2;
inline constexpr DWORD PRINTER_CONTROL_PURGE = 3;
inline constexpr DWORD PRINTER_CONTROL_SET_STATUS = 4;

inline constexpr DWORD JOB_CONTROL_PAUSE = 1;
inline constexpr DWORD JOB_CONTROL_RESUME = 2;
inline constexpr DWORD JOB_CONTROL_CANCEL = 3;
inline constexpr DWORD JOB_CONTROL_DELETE = 5;

inline constexpr DWORD JOB_STATUS_PAUSED = 0x00000001;
inline constexpr DWORD JOB_STATUS_SPOOLING = 0x00000008;

inline constexpr DWORD DPD_DELETE_UNUSED_FILES = 0x00000001;
inline constexpr DWORD DPD_DELETE_SPECIFIC_VERSION = 0x00000002;
inline constexpr DWORD DPD_DELETE_ALL_FILES = 0x00000004;

// Longest printer name, in characters (Windows' MAX_PRINTER_NAME).
inline constexpr std::size_t kMaxPrinterNameLength = 220;
// The only environment this machine has.
inline constexpr char16_t kEnvironmentX64[] = u"Windows x64";

// ---- device modes ------------------------------------------------------------

inline constexpr DWORD DM_ORIENTATION = 0x00000001;
inline constexpr DWORD DM_PAPERSIZE = 0x00000002;
inline constexpr DWORD DM_PAPERLENGTH = 0x00000004;
inline constexpr DWORD DM_PAPERWIDTH = 0x00000008;
inline constexpr DWORD DM_SCALE = 0x00000010;
inline constexpr DWORD DM_COPIES = 0x00000100;
inline constexpr DWORD DM_DEFAULTSOURCE = 0x00000200;
inline constexpr DWORD DM_PRINTQUALITY = 0x00000400;
inline constexpr DWORD DM_COLOR = 0x00000800;
inline constexpr DWORD DM_DUPLEX = 0x00001000;
inline constexpr DWORD DM_YRESOLUTION = 0x00002000;
inline constexpr DWORD DM_TTOPTION = 0x00004000;
inline constexpr DWORD DM_COLLATE = 0x00008000;
inline constexpr DWORD DM_FORMNAME = 0x00010000;

inline constexpr short DMDUP_SIMPLEX = 1;
inline constexpr short DMDUP_VERTICAL = 2;
inline constexpr short DMDUP_HORIZONTAL = 3;
inline constexpr short DMORIENT_PORTRAIT = 1;
inline constexpr short DMPAPER_LETTER = 1;
inline constexpr short DMPAPER_A4 = 9;
inline constexpr short DMBIN_AUTO = 7;
inline constexpr WORD DM_SPECVERSION = 0x0401;

// A printer's DEVMODEW. Serialize() gives Windows' byte layout: the public
// part (dmSize bytes, 220 for the current version) followed by dmDriverExtra
// private bytes. The two names fill at most their 32-character fields (a
// name of exactly 32 characters has no terminator, as in Windows); longer
// ones are refused by Serialize, never cut.
struct DevMode {
    // Byte offsets in the DEVMODEW layout.
    static constexpr std::size_t kDeviceNameOffset = 0;
    static constexpr std::size_t kSpecVersionOffset = 64;
    static constexpr std::size_t kDriverVersionOffset = 66;
    static constexpr std::size_t kSizeOffset = 68;
    static constexpr std::size_t kDriverExtraOffset = 70;
    static constexpr std::size_t kFieldsOffset = 72;
    static constexpr std::size_t kOrientationOffset = 76;
    static constexpr std::size_t kPaperSizeOffset = 78;
    static constexpr std::size_t kPaperLengthOffset = 80;
    static constexpr std::size_t kPaperWidthOffset = 82;
    static constexpr std::size_t kScaleOffset = 84;
    static constexpr std::size_t kCopiesOffset = 86;
    static constexpr std::size_t kDefaultSourceOffset = 88;
    static constexpr std::size_t kPrintQualityOffset = 90;
    static constexpr std::size_t kColorOffset = 92;
    static constexpr std::size_t kDuplexOffset = 94;
    static constexpr std::size_t kYResolutionOffset = 96;
    static constexpr std::size_t kTTOptionOffset = 98;
    static constexpr std::size_t kCollateOffset = 100;
    static constexpr std::size_t kFormNameOffset = 102;
    static constexpr std::size_t kLogPixelsOffset = 166;
    static constexpr std::size_t kPublicSize = 220;
    static constexpr std::size_t kNameChars = 32;

    std::u16string dmDeviceName;
    WORD dmSpecVersion = DM_SPECVERSION;
    WORD dmDriverVersion = 0;
    DWORD dmFields = 0;
    short dmOrientation = 0;
    short dmPaperSize = 0;
    short dmPaperLength = 0;
    short dmPaperWidth = 0;
    short dmScale = 0;
    short dmCopies = 0;
    short dmDefaultSource = 0;
    short dmPrintQuality = 0;
    short dmColor = 0;
    short dmDuplex = 0;
    short dmYResolution = 0;
    short dmTTOption = 0;
    short dmCollate = 0;
    std::u16string dmFormName;
    // The rest of the public part after dmFormName (dmLogPixels on), kept
    // byte for byte; empty means zero-filled.
    std::vector<std::byte> tail;
    // dmDriverExtra: the driver's private bytes after the public part.
    std::vector<std::byte> driverExtra;

    // The bytes of a DEVMODEW: 220 + driverExtra.size(). Empty when a name
    // is longer than its field or there are more than 65535 private bytes.
    [[nodiscard]] std::vector<std::byte> Serialize() const;
    // Reads a DEVMODEW; nullopt when the bytes are shorter than dmSize +
    // dmDriverExtra claim, or dmSize is below the 72 bytes up to dmFields.
    // A shorter (older) public part leaves the missing fields zero.
    [[nodiscard]] static std::optional<DevMode> Parse(const std::byte* data, std::size_t size);
    [[nodiscard]] static std::optional<DevMode> Parse(const std::vector<std::byte>& bytes) {
        return Parse(bytes.data(), bytes.size());
    }
    bool operator==(const DevMode&) const = default;
};

// ---- records -----------------------------------------------------------------

// PRINTER_INFO_2. `securityDescriptor` is a self-relative descriptor (empty:
// none). On SetPrinterW an absent device mode or descriptor leaves the
// printer's own unchanged, and of a descriptor only the parts it has (owner,
// group, DACL, SACL) replace the printer's; cJobs, status and averagePPM are
// read-only there.
struct PrinterInfo2 {
    std::u16string serverName;
    std::u16string printerName;
    std::u16string shareName;
    std::u16string portName;  // one port or several separated by commas
    std::u16string driverName;
    std::u16string comment;
    std::u16string location;
    std::optional<DevMode> devMode;
    std::u16string sepFile;
    std::u16string printProcessor;
    std::u16string datatype;
    std::u16string parameters;
    std::vector<std::byte> securityDescriptor;
    DWORD attributes = 0;
    DWORD priority = 0;
    DWORD defaultPriority = 0;
    DWORD startTime = 0;
    DWORD untilTime = 0;
    DWORD status = 0;
    DWORD cJobs = 0;
    DWORD averagePPM = 0;
};

// PRINTER_INFO_3: the printer's security (self-relative descriptor).
struct PrinterInfo3 {
    std::vector<std::byte> securityDescriptor;
};

// PRINTER_INFO_8: the printer's global default device mode.
struct PrinterInfo8 {
    std::optional<DevMode> devMode;
};

// PRINTER_DEFAULTS of OpenPrinterW.
struct PrinterDefaults {
    std::u16string datatype;
    std::optional<DevMode> devMode;
    DWORD desiredAccess = 0;  // 0: PRINTER_ACCESS_USE
};

// DRIVER_INFO_6. From the spooler, file fields are full paths in the driver
// store; given to AddPrinterDriverW they may be bare file names (taken from
// the driver directory) or full paths.
struct DriverInfo6 {
    DWORD cVersion = 3;
    std::u16string name;
    std::u16string environment;
    std::u16string driverPath;
    std::u16string dataFile;
    std::u16string configFile;
    std::u16string helpFile;
    std::vector<std::u16string> dependentFiles;
    std::u16string monitorName;
    std::u16string defaultDataType;
    std::vector<std::u16string> previousNames;
    std::uint64_t driverDate = 0;  // FILETIME
    std::uint64_t driverVersion = 0;
    std::u16string mfgName;
    std::u16string oemUrl;
    std::u16string hardwareId;
    std::u16string provider;
};

// PORT_INFO_2 (port type and reserved fields left out).
struct PortInfo2 {
    std::u16string portName;
    std::u16string monitorName;
    std::u16string description;
};

// DOC_INFO_1.
struct DocInfo1 {
    std::u16string documentName;
    std::u16string outputFile;
    std::u16string datatype;
};

// JOB_INFO_1 (the submission time as seconds since 1970, UTC).
struct JobInfo1 {
    DWORD jobId = 0;
    std::u16string printerName;
    std::u16string machineName;
    std::u16string userName;  // DOMAIN\account of the submitting token
    std::u16string document;
    std::u16string datatype;
    std::u16string pStatus;
    DWORD status = 0;
    DWORD priority = 0;
    DWORD position = 0;
    DWORD totalPages = 0;
    DWORD pagesPrinted = 0;
    std::int64_t submitted = 0;
};

// ---- handles -----------------------------------------------------------------

// Closes a printer, server or monitor-configuration handle. ERROR_INVALID_HANDLE
// for a handle that is not open.
bool ClosePrinter(HANDLE printer) noexcept;

struct PrinterHandleTraits {
    using pointer = HANDLE;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { ClosePrinter(h); }
};
using UniquePrinter = UniqueHandle<PrinterHandleTraits>;

// ---- printers ----------------------------------------------------------------

// Local printers at level 2 (flags must include PRINTER_ENUM_LOCAL; `name`
// empty, meaning this machine). An empty result is a success. Every printer
// is listed, with its job count and descriptor, whatever its DACL.
std::optional<std::vector<PrinterInfo2>> EnumPrintersW(DWORD flags, std::u16string_view name,
                                                       DWORD level);

// `name`: a printer name or share name (case-insensitive), empty for the
// local server, or ",XcvMonitor <monitor>" / ",XcvPort <port>" for a
// monitor-configuration handle. Unknown names fail with
// ERROR_INVALID_PRINTER_NAME; rights the DACL does not grant with
// ERROR_ACCESS_DENIED.
[[nodiscard]] UniquePrinter OpenPrinterW(std::u16string_view name,
                                         const PrinterDefaults* defaults = nullptr);

// Levels by record type. GetPrinterW needs PRINTER_ACCESS_USE or more; the
// descriptor (level 3, and in level 2) needs READ_CONTROL, else level 3 fails
// and level 2 leaves it empty. SetPrinterW level 2 and 8 need
// PRINTER_ACCESS_ADMINISTER, level 3 WRITE_DAC (or WRITE_OWNER for an owner
// change).
bool GetPrinterW(HANDLE printer, PrinterInfo2* info);
bool GetPrinterW(HANDLE printer, PrinterInfo3* info);
bool GetPrinterW(HANDLE printer, PrinterInfo8* info);
// `command` must be 0 with a record. Level 2 changes every writable field
// (a new printerName renames the printer).
bool SetPrinterW(HANDLE printer, const PrinterInfo2& info, DWORD command);
bool SetPrinterW(HANDLE printer, const PrinterInfo3& info, DWORD command);
bool SetPrinterW(HANDLE printer, const PrinterInfo8& info, DWORD command);
// Level 0: a PRINTER_CONTROL_* command (SET_STATUS takes `status`).
bool SetPrinterW(HANDLE printer, DWORD command, DWORD status = 0);

// Adds a printer at level 2 (`serverName` empty or this machine) and returns
// a handle with PRINTER_ALL_ACCESS. Errors: ERROR_INVALID_PRINTER_NAME,
// ERROR_PRINTER_ALREADY_EXISTS, ERROR_INVALID_SHARENAME (a shared printer's
// share name taken by another printer),
// ERROR_UNKNOWN_PRINTER_DRIVER, ERROR_UNKNOWN_PORT, ERROR_UNKNOWN_PRINTPROCESSOR,
// ERROR_INVALID_PRIORITY (priority above 99), ERROR_INVALID_PARAMETER (a
// device mode or descriptor that cannot be stored). Without a device mode the
// printer gets its driver's default one, named after the printer.
[[nodiscard]] UniquePrinter AddPrinterW(std::u16string_view serverName, const PrinterInfo2& info);

// Needs DELETE. A printer with queued jobs is only marked pending deletion and
// goes when its last job finishes.
bool DeletePrinter(HANDLE printer);

// The printer's data (Printers\<name>\PrinterDriverData). Both return the
// status and set it as last error. GetPrinterDataW: ERROR_FILE_NOT_FOUND for
// a missing value; ERROR_MORE_DATA with *needed set when `size` is short
// (`data` may be null then). `type` and `needed` may be null.
DWORD SetPrinterDataW(HANDLE printer, std::u16string_view valueName, DWORD type, const void* data,
                      DWORD size);
DWORD GetPrinterDataW(HANDLE printer, std::u16string_view valueName, DWORD* type, void* data,
                      DWORD size, DWORD* needed);
DWORD DeletePrinterDataW(HANDLE printer, std::u16string_view valueName);

// Makes `owner` (a SID's bytes) the owner of the printer's descriptor; needs
// WRITE_OWNER. This is what SetSecurityInfo does for SE_PRINTER objects with
// OWNER_SECURITY_INFORMATION. Returns the status and sets it as last error.
DWORD SetPrinterOwner(HANDLE printer, const std::vector<std::byte>& ownerSid);

// ---- drivers -----------------------------------------------------------------

// C:\Windows\System32\spool\drivers\x64 (created if missing); environment
// empty or "Windows x64", level 1. ERROR_INVALID_ENVIRONMENT, ERROR_INVALID_LEVEL.
std::optional<std::u16string> GetPrinterDriverDirectoryW(std::u16string_view serverName,
                                                         std::u16string_view environment,
                                                         DWORD level);
// Levels 1 to 6 all answer the full record.
std::optional<std::vector<DriverInfo6>> EnumPrinterDriversW(std::u16string_view serverName,
                                                            std::u16string_view environment,
                                                            DWORD level);
// The driver of an open printer; levels 1 to 6.
std::optional<DriverInfo6> GetPrinterDriverW(HANDLE printer, std::u16string_view environment,
                                             DWORD level);
// Level 3 or 6. Copies each named file (driver, data, config, help and
// dependent files) into the driver store; a missing file fails with
// ERROR_FILE_NOT_FOUND and nothing is added. Adding an existing driver
// replaces it. The embedded machine always copies the files as
// AddPrinterDriverExW with APD_COPY_NEW_FILES does on Windows: a file already
// in the store is replaced only by a newer one (by modification time).
bool AddPrinterDriverW(std::u16string_view serverName, DWORD level, const DriverInfo6& info);
// ERROR_UNKNOWN_PRINTER_DRIVER, ERROR_PRINTER_DRIVER_IN_USE while a printer
// uses it. DPD_DELETE_UNUSED_FILES / DPD_DELETE_ALL_FILES also delete its
// files from the store, except (for UNUSED) those another driver names.
bool DeletePrinterDriverExW(std::u16string_view serverName, std::u16string_view environment,
                            std::u16string_view driverName, DWORD deleteFlags, DWORD versionFlag);

// ---- print processors ---------------------------------------------------------

bool AddPrintProcessorW(std::u16string_view serverName, std::u16string_view environment,
                        std::u16string_view pathName, std::u16string_view name);
std::optional<std::vector<std::u16string>> EnumPrintProcessorsW(std::u16string_view serverName,
                                                                std::u16string_view environment);

// ---- port monitors and ports -------------------------------------------------

// Adds a monitor (MONITOR_INFO_2 without the environment); ERROR_ALREADY_EXISTS.
bool AddMonitorW(std::u16string_view serverName, std::u16string_view name,
                 std::u16string_view dllName);
std::optional<std::vector<std::u16string>> EnumMonitorsW(std::u16string_view serverName);
// Ports of every monitor, level 1 or 2.
std::optional<std::vector<PortInfo2>> EnumPortsW(std::u16string_view serverName, DWORD level);

// On a handle from OpenPrinterW(",XcvMonitor <monitor>"). Returns false with
// ERROR_INVALID_HANDLE for any other handle; otherwise true, with the
// monitor's answer in *status:
//   "GetPort" (input: the port name, UTF-16 with its terminator): the port's
//     text, UTF-16 with its terminator; ERROR_MORE_DATA and *needed when
//     `outputSize` is short; ERROR_UNKNOWN_PORT for a port the monitor lacks.
//   "AddPort" (input: port name): adds an empty port (ERROR_ALREADY_EXISTS).
//   "DeletePort" (input: port name): removes it (ERROR_UNKNOWN_PORT).
//   "SetPortInfo" (input: port name, its terminator, the text and its
//     terminator): replaces the port's text (ERROR_UNKNOWN_PORT).
//   anything else: ERROR_INVALID_PARAMETER.
bool XcvDataW(HANDLE xcv, std::u16string_view dataName, const void* input, DWORD inputSize,
              void* output, DWORD outputSize, DWORD* needed, DWORD* status);

// ---- jobs ----------------------------------------------------------------------

// Queues a job for the handle's user (needs PRINTER_ACCESS_USE); returns its
// id, or 0 on failure. The job stays queued until SetJobW deletes it.
DWORD StartDocPrinterW(HANDLE printer, const DocInfo1& doc);
// Ends the spooling of the handle's current job; it stays queued.
bool EndDocPrinter(HANDLE printer);
// JOB_CONTROL_DELETE / CANCEL removes the job (the job's submitter or
// JOB_ACCESS_ADMINISTER / PRINTER_ACCESS_ADMINISTER), PAUSE / RESUME change
// its status. ERROR_INVALID_PARAMETER for an unknown job id.
bool SetJobW(HANDLE printer, DWORD jobId, DWORD command);
// Level 1, in submission order.
std::optional<std::vector<JobInfo1>> EnumJobsW(HANDLE printer, DWORD firstJob, DWORD count,
                                               DWORD level);

}  // namespace platform
