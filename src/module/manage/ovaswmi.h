// The management class Ovaspool: the product's configuration as one
// singleton instance, and the methods that restart the service and add,
// delete and repair printers through the module's client operations.
#pragma once

#include <string_view>

#include "platform/scm.h"
#include "platform/wmi.h"

namespace ovsvc {

class COVASWMI : public platform::Provider {
  public:
    COVASWMI();

    platform::HRESULT EnumerateInstances(platform::MethodContext* context, long flags) override;
    platform::HRESULT GetObject(platform::CInstance* instance, long flags) override;
    platform::HRESULT ExecQuery(platform::MethodContext* context,
                                const platform::CFrameworkQuery& query, long flags) override;
    platform::HRESULT PutInstance(const platform::CInstance& instance, long flags) override;
    platform::HRESULT DeleteInstance(const platform::CInstance& instance, long flags) override;
    platform::HRESULT ExecMethod(const platform::CInstance& instance, std::u16string_view method,
                                 platform::CInstance* inParams, platform::CInstance* outParams,
                                 long flags) override;

    // Start and stop of a service, each waiting up to 30 s for the state:
    // 0 when it was reached, -1 otherwise. A start refused because the
    // service runs already counts as started.
    static int ServiceStart(std::u16string_view name);
    static int ServiceStop(std::u16string_view name);
    // Polls the service's status every 500 ms until it reads `state`
    // (nonzero) or gives up (0): after `timeout` ms (INFINITE: never; last
    // error 1460), when a status query fails, or when a pending service
    // stops advancing its check point once its wait hint (the timeout when
    // it gives none) has passed. `status` holds the last status read.
    static int WaitForServiceToReachState(platform::SC_HANDLE service, platform::DWORD state,
                                          platform::SERVICE_STATUS* status,
                                          platform::DWORD timeout);

    // The module's file version packed as major (bits 31-24), minor (23-16)
    // and build (15-0); 0 when the version cannot be read.
    static std::uint32_t ModuleVersion();
};

}  // namespace ovsvc
