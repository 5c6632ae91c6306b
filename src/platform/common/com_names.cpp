// HRESULT names and GUID text for both backends.
#include <cstdio>

#include "platform/com.h"
#include "platform/wmi.h"

namespace platform {

std::string HResultName(HRESULT hr) {
    struct Named {
        HRESULT value;
        const char* name;
    };
    static constexpr Named kNames[] = {
        {S_OK, "S_OK"},
        {S_FALSE, "S_FALSE"},
        {E_NOTIMPL, "E_NOTIMPL"},
        {E_NOINTERFACE, "E_NOINTERFACE"},
        {E_POINTER, "E_POINTER"},
        {E_ABORT, "E_ABORT"},
        {E_FAIL, "E_FAIL"},
        {E_UNEXPECTED, "E_UNEXPECTED"},
        {E_ACCESSDENIED, "E_ACCESSDENIED"},
        {E_OUTOFMEMORY, "E_OUTOFMEMORY"},
        {E_INVALIDARG, "E_INVALIDARG"},
        {CLASS_E_NOAGGREGATION, "CLASS_E_NOAGGREGATION"},
        {CLASS_E_CLASSNOTAVAILABLE, "CLASS_E_CLASSNOTAVAILABLE"},
        {REGDB_E_READREGDB, "REGDB_E_READREGDB"},
        {REGDB_E_WRITEREGDB, "REGDB_E_WRITEREGDB"},
        {REGDB_E_CLASSNOTREG, "REGDB_E_CLASSNOTREG"},
        {CO_E_NOTINITIALIZED, "CO_E_NOTINITIALIZED"},
        {CO_E_CLASSSTRING, "CO_E_CLASSSTRING"},
        {CO_E_DLLNOTFOUND, "CO_E_DLLNOTFOUND"},
        {CO_E_ERRORINDLL, "CO_E_ERRORINDLL"},
        {DISP_E_UNKNOWNINTERFACE, "DISP_E_UNKNOWNINTERFACE"},
        {DISP_E_MEMBERNOTFOUND, "DISP_E_MEMBERNOTFOUND"},
        {DISP_E_PARAMNOTFOUND, "DISP_E_PARAMNOTFOUND"},
        {DISP_E_TYPEMISMATCH, "DISP_E_TYPEMISMATCH"},
        {DISP_E_UNKNOWNNAME, "DISP_E_UNKNOWNNAME"},
        {DISP_E_NONAMEDARGS, "DISP_E_NONAMEDARGS"},
        {DISP_E_BADVARTYPE, "DISP_E_BADVARTYPE"},
        {DISP_E_EXCEPTION, "DISP_E_EXCEPTION"},
        {DISP_E_OVERFLOW, "DISP_E_OVERFLOW"},
        {DISP_E_BADINDEX, "DISP_E_BADINDEX"},
        {DISP_E_BADPARAMCOUNT, "DISP_E_BADPARAMCOUNT"},
        {DISP_E_PARAMNOTOPTIONAL, "DISP_E_PARAMNOTOPTIONAL"},
        {TYPE_E_REGISTRYACCESS, "TYPE_E_REGISTRYACCESS"},
        {TYPE_E_LIBNOTREGISTERED, "TYPE_E_LIBNOTREGISTERED"},
        {TYPE_E_ELEMENTNOTFOUND, "TYPE_E_ELEMENTNOTFOUND"},
        {TYPE_E_CANTLOADLIBRARY, "TYPE_E_CANTLOADLIBRARY"},
        {WBEM_E_FAILED, "WBEM_E_FAILED"},
        {WBEM_E_NOT_FOUND, "WBEM_E_NOT_FOUND"},
        {WBEM_E_ACCESS_DENIED, "WBEM_E_ACCESS_DENIED"},
        {WBEM_E_PROVIDER_FAILURE, "WBEM_E_PROVIDER_FAILURE"},
        {WBEM_E_TYPE_MISMATCH, "WBEM_E_TYPE_MISMATCH"},
        {WBEM_E_OUT_OF_MEMORY, "WBEM_E_OUT_OF_MEMORY"},
        {WBEM_E_INVALID_PARAMETER, "WBEM_E_INVALID_PARAMETER"},
        {WBEM_E_NOT_SUPPORTED, "WBEM_E_NOT_SUPPORTED"},
        {WBEM_E_INVALID_NAMESPACE, "WBEM_E_INVALID_NAMESPACE"},
        {WBEM_E_INVALID_OBJECT, "WBEM_E_INVALID_OBJECT"},
        {WBEM_E_INVALID_CLASS, "WBEM_E_INVALID_CLASS"},
        {WBEM_E_PROVIDER_NOT_FOUND, "WBEM_E_PROVIDER_NOT_FOUND"},
        {WBEM_E_PROVIDER_LOAD_FAILURE, "WBEM_E_PROVIDER_LOAD_FAILURE"},
        {WBEM_E_INVALID_QUERY, "WBEM_E_INVALID_QUERY"},
        {WBEM_E_INVALID_SYNTAX, "WBEM_E_INVALID_SYNTAX"},
        {WBEM_E_PROVIDER_NOT_CAPABLE, "WBEM_E_PROVIDER_NOT_CAPABLE"},
        {WBEM_E_INVALID_METHOD, "WBEM_E_INVALID_METHOD"},
        {WBEM_E_INVALID_METHOD_PARAMETERS, "WBEM_E_INVALID_METHOD_PARAMETERS"},
    };
    for (const Named& n : kNames) {
        if (n.value == hr) {
            return n.name;
        }
    }
    const auto bits = static_cast<std::uint32_t>(hr);
    if ((bits & 0xFFFF0000u) == 0x80070000u) {
        return "HRESULT_FROM_WIN32(" + std::to_string(bits & 0xFFFFu) + ")";
    }
    return "";
}

bool GuidFromString(std::u16string_view text, GUID* guid) {
    // {8-4-4-4-12}: 38 characters, dashes at fixed places.
    if (text.size() != 38 || text.front() != u'{' || text.back() != u'}') {
        return false;
    }
    std::uint8_t bytes[16] = {};
    std::size_t n = 0;
    for (std::size_t i = 1; i < 37;) {
        if (i == 9 || i == 14 || i == 19 || i == 24) {
            if (text[i] != u'-') {
                return false;
            }
            ++i;
            continue;
        }
        unsigned value = 0;
        for (int k = 0; k < 2; ++k, ++i) {
            const char16_t c = text[i];
            unsigned digit = 0;
            if (c >= u'0' && c <= u'9') {
                digit = c - u'0';
            } else if (c >= u'a' && c <= u'f') {
                digit = c - u'a' + 10;
            } else if (c >= u'A' && c <= u'F') {
                digit = c - u'A' + 10;
            } else {
                return false;
            }
            value = value * 16 + digit;
        }
        bytes[n++] = static_cast<std::uint8_t>(value);
    }
    if (n != 16) {
        return false;
    }
    GUID g;
    g.Data1 = (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
              (std::uint32_t{bytes[2]} << 8) | bytes[3];
    g.Data2 = static_cast<std::uint16_t>((bytes[4] << 8) | bytes[5]);
    g.Data3 = static_cast<std::uint16_t>((bytes[6] << 8) | bytes[7]);
    for (int i = 0; i < 8; ++i) {
        g.Data4[i] = bytes[8 + i];
    }
    *guid = g;
    return true;
}

}  // namespace platform
