#include "capture/pulse/ApplicationStreams.h"

#include <pulse/def.h>
#include <pulse/proplist.h>

namespace velmora {

namespace {
constexpr const char* linkGroupProperty = "node.link-group";
}

bool isApplicationStream(const pa_sink_input_info& info) {
    if (info.client == PA_INVALID_INDEX) return false;
    if (info.proplist != nullptr && pa_proplist_contains(info.proplist, linkGroupProperty) == 1) {
        return false;
    }
    return true;
}

}  // namespace velmora
