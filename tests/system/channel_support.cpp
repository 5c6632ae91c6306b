#include "channel_support.h"

#include <fstream>
#include <sstream>

#include "platform/registry.h"

namespace channeltest {

namespace {
constexpr char16_t kProductKey[] = u"Software\\Orvelle\\Ovaspool";

void SetValue(const std::u16string& name, platform::DWORD type, const void* data,
              platform::DWORD size) {
    platform::UniqueKey key;
    ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                                        platform::KEY_ALL_ACCESS, &key, nullptr),
              platform::ERROR_SUCCESS);
    ASSERT_EQ(platform::RegSetValueExW(key.get(), name, type, data, size), platform::ERROR_SUCCESS);
}
}  // namespace

void ResetProductKey() {
    const platform::LSTATUS status =
        platform::RegDeleteTreeW(platform::HKEY_LOCAL_MACHINE, kProductKey);
    EXPECT_TRUE(status == platform::ERROR_SUCCESS || status == platform::ERROR_FILE_NOT_FOUND)
        << "deleting the product key: " << status;
}

void SetProductDword(const std::u16string& name, std::uint32_t value) {
    SetValue(name, platform::REG_DWORD, &value, sizeof(value));
}

void SetProductString(const std::u16string& name, const std::u16string& value) {
    SetValue(name, platform::REG_SZ, value.c_str(),
             static_cast<platform::DWORD>((value.size() + 1) * 2));
}

void SetEchoTranslation() {
    std::u16string multi;
    for (const std::u16string line : {u"IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag",
                                      u"*,*,*,*,*,true,true,true,true,%LCPRN%-T,"}) {
        multi += line;
        multi.push_back(u'\0');
    }
    multi.push_back(u'\0');
    SetValue(u"NameTranslationEx", platform::REG_MULTI_SZ, multi.data(),
             static_cast<platform::DWORD>(multi.size() * 2));
}

std::string SetUpRelayTemplate(const std::vector<std::string>& rules) {
    std::vector<std::string> list = {"reg",
                                     "set",
                                     "HKLM\\Software\\Orvelle\\Ovaspool",
                                     "NameTranslationEx",
                                     "--type",
                                     "multi_sz",
                                     "IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag"};
    list.insert(list.end(), rules.begin(), rules.end());
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"spool", "port", "add", "Orvelle Port", "OVAS1:", "--info",
              "Protocol=3\\nOVASScheme=%A:%I#%N"},
             {"spool", "template", "add", "Relay", "--driver", "Generic / Text Only", "--port",
              "OVAS1:"},
             list}) {
        const CtlResult r = Ctl(args);
        if (r.exit != 0) {
            return r.out.empty() ? "ovasctl failed" : r.out;
        }
    }
    return {};
}

std::string EnableTrace(const std::string& root, std::uint32_t level) {
    const std::string path = root + "/trace.log";
    SetProductDword(u"DebugLevel", level);
    SetProductString(u"DebugFile", ovtest::U16(path));
    return path;
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int CountOccurrences(const std::string& text, const std::string& needle) {
    int count = 0;
    for (std::size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size())) {
        ++count;
    }
    return count;
}

bool WaitForServiceReady(std::chrono::milliseconds timeout) {
    return WaitUntil(
        [] {
            // OVAck1 is the last of the service's events to be created.
            platform::UniqueEvent ack1 =
                platform::OpenEventW(platform::SYNCHRONIZE, false, u"Global\\OVC-Ack1");
            return static_cast<bool>(ack1);
        },
        timeout);
}

ovtest::Process StartServiceHost() {
    // In the foreground: on Windows the host would otherwise first try to
    // reach the service control manager.
    return ovtest::Process::Start(ovtest::BinDir() + "/ovaspoolsvc", {"--console"});
}

ovtest::Process StartService() {
    ovtest::Process service = StartServiceHost();
    EXPECT_TRUE(WaitForServiceReady(std::chrono::seconds(10))) << service.output();
    return service;
}

AreaView::AreaView() {
    mapping_ = platform::OpenFileMappingW(platform::FILE_MAP_ALL_ACCESS, false, u"Global\\OVC-SHM");
    if (mapping_) {
        view_ = platform::MapViewOfFile(mapping_.get(), platform::FILE_MAP_ALL_ACCESS, 0,
                                        sizeof(ovsvc::SHM));
    }
}

std::int32_t ParseResult(const std::string& output) {
    const auto pos = output.rfind("result=");
    if (pos == std::string::npos) {
        return INT32_MIN;
    }
    return static_cast<std::int32_t>(std::stol(output.substr(pos + 7)));
}

CtlResult Ctl(const std::vector<std::string>& args) {
    ovtest::Process ctl = ovtest::Process::Start(ovtest::BinDir() + "/ovasctl", args);
    CtlResult result;
    result.exit = ctl.Wait(std::chrono::seconds(60));
    result.out = ctl.output();
    return result;
}

}  // namespace channeltest
