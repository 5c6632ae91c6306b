// A module with given resources, made the way each platform gets one: the
// embedded platform is handed the data; on Windows a real image is written
// with those resources and loaded.
#pragma once

#include <string>

#include "platform/resources.h"

namespace restest {

class TestModule {
  public:
    // `data.fileName` names the module (a unique name, e.g. "ResTest-...dll").
    explicit TestModule(const platform::ModuleResources* data);
    ~TestModule();
    TestModule(const TestModule&) = delete;
    TestModule& operator=(const TestModule&) = delete;

    // Null when the module could not be made; why() says why.
    platform::HMODULE handle() const { return handle_; }
    const std::string& why() const { return why_; }

  private:
    const platform::ModuleResources* data_;
    platform::HMODULE handle_ = nullptr;
    std::string path_;  // the image written (Windows)
    std::string why_;
};

}  // namespace restest
