// ovasctl com ...: the module's automation class as a script sees it. The
// object is created by its ProgID through the registry and called by name
// through IDispatch; the module's registration exports write and remove
// what that needs.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "command.h"
#include "ovsvc.h"
#include "platform/com.h"

namespace ovasctl {
namespace {

struct ComOptions {
    bool json = false;
    std::string progId;
    std::string method;
    std::vector<std::string> arguments;
};

// A value as a script would show it; strings quoted.
std::string Show(const platform::VARIANT& v) {
    switch (v.vt) {
        case platform::VT_EMPTY:
            return "(empty)";
        case platform::VT_BSTR:
            return JsonString(Utf8(platform::BstrView(v.bstrVal)));
        case platform::VT_I4:
            return std::to_string(v.lVal);
        case platform::VT_BOOL:
            return v.boolVal != 0 ? "true" : "false";
        default: {
            platform::VARIANT text;
            if (platform::SUCCEEDED(platform::VariantChangeType(&text, &v, platform::VT_BSTR))) {
                const std::string shown = JsonString(Utf8(platform::BstrView(text.bstrVal)));
                platform::VariantClear(&text);
                return shown;
            }
            return "(type " + std::to_string(v.vt) + ")";
        }
    }
}

bool IsInteger(const std::string& text) {
    std::size_t start = text.size() > 1 && (text[0] == '-' || text[0] == '+') ? 1 : 0;
    return text.size() > start && text.find_first_not_of("0123456789", start) == std::string::npos;
}

// One argument as a script would pass it: "@name" a variable (by
// reference), "s:", "i:" or "b:" a typed literal, otherwise an integer,
// true/false or text.
struct Argument {
    std::string variable;  // empty for a literal
    platform::VARIANT value;
};

bool MakeArgument(const std::string& text, Argument* out) {
    auto setText = [&](const std::string& s) {
        const std::u16string u = Utf16(s);
        out->value.vt = platform::VT_BSTR;
        out->value.bstrVal =
            platform::SysAllocStringLen(u.data(), static_cast<platform::UINT>(u.size()));
    };
    auto setLong = [&](const std::string& s) {
        if (!IsInteger(s)) {
            return false;
        }
        const long long n = std::stoll(s.size() > 19 ? s.substr(0, 19) : s);
        if (n < INT32_MIN || n > INT32_MAX) {
            return false;
        }
        out->value.vt = platform::VT_I4;
        out->value.lVal = static_cast<platform::LONG>(n);
        return true;
    };
    auto setBool = [&](const std::string& s) {
        if (s != "true" && s != "false") {
            return false;
        }
        out->value.vt = platform::VT_BOOL;
        out->value.boolVal = s == "true" ? platform::VARIANT_TRUE : platform::VARIANT_FALSE;
        return true;
    };
    if (text.size() > 1 && text[0] == '@') {
        out->variable = text.substr(1);
        return true;
    }
    if (text.rfind("s:", 0) == 0) {
        setText(text.substr(2));
        return true;
    }
    if (text.rfind("i:", 0) == 0) {
        return setLong(text.substr(2));
    }
    if (text.rfind("b:", 0) == 0) {
        return setBool(text.substr(2));
    }
    if (!setLong(text) && !setBool(text)) {
        setText(text);
    }
    return true;
}

int Call(const ComOptions& o) {
    const bool initialised =
        platform::SUCCEEDED(platform::CoInitializeEx(platform::COINIT_APARTMENTTHREADED));
    int exit = 1;
    {
        platform::CLSID clsid;
        const std::u16string progId = Utf16(o.progId);
        platform::HRESULT hr = platform::GuidFromString(progId, &clsid)
                                   ? platform::S_OK
                                   : platform::CLSIDFromProgID(progId, &clsid);
        platform::ComPtr<platform::IDispatch> object;
        if (platform::SUCCEEDED(hr)) {
            hr = platform::CoCreateInstance(clsid, nullptr, platform::CLSCTX_INPROC_SERVER,
                                            platform::IID_IDispatch, object.put());
        }
        if (platform::FAILED(hr)) {
            std::fprintf(stderr, "ovasctl com call: %s cannot be created: %s\n", o.progId.c_str(),
                         HResultText(hr).c_str());
            if (initialised) {
                platform::CoUninitialize();
            }
            return 1;
        }
        std::u16string name = Utf16(o.method);
        char16_t* names[] = {name.data()};
        platform::DISPID id = platform::DISPID_UNKNOWN;
        hr =
            object->GetIDsOfNames(platform::IID_NULL, names, 1, platform::LOCALE_USER_DEFAULT, &id);

        std::vector<Argument> arguments(o.arguments.size());
        std::vector<platform::VARIANT> variables(o.arguments.size());
        std::vector<platform::VARIANT> rgvarg(o.arguments.size());
        for (std::size_t i = 0; platform::SUCCEEDED(hr) && i < o.arguments.size(); ++i) {
            if (!MakeArgument(o.arguments[i], &arguments[i])) {
                std::fprintf(stderr, "ovasctl com call: argument %zu (%s) is out of range\n", i + 1,
                             o.arguments[i].c_str());
                hr = platform::E_INVALIDARG;
                break;
            }
            // Last argument first, as IDispatch takes them.
            platform::VARIANT& slot = rgvarg[o.arguments.size() - 1 - i];
            if (!arguments[i].variable.empty()) {
                slot.vt = platform::VT_BYREF | platform::VT_VARIANT;
                slot.pvarVal = &variables[i];
            } else {
                slot = arguments[i].value;
            }
        }
        platform::VARIANT result;
        platform::UINT argumentError = 0;
        if (platform::SUCCEEDED(hr)) {
            platform::DISPPARAMS params;
            params.rgvarg = rgvarg.empty() ? nullptr : rgvarg.data();
            params.cArgs = static_cast<platform::UINT>(rgvarg.size());
            platform::EXCEPINFO exception;
            hr = object->Invoke(id, platform::IID_NULL, platform::LOCALE_USER_DEFAULT,
                                platform::DISPATCH_METHOD, &params, &result, &exception,
                                &argumentError);
            platform::SysFreeString(exception.bstrSource);
            platform::SysFreeString(exception.bstrDescription);
            platform::SysFreeString(exception.bstrHelpFile);
        }
        const bool badArgument = hr == platform::DISP_E_TYPEMISMATCH ||
                                 hr == platform::DISP_E_OVERFLOW ||
                                 hr == platform::DISP_E_PARAMNOTFOUND;
        if (o.json) {
            JsonObject out;
            out.Text("method", o.method).Text("hresult", HResultText(hr));
            if (platform::SUCCEEDED(hr)) {
                out.Raw("result", Show(result));
                for (std::size_t i = 0; i < arguments.size(); ++i) {
                    if (!arguments[i].variable.empty()) {
                        out.Raw(arguments[i].variable, Show(variables[i]));
                    }
                }
            }
            std::printf("%s\n", out.str().c_str());
        } else {
            if (platform::SUCCEEDED(hr)) {
                for (std::size_t i = 0; i < arguments.size(); ++i) {
                    if (!arguments[i].variable.empty()) {
                        std::printf("%s = %s\n", arguments[i].variable.c_str(),
                                    Show(variables[i]).c_str());
                    }
                }
                std::printf("result = %s\n", Show(result).c_str());
            } else if (badArgument && argumentError < rgvarg.size()) {
                std::printf("argument %zu is not accepted\n",
                            rgvarg.size() - static_cast<std::size_t>(argumentError));
            }
            std::printf("hresult = %s\n", HResultText(hr).c_str());
        }
        exit = platform::SUCCEEDED(hr) ? 0 : 1;
        platform::VariantClear(&result);
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            platform::VariantClear(&arguments[i].value);
            platform::VariantClear(&variables[i]);
        }
    }
    if (initialised) {
        platform::CoUninitialize();
    }
    return exit;
}

void Install(CLI::App& app) {
    static ComOptions o;
    auto* com = app.add_subcommand("com", "The module's automation class (Ovaspool)");
    com->require_subcommand(1);
    auto* call = com->add_subcommand(
        "call",
        "Create an object by ProgID and call a method by name through IDispatch, as a script "
        "does. Arguments: @NAME an out variable (printed afterwards); s:TEXT, i:N, b:true|false "
        "typed literals; otherwise an integer, true/false or text");
    call->add_flag("--json", o.json, "Print JSON");
    call->add_option("progid", o.progId, "ProgID (OvaspoolLib.Ovaspool) or {CLSID}")->required();
    call->add_option("method", o.method, "Method name, e.g. OVASAddPrinter")->required();
    call->add_option("args", o.arguments, "The method's arguments, in order");
    call->callback([] { ExitCode() = Call(o); });
    com->add_subcommand("register", "DllRegisterServer: the logon manager's entry and the class")
        ->callback([] {
            const OVHRESULT hr = DllRegisterServer();
            std::printf("DllRegisterServer: hresult = %s\n", HResultText(hr).c_str());
            ExitCode() = hr < 0 ? 1 : 0;
        });
    com->add_subcommand("unregister", "DllUnregisterServer: removes what registration wrote")
        ->callback([] {
            const OVHRESULT hr = DllUnregisterServer();
            std::printf("DllUnregisterServer: hresult = %s\n", HResultText(hr).c_str());
            ExitCode() = hr < 0 ? 1 : 0;
        });
}

const AddCommands reg{&Install};

}  // namespace
}  // namespace ovasctl
