// The management class OVASPrinters: one read-only instance per printer in
// the service side's cache (PrinterName, ReferenceCount, and per session its
// SessionID and UserName), from the module's enumeration operation.
#pragma once

#include "platform/wmi.h"

namespace ovsvc {

class COVASWMIPrinters : public platform::Provider {
  public:
    COVASWMIPrinters();

    platform::HRESULT EnumerateInstances(platform::MethodContext* context, long flags) override;
    // Fills the instance named by its key PrinterName (compared exactly);
    // succeeds with only the key when no cached printer has that name.
    platform::HRESULT GetObject(platform::CInstance* instance, long flags) override;
    platform::HRESULT ExecQuery(platform::MethodContext* context,
                                const platform::CFrameworkQuery& query, long flags) override;
    platform::HRESULT PutInstance(const platform::CInstance& instance, long flags) override;
    platform::HRESULT DeleteInstance(const platform::CInstance& instance, long flags) override;
    platform::HRESULT ExecMethod(const platform::CInstance& instance, std::u16string_view method,
                                 platform::CInstance* inParams, platform::CInstance* outParams,
                                 long flags) override;
};

}  // namespace ovsvc
