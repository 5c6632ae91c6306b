// The management class OVASTranslationList: the name translation list in
// its current form (TranslationListEx: header and rule lines) or its older
// form (TranslationList: name, template, name, template ...). A written list
// is checked before it is stored, and the service side is asked to reload.
#pragma once

#include <string>
#include <vector>

#include "platform/wmi.h"

namespace ovsvc {

class COVASWMITList : public platform::Provider {
  public:
    COVASWMITList();

    platform::HRESULT EnumerateInstances(platform::MethodContext* context, long flags) override;
    platform::HRESULT GetObject(platform::CInstance* instance, long flags) override;
    platform::HRESULT ExecQuery(platform::MethodContext* context,
                                const platform::CFrameworkQuery& query, long flags) override;
    platform::HRESULT PutInstance(const platform::CInstance& instance, long flags) override;
    platform::HRESULT DeleteInstance(const platform::CInstance& instance, long flags) override;
    platform::HRESULT ExecMethod(const platform::CInstance& instance, std::u16string_view method,
                                 platform::CInstance* inParams, platform::CInstance* outParams,
                                 long flags) override;

    // The older form as stored: its pairs whose template is not empty, in
    // order (empty when the value is missing or not a REG_MULTI_SZ).
    static std::vector<std::u16string> ReadNameTranslationList();
    // Stores the older form: each string with its NUL, one more NUL at the
    // end. False when the key cannot be opened or the write fails.
    static bool WriteNameTranslationList(const std::vector<std::u16string>& pairs);
};

}  // namespace ovsvc
