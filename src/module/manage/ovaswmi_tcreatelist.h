// The management class OVASPrinterCreateList: the printer create list
// (header and rule lines), read from and written to the product key; a
// written list is checked before it is stored.
#pragma once

#include "platform/wmi.h"

namespace ovsvc {

class COVASWMITCreateList : public platform::Provider {
  public:
    COVASWMITCreateList();

    platform::HRESULT EnumerateInstances(platform::MethodContext* context, long flags) override;
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
