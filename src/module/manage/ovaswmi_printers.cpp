#include "manage/ovaswmi_printers.h"

#include <cstring>
#include <optional>

#include "channel/token_fields.h"
#include "common/boundary.h"
#include "manage/wmi_common.h"
#include "ovsvc.h"
#include "trace/trace.h"

namespace ovsvc {

using platform::CInstance;
using platform::HRESULT;

namespace {

constexpr std::int32_t kBufferTooSmall = -19;

// The enumeration text of the service side's cache; nullopt on a failure,
// an empty text when the cache has no entries.
std::optional<std::u16string> CacheRecords() {
    std::uint32_t size = 0;
    std::int32_t result = OVADLLEnumPrinters(nullptr, 0, &size);
    if (result != kBufferTooSmall || size == 0) {
        OVTRACE(ERR | NORM, "OVADLLEnumPrinters returns %d", result);
        return std::nullopt;
    }
    std::vector<char16_t> buffer((size + 1) / 2 + 1, u'\0');
    result = OVADLLEnumPrinters(buffer.data(), size, &size);
    if (result < 0) {
        OVTRACE(ERR | NORM, "OVADLLEnumPrinters returns %d", result);
        return std::nullopt;
    }
    if (result == 0) {
        OVTRACE(INF | NORM, "no cache entries\n");
        return std::u16string();
    }
    return std::u16string(buffer.data());
}

// Walks the records, handing each finished printer to `deliver`.
template <typename Deliver>
void WalkRecords(std::u16string_view text, Deliver deliver) {
    struct Record {
        std::u16string name;
        std::uint32_t references = 0;
        std::vector<std::int32_t> sessions;
        std::vector<std::u16string> users;
        std::size_t index = 0;
    };
    std::optional<Record> current;
    char16_t tag = 0;
    std::u16string value;
    std::uint32_t number = 0;
    while (OVASerToken::ParseToken(text, &tag, &value, &number)) {
        switch (tag) {
            case u'P':
                if (current) {
                    deliver(current->name, current->references, current->sessions, current->users);
                }
                current.emplace();
                current->name = value;
                break;
            case u'R':
                if (current) {
                    current->references = number;
                    current->sessions.assign(number, 0);
                    current->users.assign(number, std::u16string());
                    current->index = 0;
                }
                break;
            case u'S':
                if (current && current->index < current->sessions.size()) {
                    current->sessions[current->index] = static_cast<std::int32_t>(number);
                }
                break;
            case u'U':
                if (current && current->index < current->users.size()) {
                    current->users[current->index] = value;
                }
                if (current) {
                    ++current->index;
                }
                break;
            default:
                break;
        }
    }
    if (current) {
        deliver(current->name, current->references, current->sessions, current->users);
    }
}

void Fill(CInstance* instance, std::uint32_t references, const std::vector<std::int32_t>& sessions,
          const std::vector<std::u16string>& users) {
    instance->SetDWORD(u"ReferenceCount", references);
    const bool set = instance->SetSint32Array(u"SessionID", sessions) &&
                     instance->SetStringArray(u"UserName", users);
    OVTRACE(INF | NORM, "SetVariant returns %d", set ? 1 : 0);
}

}  // namespace

COVASWMIPrinters::COVASWMIPrinters() : Provider(u"OVASPrinters", kWmiNamespace) {}

HRESULT COVASWMIPrinters::EnumerateInstances(platform::MethodContext* context, long) {
    return RunAtBoundary("COVASWMIPrinters::EnumerateInstances", platform::WBEM_E_FAILED, [&] {
        const std::optional<std::u16string> records = CacheRecords();
        if (!records) {
            return platform::WBEM_E_FAILED;
        }
        WalkRecords(*records, [&](const std::u16string& name, std::uint32_t references,
                                  const std::vector<std::int32_t>& sessions,
                                  const std::vector<std::u16string>& users) {
            std::unique_ptr<CInstance> instance = CreateNewInstance(context);
            instance->SetCHString(u"PrinterName", name);
            Fill(instance.get(), references, sessions, users);
            context->Deliver(std::move(instance));
        });
        return platform::WBEM_S_NO_ERROR;
    });
}

HRESULT COVASWMIPrinters::GetObject(CInstance* instance, long) {
    return RunAtBoundary("COVASWMIPrinters::GetObject", platform::WBEM_E_FAILED, [&] {
        std::u16string wanted;
        instance->GetCHString(u"PrinterName", &wanted);
        const std::optional<std::u16string> records = CacheRecords();
        if (!records) {
            return platform::WBEM_E_FAILED;
        }
        WalkRecords(*records, [&](const std::u16string& name, std::uint32_t references,
                                  const std::vector<std::int32_t>& sessions,
                                  const std::vector<std::u16string>& users) {
            if (name == wanted) {
                Fill(instance, references, sessions, users);
            }
        });
        return platform::WBEM_S_NO_ERROR;
    });
}

HRESULT COVASWMIPrinters::ExecQuery(platform::MethodContext*, const platform::CFrameworkQuery&,
                                    long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT COVASWMIPrinters::PutInstance(const CInstance&, long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT COVASWMIPrinters::DeleteInstance(const CInstance&, long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT COVASWMIPrinters::ExecMethod(const CInstance&, std::u16string_view, CInstance*, CInstance*,
                                     long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}

}  // namespace ovsvc
