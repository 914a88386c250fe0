#include "meetings/pulse/RecordingStreamView.h"

#include <pulse/pulseaudio.h>

#include <string_view>
#include <utility>

#include "config/HelperInfo.h"

namespace velmora {
namespace {

using Clock = std::chrono::steady_clock;

std::string property(const pa_proplist* properties, const char* key) {
    const char* value = properties ? pa_proplist_gets(properties, key) : nullptr;
    return value ? std::string(value) : std::string();
}

ApplicationIdentity identityOf(const pa_proplist* properties) {
    return ApplicationIdentity::fromProperties([properties](std::string_view key) {
        return property(properties, std::string(key).c_str());
    });
}

// Level meters (a volume control's peak display) are not microphone use. PipeWire marks them
// with stream.monitor; PulseAudio serves them with the "peaks" resampler.
bool isLevelMeter(const pa_source_output_info& info) {
    const std::string monitor = property(info.proplist, "stream.monitor");
    return monitor == "true" || monitor == "1" ||
           (info.resample_method && std::string_view(info.resample_method) == "peaks");
}

RecordingStreamTable::Stream streamOf(const pa_source_output_info& info) {
    return RecordingStreamTable::Stream{.source = info.source,
                                        .client = info.client,
                                        .corked = info.corked != 0,
                                        .levelMeter = isLevelMeter(info),
                                        .identity = identityOf(info.proplist)};
}

timeval after(std::chrono::milliseconds delay) {
    timeval when{};
    pa_gettimeofday(&when);
    pa_timeval_add(&when, static_cast<pa_usec_t>(delay.count()) * PA_USEC_PER_MSEC);
    return when;
}

// Requests whose answer is not needed to keep them: libpulse holds them until they finish.
void release(pa_operation* operation) {
    if (operation != nullptr) {
        pa_operation_unref(operation);
    }
}

}  // namespace

// The libpulse callbacks, all on the loop thread. A listing calls its callback once per entry
// and then once more with eol 1 (or negative on failure); a single entry's request answers the
// same way, with eol negative when the entry is already gone.
struct RecordingStreamViewEvents {
    static RecordingStreamView& view(void* userdata) {
        return *static_cast<RecordingStreamView*>(userdata);
    }

    static void onCheckTimer(pa_mainloop_api*, pa_time_event*, const timeval*, void* userdata) {
        view(userdata).check();
    }

    static void onContextState(pa_context*, void* userdata) { view(userdata).contextChanged(); }

    static void onServerInfo(pa_context*, const pa_server_info*, void* userdata) {
        view(userdata).serverAnswered();
    }

    static void onStreamListed(pa_context*, const pa_source_output_info* info, int eol,
                               void* userdata) {
        if (eol != 0 || info == nullptr) {
            view(userdata).listingDone(eol != 0 ? eol : -1);
            return;
        }
        view(userdata).table_.putStream(info->index, streamOf(*info));
    }

    static void onSourceListed(pa_context*, const pa_source_info* info, int eol, void* userdata) {
        if (eol != 0 || info == nullptr) {
            view(userdata).listingDone(eol != 0 ? eol : -1);
            return;
        }
        view(userdata).table_.putSource(info->index, info->monitor_of_sink != PA_INVALID_INDEX);
    }

    static void onClientListed(pa_context*, const pa_client_info* info, int eol, void* userdata) {
        if (eol != 0 || info == nullptr) {
            view(userdata).listingDone(eol != 0 ? eol : -1);
            return;
        }
        view(userdata).table_.putClient(info->index, identityOf(info->proplist));
    }

    static void onStream(pa_context*, const pa_source_output_info* info, int eol, void* userdata) {
        if (eol == 0 && info != nullptr) {
            view(userdata).table_.putStream(info->index, streamOf(*info));
            view(userdata).publish();
        }
    }

    static void onSource(pa_context*, const pa_source_info* info, int eol, void* userdata) {
        if (eol == 0 && info != nullptr) {
            view(userdata).table_.putSource(info->index, info->monitor_of_sink != PA_INVALID_INDEX);
            view(userdata).publish();
        }
    }

    static void onClient(pa_context*, const pa_client_info* info, int eol, void* userdata) {
        if (eol == 0 && info != nullptr) {
            view(userdata).table_.putClient(info->index, identityOf(info->proplist));
            view(userdata).publish();
        }
    }

