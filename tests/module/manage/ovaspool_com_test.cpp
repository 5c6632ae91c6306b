// The automation class: its command lines, the reading of the client
// program's output, running a program that writes a lot, and what late
// binding answers to calls a script gets wrong.
#include "manage/ovaspool_com.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ovtest.h"
#include "res/com_description.h"

namespace {

using namespace platform;
using ovsvc::res::CLSID_Ovaspool;

constexpr std::size_t kMegabyte = 1024 * 1024;

// Writes 1 MB (a Windows-1252 e-acute in every line) and ends with code 7.
OVTEST_CHILD(chatty) {
    std::string line(1023, 'x');
    line[0] = '\xE9';
    line += '\n';
    for (std::size_t i = 0; i < kMegabyte / line.size(); ++i) {
        std::fwrite(line.data(), 1, line.size(), stdout);
    }
    std::fflush(stdout);
    std::fputs("done", stderr);
    return 7;
}

TEST(OvaspoolCommandTest, CommandLinesCarryOnlyTheGivenSwitches) {
    struct Case {
        const char16_t* address;
        LONG port, job, session;
        const char16_t* expected;
    };
    const Case adds[] = {
        {u"", 0, 0, -1, u"\"Ovaspool.exe\" -I d -q -v"},
        {u"10.0.0.5", 3, 17, 2, u"\"Ovaspool.exe\" -I d -q -v -p 3 -t 17 -s 2 -a 10.0.0.5"},
        {u"", -4, 0, 0, u"\"Ovaspool.exe\" -I d -q -v -p -4 -s 0"},
    };
    for (const Case& c : adds) {
        EXPECT_EQ(ovsvc::AddPrinterCommand(c.address, c.port, c.job, c.session), c.expected);
    }
    EXPECT_EQ(ovsvc::DelPrinterCommand(5, true), u"\"Ovaspool.exe\" -v -q -d all");
    EXPECT_EQ(ovsvc::DelPrinterCommand(5, false), u"\"Ovaspool.exe\" -v -q -d 5");
    EXPECT_EQ(ovsvc::DelPrinterCommand(-1, false), u"\"Ovaspool.exe\" -v -q -d");
}

TEST(OvaspoolCommandTest, PrinterNameLiesBetweenTheMarkers) {
    struct Case {
        const char16_t* output;
        bool found;
        const char16_t* name;
    };
    const Case cases[] = {
        {u"  client printer\r\nCreate \"HP4 on ws12\" from \"Relay\"\r\n", true, u"HP4 on ws12"},
        {u"Create \"\" from \"T\"", true, u""},
        {u"Create \"A\" from \"T\"\nCreate \"B\" from \"T\"", true, u"A"},
        {u"Create \"HP4 on ws12\"", false, u""},
        {u"\"HP4\" from \"T\"", false, u""},
        {u"\" from \"Create \"X\"", false, u""},
    };
    for (const Case& c : cases) {
        std::u16string name;
        EXPECT_EQ(ovsvc::CreatedPrinterName(c.output, &name), c.found) << ovtest::U8(c.output);
        EXPECT_EQ(name, c.name);
    }
}

TEST(OvaspoolCommandTest, RunCommandDrainsAMegabyteAndKeepsTheExitCode) {
    DWORD exitCode = 0;
    std::u16string output;
    ASSERT_TRUE(ovsvc::RunCommand(u"\"" + ovtest::U16(ovtest::SelfPath()) + u"\" --child=chatty",
                                  &exitCode, &output));
    EXPECT_EQ(exitCode, 7u);
    ASSERT_EQ(output.size(), kMegabyte + 4);
    EXPECT_EQ(output[0], u'\u00E9');  // decoded from the ANSI code page
    EXPECT_EQ(output.substr(output.size() - 4), u"done");

    EXPECT_FALSE(ovsvc::RunCommand(u"\"no-such-program-anywhere.exe\" -q", &exitCode, &output));
}

class OvaspoolDispatchTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        ComPtr<IClassFactory> factory;
        ASSERT_EQ(ovsvc::ComGetClassObject(CLSID_Ovaspool, IID_IClassFactory, factory.put()), S_OK);
        ASSERT_EQ(factory->CreateInstance(nullptr, IID_IDispatch, object_.put()), S_OK);
    }
    ComPtr<IDispatch> object_;
};

VARIANT Long(LONG n) {
    VARIANT v;
    v.vt = VT_I4;
    v.lVal = n;
    return v;
}
VARIANT Text(const char16_t* text) {
    VARIANT v;
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocString(text);
    return v;
}
VARIANT Of(VARTYPE type) {
    VARIANT v;
    v.vt = type;
    v.dblVal = 1e10;
    return v;
}

