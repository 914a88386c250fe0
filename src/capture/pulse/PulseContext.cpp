#include "capture/pulse/PulseContext.h"

#include <pulse/error.h>
#include <pulse/proplist.h>
#include <pulse/subscribe.h>

#include "config/AudioKit.h"
#include "config/HelperInfo.h"

namespace velmora {

pa_context* createPulseContext(pa_mainloop_api* api) {
    const auto config = AudioKit::config();
    pa_proplist* properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, config.appName.c_str());
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, HelperInfo::bundleId);
    pa_context* context = pa_context_new_with_proplist(api, config.appName.c_str(), properties);
    pa_proplist_free(properties);
    return context;
}

int connectPulseContext(pa_context* context, const std::optional<std::string>& server) {
    if (pa_context_connect(context, server ? server->c_str() : nullptr, PA_CONTEXT_NOAUTOSPAWN,
                           nullptr) < 0) {
        return pa_context_errno(context);
    }
    return PA_OK;
}

void releasePulseContext(pa_context*& context) {
    if (context == nullptr) {
        return;
    }
    pa_context_set_state_callback(context, nullptr, nullptr);
    pa_context_set_subscribe_callback(context, nullptr, nullptr);
    pa_context_disconnect(context);
    pa_context_unref(context);
    context = nullptr;
}

}  // namespace velmora
