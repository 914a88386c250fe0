#pragma once

#include <string>

// What a binary that links the core sees of the core's process-wide state; filled in by the
// probe module (loaded with dlopen, as the tray is) and by the test itself, then compared.
struct CoreProbe {
    const void* settings = nullptr;   // &HelperSettings::shared()
    const void* logCall = nullptr;    // velmora::log, whose logger lives in the core
    const void* kitConfig = nullptr;  // AudioKit::config, whose record lives in the core
    std::string kitAppName;           // AudioKit::config().appName as that binary reads it
};

// The probe module's entry point.
inline constexpr const char* coreProbeEntryPoint = "velmora_core_probe";
using CoreProbeEntry = void (*)(CoreProbe*);

// Fills probe from the core as the calling binary reaches it.
void fillCoreProbe(CoreProbe* probe);