TEST_F(OvaspoolDispatchTest, NamesAreFoundIgnoringCaseAndUnknownOnesAreReported) {
    std::u16string method = u"ovasDELprinter", all = u"FALL", bogus = u"bogus";
    char16_t* names[] = {method.data(), all.data(), bogus.data()};
    DISPID ids[3] = {};
    EXPECT_EQ(object_->GetIDsOfNames(IID_NULL, names, 2, 0, ids), S_OK);
    EXPECT_EQ(ids[0], 2);
    EXPECT_EQ(ids[1], 1);
    EXPECT_EQ(object_->GetIDsOfNames(IID_NULL, names, 3, 0, ids), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(ids[2], DISPID_UNKNOWN);
    names[0] = bogus.data();
    EXPECT_EQ(object_->GetIDsOfNames(IID_NULL, names, 1, 0, ids), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(ids[0], DISPID_UNKNOWN);
}

TEST_F(OvaspoolDispatchTest, BadCallsGetTheWindowsResultsAndRunNothing) {
    VARIANT variable;
    VARIANT byRef;
    byRef.vt = VT_BYREF | VT_VARIANT;
    byRef.pvarVal = &variable;
    struct Case {
        const char* what;
        DISPID id;
        WORD flags;
        std::vector<VARIANT> args;  // in the caller's order
        HRESULT expected;
        UINT argumentError;  // index into rgvarg (last argument first)
    };
    Case cases[] = {
        {"unknown member", 99, DISPATCH_METHOD, {}, DISP_E_MEMBERNOTFOUND, 0},
        {"property put", 2, DISPATCH_PROPERTYPUT, {Long(1), Long(0)}, DISP_E_MEMBERNOTFOUND, 0},
        {"too few", 2, DISPATCH_METHOD, {Long(1)}, DISP_E_BADPARAMCOUNT, 0},
        {"too many", 2, DISPATCH_METHOD, {Long(1), Long(0), Long(0)}, DISP_E_BADPARAMCOUNT, 0},
        {"text for a number", 2, DISPATCH_METHOD, {Text(u"abc"), Long(0)}, DISP_E_TYPEMISMATCH, 1},
        {"text for a flag", 2, DISPATCH_METHOD, {Long(1), Text(u"maybe")}, DISP_E_TYPEMISMATCH, 0},
        {"null", 2, DISPATCH_METHOD, {Of(VT_NULL), Long(0)}, DISP_E_TYPEMISMATCH, 1},
        {"too large", 2, DISPATCH_METHOD, {Of(VT_R8), Long(0)}, DISP_E_OVERFLOW, 1},
        {"unknown type", 2, DISPATCH_METHOD, {Of(0x7F), Long(0)}, DISP_E_BADVARTYPE, 1},
        {"out by value",
         1,
         DISPATCH_METHOD,
         {Long(0), Text(u""), Long(0), Long(0), Long(-1)},
         DISP_E_TYPEMISMATCH,
         4},
        {"missing out",
         1,
         DISPATCH_METHOD,
         {byRef, Text(u""), Long(0), Long(0)},
         DISP_E_BADPARAMCOUNT,
         0},
    };
    for (Case& c : cases) {
        std::vector<VARIANT> rgvarg(c.args.rbegin(), c.args.rend());
        DISPPARAMS params;
        params.rgvarg = rgvarg.data();
        params.cArgs = static_cast<UINT>(rgvarg.size());
        VARIANT result;
        UINT argumentError = 12345;
        EXPECT_EQ(
            object_->Invoke(c.id, IID_NULL, 0, c.flags, &params, &result, nullptr, &argumentError),
            c.expected)
            << c.what;
        if (c.argumentError != 0) {
            EXPECT_EQ(argumentError, c.argumentError) << c.what;
        }
        EXPECT_EQ(result.vt, VT_EMPTY) << c.what;
        EXPECT_EQ(variable.vt, VT_EMPTY) << c.what;
        for (VARIANT& v : c.args) {
            if (v.vt == VT_BSTR) {
                VariantClear(&v);
            }
        }
    }
    // Named arguments name parameter positions; the return value and
    // positions past the end are not parameters a caller can give.
    VARIANT named[2] = {Long(0), Long(1)};
    DISPID positions[2] = {2, 0};
    DISPPARAMS params{named, positions, 2, 2};
    UINT argumentError = 0;
    EXPECT_EQ(
        object_->Invoke(2, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, &argumentError),
        DISP_E_PARAMNOTFOUND);
    EXPECT_EQ(argumentError, 0u);
    const IID other{1, 2, 3, {}};
    EXPECT_EQ(object_->Invoke(2, other, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr),
              DISP_E_UNKNOWNINTERFACE);
}

TEST_F(OvaspoolDispatchTest, MissingOutPointersAreRefused) {
    ComPtr<ovsvc::IOvaspool> object;
    ASSERT_EQ(object_->QueryInterface(ovsvc::res::IID_IOvaspool, object.put()), S_OK);
    VARIANT name = Long(42);
    LONG result = 99;
    EXPECT_EQ(object->OVASAddPrinter(nullptr, nullptr, 0, 0, -1, &result), E_POINTER);
    EXPECT_EQ(object->OVASAddPrinter(&name, nullptr, 0, 0, -1, nullptr), E_POINTER);
    EXPECT_EQ(object->OVASDelPrinter(0, VARIANT_TRUE, nullptr), E_POINTER);
    EXPECT_EQ(result, 99);
    EXPECT_EQ(name.lVal, 42);
    ComPtr<IUnknown> none;
    const IID other{1, 2, 3, {}};
    EXPECT_EQ(object_->QueryInterface(other, none.put()), E_NOINTERFACE);
    EXPECT_FALSE(none);
}

}  // namespace
