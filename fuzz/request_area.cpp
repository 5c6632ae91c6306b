// The service's dispatch of one request taken from arbitrary area contents:
// any local process may write the shared request area, so every field may
// be missing its terminator, hold any length, name any session, mapping or
// user. The fuzzer's bytes overlay the area from the command field on; the
// area is a heap block of exactly its size, so a write outside it is an
// AddressSanitizer finding. The machine has a template the translation list
// points every client at, so create requests reach the spooler.
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include "channel/dispatch.h"
#include "channel/service_loop.h"
#include "channel/shm.h"
#include "common/module_state.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/spooler.h"

using namespace ovsvc;

namespace {

void SetValue(const char16_t* name, platform::DWORD type, const std::u16string& text) {
    platform::UniqueKey key;
    platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, u"Software\\Orvelle\\Ovaspool", 0,
                              platform::KEY_ALL_ACCESS, &key, nullptr);
    platform::RegSetValueExW(key.get(), name, type, text.data(),
                             static_cast<platform::DWORD>(text.size() * 2));
}

void SetUpMachine() {
    std::random_device random;
    const auto root =
        std::filesystem::temp_directory_path() / ("ovsvc-fuzz-request-" + std::to_string(random()));
    platform::machine::UseRoot(root.string());
    const platform::DWORD one = 1;
    {
        platform::UniqueKey key;
        platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, u"Software\\Orvelle\\Ovaspool", 0,
                                  platform::KEY_ALL_ACCESS, &key, nullptr);
        platform::RegSetValueExW(key.get(), u"RightsWin2000", platform::REG_DWORD, &one, 4);
    }
    std::u16string list = u"IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag";
    list += u'\0';
    list += u"*,*,*,*,*,true,true,true,true,Fuzz,";
    list += std::u16string(2, u'\0');
    SetValue(u"NameTranslationEx", platform::REG_MULTI_SZ, list);
    platform::AddMonitorW(u"", u"Orvelle Port", u"ovmon.dll");
    platform::PrinterDefaults admin;
    admin.desiredAccess = platform::SERVER_ACCESS_ADMINISTER;
    const platform::UniquePrinter xcv = platform::OpenPrinterW(u",XcvMonitor Orvelle Port", &admin);
    platform::DWORD needed = 0;
    platform::DWORD status = 0;
    const std::u16string port = u"OVAS1:";
    platform::XcvDataW(xcv.get(), u"AddPort", port.c_str(),
                       static_cast<platform::DWORD>((port.size() + 1) * 2), nullptr, 0, &needed,
                       &status);
    const std::u16string info = port + u'\0' + u"Protocol=3\nOVASScheme=%A:%I#%N" + u'\0';
    platform::XcvDataW(xcv.get(), u"SetPortInfo", info.data(),
                       static_cast<platform::DWORD>(info.size() * 2), nullptr, 0, &needed, &status);
    platform::PrinterInfo2 templ;
    templ.printerName = u"_#Fuzz";
    templ.driverName = u"Generic / Text Only";
    templ.portName = port;
    templ.printProcessor = u"WinPrint";
    templ.datatype = u"RAW";
    const platform::UniquePrinter added = platform::AddPrinterW(u"", templ);
    fIsService = true;
    if (!LoadTranslationTableAtStart() || !InitPrinterList()) {
        std::abort();
    }
}

// A slot of the reply must end in a zero within its units.
void CheckTerminated(const SHM& area, std::size_t byteOffset, std::size_t units) {
    const auto* base = reinterpret_cast<const unsigned char*>(&area) + byteOffset;
    for (std::size_t i = 0; i < units; ++i) {
        if (base[2 * i] == 0 && base[2 * i + 1] == 0) {
            return;
        }
    }
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SetUpMachine();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static unsigned runs = 0;
    auto area = std::make_unique<SHM>();
    std::memset(area.get(), 0, sizeof(SHM));
    constexpr std::size_t kFrom = offsetof(SHM, Command);
    std::memcpy(reinterpret_cast<unsigned char*>(area.get()) + kFrom, data,
                std::min(size, sizeof(SHM) - kFrom));
    // Mostly the six commands, sometimes another number.
    if (area->Command > 7) {
        area->Command = area->Command % 8;
    }
    Dispatch(area.get());
    switch (area->Command) {
        case CMDAddPrinter:
            CheckTerminated(*area, kCreatedNameOffset, kCreatedNameUnits);
            CheckTerminated(*area, kCreatedClassOffset, kCreatedNameUnits);
            break;
        case CMDTranslate:
            CheckTerminated(*area, 24, 256);
            CheckTerminated(*area, 536, 256);
            CheckTerminated(*area, 1048, (kReplyOffset + kReplyBytes - 1048) / 2);
            break;
        case CMDEnumPrinter:
            // A mapping the fuzzer names cannot exist: only the size query succeeds.
            if (area->PN[0] != u'\0' && area->Result != -1) {
                std::abort();
            }
            break;
        default:
            if ((area->Command == 0 || area->Command > CMDLoadTranslationList) &&
                area->Result != -1) {
                std::abort();
            }
            break;
    }
    // The spooler keeps what was created: start over now and then.
    if (++runs % 256 == 0) {
        auto reset = std::make_unique<SHM>();
        reset->Command = CMDDelPrinter;
        reset->PID = 1;
        Dispatch(reset.get());
    }
    return 0;
}
