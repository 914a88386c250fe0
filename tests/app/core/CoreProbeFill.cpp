#include "app/core/CoreProbe.h"
#include "config/AudioKit.h"
#include "config/HelperSettings.h"
#include "config/Log.h"

void fillCoreProbe(CoreProbe* probe) {
    using namespace velmora;
    probe->settings = &HelperSettings::shared();
    probe->logCall = reinterpret_cast<const void*>(&velmora::log);
    probe->kitConfig = reinterpret_cast<const void*>(&AudioKit::config);
    probe->kitAppName = AudioKit::config().appName;
}
