#include <dlfcn.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "app/core/CoreProbe.h"
#include "config/AudioKit.h"

namespace {

// The file that holds the code at address.
std::string fileHolding(const void* address) {
    Dl_info info{};
    if (::dladdr(address, &info) == 0 || info.dli_fname == nullptr) return "(none)";
    return std::filesystem::path(info.dli_fname).filename().string();
}

// A module loaded as the executable loads the tray shares the executable's core: one settings
// store, one log, one kit configuration per process.
TEST(CoreLoadedOnceTest, AModuleSeesTheSameSettingsLogAndKitAsTheProgram) {
    velmora::AudioKit::modifyConfig(
        [](velmora::AudioKitConfig& config) { config.appName = "Set by the program"; });
    CoreProbe program;
    fillCoreProbe(&program);

    void* module = ::dlopen(VELMORA_CORE_PROBE_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << ::dlerror();
    auto entry = reinterpret_cast<CoreProbeEntry>(::dlsym(module, coreProbeEntryPoint));
    ASSERT_NE(entry, nullptr) << ::dlerror();
    CoreProbe loaded;
    entry(&loaded);

    EXPECT_EQ(loaded.settings, program.settings);
    EXPECT_EQ(loaded.logCall, program.logCall);
    EXPECT_EQ(loaded.kitConfig, program.kitConfig);
    EXPECT_EQ(loaded.kitAppName, "Set by the program");
    for (const void* address : {program.settings, program.logCall, program.kitConfig}) {
        EXPECT_EQ(fileHolding(address), "libvelmora-core.so");
    }
    // Left loaded: the core outlives it either way, and so does the tray module in the helper.
}

}  // namespace
