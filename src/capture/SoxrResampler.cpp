#include "capture/SoxrResampler.h"

#include <soxr.h>

#include <cstdlib>

namespace velmora {

struct SoxrResampler::Handle {
    soxr_t soxr = nullptr;
    ~Handle() {
        if (soxr != nullptr) soxr_delete(soxr);
    }
};

namespace {

unsigned long recipeOf(const ResamplerSettings& settings) {
    unsigned long recipe = settings.quality == ResamplerQuality::veryHigh ? SOXR_VHQ : SOXR_HQ;
    switch (settings.phase) {
        case ResamplerPhase::linear:
            return recipe | SOXR_LINEAR_PHASE;
        case ResamplerPhase::intermediate:
            return recipe | SOXR_INTERMEDIATE_PHASE;
        case ResamplerPhase::minimum:
            return recipe | SOXR_MINIMUM_PHASE;
    }
    return recipe;
}

}  // namespace

std::unique_ptr<SoxrResampler> SoxrResampler::create(double inputRate, double outputRate,
                                                     ResamplerSettings settings) {
    if (!(inputRate > 0.0) || !(outputRate > 0.0)) return nullptr;
    soxr_error_t error = nullptr;
    soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    soxr_quality_spec_t quality = soxr_quality_spec(recipeOf(settings), 0);
    // One thread: the conversion runs inside the capture queue's callback.
    soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    auto handle = std::make_unique<Handle>();
    handle->soxr = soxr_create(inputRate, outputRate, 1, &error, &io, &quality, &runtime);
    if (error != nullptr || handle->soxr == nullptr) return nullptr;
    return std::unique_ptr<SoxrResampler>(
        new SoxrResampler(std::move(handle), inputRate, outputRate));
}

SoxrResampler::SoxrResampler(std::unique_ptr<Handle> handle, double inputRate, double outputRate)
    : handle_(std::move(handle)), inputRate_(inputRate), outputRate_(outputRate) {}

SoxrResampler::~SoxrResampler() = default;

ResamplerFactory SoxrResampler::factory(ResamplerSettings settings) {
    return [settings](double inputRate, double outputRate) -> std::unique_ptr<Resampler> {
        return create(inputRate, outputRate, settings);
    };
}

std::optional<std::string> SoxrResampler::process(std::span<const float> input,
                                                  std::vector<float>& output) {
    // Room for what this call's input yields plus what the filter may still hold back.
    const std::size_t capacity =
        static_cast<std::size_t>(outputRate_ * static_cast<double>(input.size()) / inputRate_) + 64;
    const std::size_t start = output.size();
    output.resize(start + capacity);
    std::size_t written = 0;
    std::size_t consumed = 0;
    while (true) {
        std::size_t used = 0;
        std::size_t produced = 0;
        soxr_error_t error = soxr_process(
            handle_->soxr, input.data() + consumed, input.size() - consumed, &used,
            output.data() + start + written, output.size() - start - written, &produced);
        if (error != nullptr) {
            output.resize(start);
            return std::string(error);
        }
        consumed += used;
        written += produced;
        if (consumed >= input.size()) break;
        // Neither taking nor giving: nothing more will come of this call.
        if (used == 0 && produced == 0) break;
        // The output filled up before all input was taken: make more room and go on.
        output.resize(output.size() + capacity);
    }
    output.resize(start + written);
    return std::nullopt;
}

double SoxrResampler::delayInOutputSamples() const {
    return soxr_delay(handle_->soxr);
}

}  // namespace velmora
