// The translation table end to end: a list imported from a .reg file, the
// running service told to reload it, and client processes asking it for the
// templates of their printers.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "channel_support.h"
#include "config/product_key.h"
#include "ovsvc.h"
#include "ovtest.h"
#include "platform/registry.h"

using namespace std::chrono_literals;

namespace {

// Prints "result=<n>" and each template as "t<i>=[...]".
OVTEST_CHILD(rules_translate) {
    const std::u16string ip = ovtest::U16(args.at(0));
    const std::u16string printer = ovtest::U16(args.at(1));
    const std::uint32_t type = static_cast<std::uint32_t>(std::stoul(args.at(2)));
    std::vector<char16_t> templates(8400, u'\0');
    const std::int32_t result =
        OVADLLTranslate(channeltest::Ov(ip.c_str()), channeltest::Ov(u"CLIENT7"),
                        channeltest::Ov(u"HP PCL 6"), channeltest::Ov(printer.c_str()),
                        channeltest::Ov(u"HP LaserJet"), type, channeltest::Ov(templates.data()));
    std::printf("result=%d\n", result);
    const char16_t* p = templates.data();
    for (int i = 0; i < 3 && *p != 0; ++i) {
        const std::u16string name(p);
        std::printf("t%d=[%s]\n", i, ovtest::U8(name).c_str());
        p += name.size() + 1;
    }
    return 0;
}

OVTEST_CHILD(rules_reload) {
    std::printf("result=%d\n", OVADLLLoadTranslationList());
    return 0;
}

// The hex(7) form of a list in a .reg file: UTF-16LE, each string and the
// list ended by a zero.
std::string MultiSzHex(const std::vector<std::string>& lines) {
    std::string hex;
    char byte[4];
    const auto put = [&](unsigned value) {
        std::snprintf(byte, sizeof byte, "%02x", value & 0xFF);
        hex += hex.empty() ? "" : ",";
        hex += byte;
    };
    for (const std::string& line : lines) {
        for (const char16_t c : ovtest::U16(line)) {
            put(c & 0xFF);
            put(c >> 8);
        }
        put(0);
        put(0);
    }
    put(0);
    put(0);
    return hex;
}

class TranslationSystemTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        ovtest::MachineTest::SetUp();
        channeltest::ResetProductKey();
    }

    void TearDown() override {
        if (service_.Running()) {
            service_.Terminate();
            service_.Wait(10s);
        }
        ovtest::MachineTest::TearDown();
    }

    void StartService() {
        service_ = channeltest::StartService();
        ASSERT_TRUE(channeltest::WaitForServiceReady(10s)) << service_.output();
    }

    void ImportList(const std::vector<std::string>& lines) {
        const std::string path = root() + "/translation.reg";
        std::ofstream out(path);
        out << "Windows Registry Editor Version 5.00\n\n"
            << "[HKEY_LOCAL_MACHINE\\Software\\Orvelle\\Ovaspool]\n"
            << "\"NameTranslationEx\"=hex(7):" << MultiSzHex(lines) << "\n";
        out.close();
        ovtest::Process tool =
            ovtest::Process::Start(ovtest::BinDir() + "/ovasctl", {"reg", "import", path});
        ASSERT_EQ(tool.Wait(30s), 0) << tool.output();
    }

    std::int32_t Reload() {
        ovtest::Process client = ovtest::Process::StartChild("rules_reload");
        EXPECT_EQ(client.Wait(30s), 0);
        return channeltest::ParseResult(client.output());
    }

    // "result=<n>" followed by the templates, one "t<i>=[name]" line each.
    std::string Translate(const std::string& ip, const std::string& printer,
                          std::uint32_t type = 0) {
        ovtest::Process client =
            ovtest::Process::StartChild("rules_translate", {ip, printer, std::to_string(type)});
        EXPECT_EQ(client.Wait(30s), 0);
        const std::string out = client.output();
        const std::size_t at = out.find("result=");
        return at == std::string::npos ? out : out.substr(at);
    }

    ovtest::Process service_;
};

TEST_F(TranslationSystemTest, ImportedListIsUsedAfterReload) {
    {
        platform::UniqueKey key;
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, ovsvc::kProductKey, 0,
                                            platform::KEY_ALL_ACCESS, &key, nullptr),
                  0);
        const std::u16string pairs(u"*\0Before\0\0", 10);
        ASSERT_EQ(
            platform::RegSetValueExW(key.get(), u"NameTranslation", platform::REG_MULTI_SZ,
                                     pairs.data(), static_cast<platform::DWORD>(pairs.size() * 2)),
            0);
    }
    StartService();
    EXPECT_EQ(Translate("10.1.1.1", "lp1"), "result=1\nt0=[Before]\n");

    ImportList({",,,,,,,,,,", "10.0.0.0/8,*,*,*,*,true,true,true,true,PrnA,", ",,,,,,,,,!P,",
                "*,*,hp*,*,*,false,true,false,false,Ica_%LCPRN%,",
                "*,*,*,*,*,true,true,true,true,-,"});
    // Nothing changes until the service is told to reload.
    EXPECT_EQ(Translate("10.1.1.1", "lp1"), "result=1\nt0=[Before]\n");
    EXPECT_EQ(Reload(), 1);

    EXPECT_EQ(Translate("10.1.1.1", "lp1"), "result=1\nt0=[PrnA]\n");
    // Outside 10/8: the try rule gives the printer's name, then the client
    // type 3 rule matches the driver and ends the search.
    EXPECT_EQ(Translate("192.168.0.1", "\\\\srv\\lp1", 3),
              "result=1\nt0=[lp1 on srv]\nt1=[Ica_lp1]\n");
    // Another client type: the "-" rule stops after the try rule's entry.
    EXPECT_EQ(Translate("192.168.0.1", "lp2", 0), "result=1\nt0=[lp2]\n");
}

TEST_F(TranslationSystemTest, FaultyListFailsReloadAndIsStoredCorrected) {
    ImportList({",,,,,,,,,,", "*,*,*,*,*,true,true,true,true,First,"});
    StartService();
    ImportList({",,,,,,,,,,", "*,*,*,short", "*,*,*,*,*,true,true,true,true,Kept,"});
    EXPECT_EQ(Reload(), 0);
    // The table holds what was read before the fault: only the try rules.
    EXPECT_EQ(Translate("10.1.1.1", "lp1"), "result=1\nt0=[lp1]\nt1=[HP LaserJet]\n");
    // The stored list was corrected without losing the good rule.
    EXPECT_EQ(Reload(), 1);
    EXPECT_EQ(Translate("10.1.1.1", "lp1"), "result=1\nt0=[Kept]\n");
}

TEST_F(TranslationSystemTest, FaultyListAtStartEndsTheServiceUntilCorrected) {
    ImportList({",,,,,,,,,,", "*,*,*,*,*,true,true,true,true,Kept,", "broken line"});
    // The load at start fails: the service loop returns without serving,
    // and the host says so.
    ovtest::Process first = channeltest::StartServiceHost();
    EXPECT_EQ(first.Wait(20s), 1) << first.output();
    EXPECT_NE(first.output().find("the translation table could not be loaded"), std::string::npos)
        << first.output();
    // The load stored the list corrected, so the next start succeeds.
    StartService();
    EXPECT_EQ(Translate("10.1.1.1", "lp1"), "result=1\nt0=[Kept]\n");
}

}  // namespace