    // The server tells what changed and where; a new or changed entry is asked for, a removed
    // one dropped. The server answers in order, so an answer never brings back an entry whose
    // removal was announced before it.
    static void onEvent(pa_context* context, pa_subscription_event_type_t type, std::uint32_t index,
                        void* userdata) {
        RecordingStreamView& self = view(userdata);
        const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        const bool removed =
            (type & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_REMOVE;
        switch (facility) {
            case PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT:
                if (removed) {
                    self.table_.removeStream(index);
                } else {
                    release(pa_context_get_source_output_info(context, index, onStream, userdata));
                }
                break;
            case PA_SUBSCRIPTION_EVENT_SOURCE:
                if (removed) {
                    self.table_.removeSource(index);
                } else {
                    release(
                        pa_context_get_source_info_by_index(context, index, onSource, userdata));
                }
                break;
            case PA_SUBSCRIPTION_EVENT_CLIENT:
                if (removed) {
                    self.table_.removeClient(index);
                } else {
                    release(pa_context_get_client_info(context, index, onClient, userdata));
                }
                break;
            default:
                return;
        }
        if (removed) {
            self.publish();
        }
    }
};

RecordingStreamView::RecordingStreamView(Options options) : options_(std::move(options)) {
    loop_ = pa_threaded_mainloop_new();
    if (loop_ == nullptr) {
        return;
    }
    pa_threaded_mainloop_set_name(loop_, "velmora-mic-view");
    if (pa_threaded_mainloop_start(loop_) < 0) {
        pa_threaded_mainloop_free(loop_);
        loop_ = nullptr;
        return;
    }
    // Connecting reads the client configuration; that and everything after runs on the loop.
    pa_threaded_mainloop_lock(loop_);
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop_);
    const timeval now = after(std::chrono::milliseconds::zero());
    checkTimer_ = api->time_new(api, &now, RecordingStreamViewEvents::onCheckTimer, this);
    pa_threaded_mainloop_unlock(loop_);
}

RecordingStreamView::~RecordingStreamView() {
    if (loop_ == nullptr) {
        return;
    }
    pa_threaded_mainloop_lock(loop_);
    releaseContext();
    if (checkTimer_ != nullptr) {
        pa_threaded_mainloop_get_api(loop_)->time_free(checkTimer_);
        checkTimer_ = nullptr;
    }
    pa_threaded_mainloop_unlock(loop_);
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
}

std::optional<RecordingStreamView::Answer> RecordingStreamView::current() const {
    std::lock_guard lock(mutex_);
    if (!complete_ || (askedSince_ && Clock::now() - *askedSince_ > options_.timeout)) {
        return std::nullopt;
    }
    return answer_;
}

void RecordingStreamView::check() {
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop_);
    const timeval next = after(options_.checkInterval);
    api->time_restart(checkTimer_, &next);

    const pa_context_state_t state =
        context_ != nullptr ? pa_context_get_state(context_) : PA_CONTEXT_TERMINATED;
    if (!PA_CONTEXT_IS_GOOD(state) || reconnectWanted_) {
        connect();
        return;
    }
    if (state != PA_CONTEXT_READY) {
        return;  // still connecting; a hung server may keep it there
    }
    {
        std::lock_guard lock(mutex_);
        if (askedSince_) {
            return;  // the last question is still open
        }
        askedSince_ = Clock::now();
    }
    release(pa_context_get_server_info(context_, RecordingStreamViewEvents::onServerInfo, this));
}

void RecordingStreamView::connect() {
    releaseContext();
    reconnectWanted_ = false;
    context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), HelperInfo::appId);
    if (context_ == nullptr) {
        return;
    }
    pa_context_set_state_callback(context_, RecordingStreamViewEvents::onContextState, this);
    // Never start a server just to ask who records: no server means nobody does.
    const char* server = options_.serverAddress.empty() ? nullptr : options_.serverAddress.c_str();
    if (pa_context_connect(context_, server, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        releaseContext();
    }
}

void RecordingStreamView::contextChanged() {
    const pa_context_state_t state = pa_context_get_state(context_);
    if (state == PA_CONTEXT_READY) {
        // Events first, then the listings: an entry that appears in between arrives twice,
        // which is harmless, rather than not at all.
        pa_context_set_subscribe_callback(context_, RecordingStreamViewEvents::onEvent, this);
        release(pa_context_subscribe(context_,
                                     static_cast<pa_subscription_mask_t>(
                                         PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT |
                                         PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_CLIENT),
                                     nullptr, nullptr));
        table_.clear();
        listingsUnderWay_ = 3;
        release(pa_context_get_source_output_info_list(
            context_, RecordingStreamViewEvents::onStreamListed, this));
        release(pa_context_get_source_info_list(context_, RecordingStreamViewEvents::onSourceListed,
                                                this));
        release(pa_context_get_client_info_list(context_, RecordingStreamViewEvents::onClientListed,
                                                this));
        return;
    }
    if (!PA_CONTEXT_IS_GOOD(state)) {
        // Gone: the next check connects again.
        forget();
    }
}

void RecordingStreamView::listingDone(int eol) {
    if (eol < 0) {
        // A listing the server refused leaves the view incomplete; the next check starts over.
        forget();
        reconnectWanted_ = true;
        return;
    }
    if (--listingsUnderWay_ == 0) {
        {
            std::lock_guard lock(mutex_);
            complete_ = true;
        }
        publish();
    }
}

void RecordingStreamView::serverAnswered() {
    std::lock_guard lock(mutex_);
    askedSince_.reset();
}

void RecordingStreamView::publish() {
    Answer answer{table_.bundleIds(), static_cast<std::int64_t>(table_.streamCount())};
    std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
}

void RecordingStreamView::releaseContext() {
    if (context_ != nullptr) {
        // Without callbacks first, so that nothing calls back into a context being released.
        pa_context_set_state_callback(context_, nullptr, nullptr);
        pa_context_set_subscribe_callback(context_, nullptr, nullptr);
        pa_context_disconnect(context_);
        pa_context_unref(context_);
        context_ = nullptr;
    }
    forget();
}

void RecordingStreamView::forget() {
    table_.clear();
    listingsUnderWay_ = 0;
    std::lock_guard lock(mutex_);
    complete_ = false;
    askedSince_.reset();
    answer_ = Answer{};
}

}  // namespace velmora
