// A module linked as the tray module is, exporting one entry point that reports the core it sees.
#include "app/core/CoreProbe.h"

extern "C" __attribute__((visibility("default"))) void velmora_core_probe(CoreProbe* probe) {
    fillCoreProbe(probe);
}
