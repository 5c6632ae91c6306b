// The provider framework's own parts: SAFEARRAYs as Windows lays them out,
// the MOF compiler's refusals (nothing stored, the line named), and WQL.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ovtest.h"
#include "platform/com.h"
#include "platform/wmi.h"

namespace {

using namespace platform;

TEST(SafeArray, TwoDimensionsKeepTheirBoundsAndElementsAndCopyWhole) {
    const SAFEARRAYBOUND bounds[2] = {{3, -1}, {2, 10}};  // [-1..1][10..11]
    UniqueSafeArray array(SafeArrayCreate(VT_BSTR, 2, bounds));
    ASSERT_TRUE(array);
    EXPECT_EQ(SafeArrayGetDim(array.get()), 2u);
    LONG bound = 0;
    EXPECT_EQ(SafeArrayGetLBound(array.get(), 1, &bound), S_OK);
    EXPECT_EQ(bound, -1);
    EXPECT_EQ(SafeArrayGetUBound(array.get(), 2, &bound), S_OK);
    EXPECT_EQ(bound, 11);
    EXPECT_EQ(SafeArrayGetUBound(array.get(), 3, &bound), DISP_E_BADINDEX);
    for (LONG i = -1; i <= 1; ++i) {
        for (LONG j = 10; j <= 11; ++j) {
            const LONG at[2] = {i, j};
            const std::u16string text = ovtest::U16(std::to_string(i) + "/" + std::to_string(j));
            BSTR b = SysAllocString(text.c_str());
            ASSERT_EQ(SafeArrayPutElement(array.get(), at, b), S_OK);
            SysFreeString(b);
        }
    }
    const LONG outside[2] = {2, 10};
    EXPECT_EQ(SafeArrayPutElement(array.get(), outside, nullptr), DISP_E_BADINDEX);

    VARIANT v;
    v.vt = VT_ARRAY | VT_BSTR;
    v.parray = array.release();
    UniqueVariant copy;
    ASSERT_EQ(VariantCopy(copy.get(), &v), S_OK);
    ASSERT_EQ(VariantClear(&v), S_OK);  // the copy stands alone
    const LONG at[2] = {1, 10};
    BSTR got = nullptr;
    ASSERT_EQ(SafeArrayGetElement(copy->parray, at, &got), S_OK);
    EXPECT_EQ(BstrView(got), u"1/10");
    SysFreeString(got);
    std::vector<std::u16string> flat;
    EXPECT_FALSE(ReadStringArray(copy->parray, &flat));  // not one-dimensional
}

TEST(Wql, TheSubsetParsesAndEverythingElseIsAnInvalidQuery) {
    CFrameworkQuery q;
    ASSERT_EQ(ParseWqlQuery(u"select * from OVASPrinters where PrinterName = 'a b'", &q), S_OK);
    EXPECT_EQ(q.className, u"OVASPrinters");
    EXPECT_EQ(q.whereProperty, u"PrinterName");
    EXPECT_EQ(q.whereValue, u"a b");
    CInstance printer(u"OVASPrinters");
    printer.SetCHString(u"PrinterName", u"A B");
    EXPECT_TRUE(QueryMatches(q, printer));
    ASSERT_EQ(ParseWqlQuery(u"SELECT * FROM x WHERE n = 3", &q), S_OK);
    printer.SetDWORD(u"n", 3);
    EXPECT_TRUE(QueryMatches(q, printer));
    for (const char16_t* bad :
         {u"", u"SELECT Name FROM x", u"SELECT * FROM", u"SELECT * FROM x WHERE",
          u"SELECT * FROM x WHERE a > 1", u"SELECT * FROM x WHERE a = 'open",
          u"SELECT * FROM x WHERE a = 1 AND b = 2", u"DELETE * FROM x"}) {
        std::string why;
        EXPECT_EQ(ParseWqlQuery(bad, &q, &why), WBEM_E_INVALID_QUERY) << ovtest::U8(bad);
        EXPECT_NE(why.find("line 1, column "), std::string::npos) << why;
    }
}

class MofCompiler : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("the embedded machine's own MOF compiler and repository");
    }
};

TEST_F(MofCompiler, FaultyTextIsRefusedWholeWithItsLine) {
    const std::string good =
        "#pragma namespace(\"\\\\\\\\.\\\\root\")\n"
        "instance of __Namespace { Name = \"T\"; };\n"
        "#pragma namespace(\"\\\\\\\\.\\\\root\\\\T\")\n";
    struct Case {
        std::string tail;
        const char* reason;  // expected at the start of the error, after "line N: "
        int line;
    };
    const Case cases[] = {
        {"class C { real32 x; };", "type \"real32\" is not supported", 4},
        {"class C {\n uint32 a[];\n};", "arrays of uint32 are not supported", 5},
        {"class C : B { };", "classes with a superclass", 4},
        {"class C { string a; string A; };", "A is declared twice", 4},
        {"class C { uint32 m([ID(0)] string x); };", "parameter x is neither in nor out", 4},
        {"class C { string a = \"x\"; };", "default values are not supported", 4},
        {"instance of C { Name = \"x\"; };", "instances of class C are not supported", 4},
        {"instance of __Win32Provider { Name = $P; };", "alias $P is not defined", 4},
        {"#pragma include(\"x.mof\")", "pragma \"include\" is not supported", 4},
        {"#pragma namespace(\"\\\\\\\\.\\\\root\\\\Nowhere\")", "namespace \"root\\Nowhere\"", 4},
        {"[Dynamic\nclass C { };", "expected ','", 5},
        {"class C { string s; }", "expected ';', found the end", 4},
        {"/* open comment", "comment not closed", 4},
        {"instance of __Win32Provider { Name = \"a\nb\"; };", "text not closed", 4},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_EQ(CompileMof(good + c.tail, &error), WBEM_E_INVALID_SYNTAX) << c.tail;
        const std::string expected = "line " + std::to_string(c.line) + ": " + c.reason;
        EXPECT_EQ(error.rfind(expected, 0), 0u) << error << " / " << expected;
        std::unique_ptr<WbemConnection> none;
        EXPECT_EQ(WbemConnection::Connect(u"root\\T", &none), WBEM_E_INVALID_NAMESPACE);
    }
    std::string error;
    ASSERT_EQ(CompileMof(good + "[Dynamic] class C { [key] string k; sint32 n[]; };", &error), S_OK)
        << error;
    std::unique_ptr<WbemConnection> made;
    ASSERT_EQ(WbemConnection::Connect(u"\\\\.\\ROOT\\t", &made), S_OK);
    ClassSchema schema;
    ASSERT_EQ(made->GetClass(u"c", &schema), S_OK);
    ASSERT_EQ(schema.properties.size(), 2u);
    EXPECT_TRUE(schema.properties[0].key);
    EXPECT_EQ(schema.properties[1].type, CimType::kSint32Array);
    // A class without a registered provider has no instances to give.
    std::vector<std::unique_ptr<CInstance>> instances;
    EXPECT_EQ(made->EnumerateInstances(u"C", &instances), WBEM_E_PROVIDER_NOT_FOUND);
}

}  // namespace
