// Why the service loop ended when it was not asked to stop, as the host
// prints it before exiting non-zero (both hosts share the wording).
#pragma once

#include <cstdint>
#include <string>

#include "ovsvc.h"

namespace ovaspoolsvc {

inline std::string StopReason(const OVSERVICE_STATUS& status) {
    constexpr std::uint32_t kAlreadyRunning = 1056;   // ERROR_SERVICE_ALREADY_RUNNING
    constexpr std::uint32_t kServiceSpecific = 1066;  // ERROR_SERVICE_SPECIFIC_ERROR
    if (status.dwWin32ExitCode == kAlreadyRunning) {
        return "another instance of the service is already running";
    }
    if (status.dwWin32ExitCode == kServiceSpecific) {
        switch (status.dwServiceSpecificExitCode) {
            case OVSVC_EXIT_TRANSLATION_TABLE:
                return "the translation table could not be loaded";
            case OVSVC_EXIT_NO_SHARED_AREA:
                return "the shared request area could not be created";
            case OVSVC_EXIT_WAIT_FAILED:
                return "waiting for requests failed";
            default:
                return "service-specific error " + std::to_string(status.dwServiceSpecificExitCode);
        }
    }
    return "the request events could not be created (error " +
           std::to_string(status.dwWin32ExitCode) + ")";
}

}  // namespace ovaspoolsvc
