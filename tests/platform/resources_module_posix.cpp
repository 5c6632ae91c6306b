// The embedded platform learns a module's resources from the module itself.
#include "resources_test_support.h"

namespace restest {

TestModule::TestModule(const platform::ModuleResources* data) : data_(data) {
    handle_ = platform::RegisterModuleResources(data_);
    if (handle_ == nullptr) {
        why_ = "RegisterModuleResources failed";
    }
}

TestModule::~TestModule() {
    platform::UnregisterModuleResources(data_);
}

}  // namespace restest
