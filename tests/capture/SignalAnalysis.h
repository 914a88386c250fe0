#pragma once

#include <cmath>
#include <cstddef>
#include <numbers>
#include <vector>

namespace velmora::testing {

// A sine fitted to a stretch of signal by least squares at a known frequency.
struct SineFit {
    double amplitude = 0;
    double phase = 0;  // signal ≈ amplitude · sin(ω n + phase)
    // Fitted sine against what is left over (noise and distortion), in dB.
    double snrDecibels = 0;
    // The ideal sine (the input's amplitude, the fitted delay) against the difference, in dB.
    double snrAgainstIdealDecibels = 0;
};

inline SineFit fitSine(const std::vector<float>& signal, std::size_t begin, std::size_t end,
                       double frequency, double sampleRate, double idealAmplitude) {
    const double omega = 2.0 * std::numbers::pi * frequency / sampleRate;
    double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0;
    for (std::size_t n = begin; n < end; ++n) {
        const double s = std::sin(omega * static_cast<double>(n));
        const double c = std::cos(omega * static_cast<double>(n));
        ss += s * s;
        cc += c * c;
        sc += s * c;
        ys += signal[n] * s;
        yc += signal[n] * c;
    }
    const double determinant = ss * cc - sc * sc;
    const double a = (ys * cc - yc * sc) / determinant;
    const double b = (yc * ss - ys * sc) / determinant;
    SineFit fit;
    fit.amplitude = std::hypot(a, b);
    fit.phase = std::atan2(b, a);
    double fitted = 0, residual = 0, ideal = 0, idealResidual = 0;
    for (std::size_t n = begin; n < end; ++n) {
        const double x = omega * static_cast<double>(n);
        const double value = a * std::sin(x) + b * std::cos(x);
        const double idealValue = idealAmplitude * std::sin(x + fit.phase);
        fitted += value * value;
        residual += (signal[n] - value) * (signal[n] - value);
        ideal += idealValue * idealValue;
        idealResidual += (signal[n] - idealValue) * (signal[n] - idealValue);
    }
    fit.snrDecibels = 10.0 * std::log10(fitted / residual);
    fit.snrAgainstIdealDecibels = 10.0 * std::log10(ideal / idealResidual);
    return fit;
}

// The frequency from the first and last upward zero crossings (interpolated) of a stretch.
inline double zeroCrossingFrequency(const std::vector<float>& signal, std::size_t begin,
                                    std::size_t end, double sampleRate) {
    double first = -1, last = -1;
    std::size_t crossings = 0;
    for (std::size_t n = begin + 1; n < end; ++n) {
        if (signal[n - 1] < 0.0f && signal[n] >= 0.0f) {
            const double at = static_cast<double>(n - 1) +
                              signal[n - 1] / (static_cast<double>(signal[n - 1]) - signal[n]);
            if (first < 0) first = at;
            last = at;
            ++crossings;
        }
    }
    if (crossings < 2) return 0;
    return static_cast<double>(crossings - 1) * sampleRate / (last - first);
}

inline double rms(const std::vector<float>& signal, std::size_t begin, std::size_t end) {
    double sum = 0;
    for (std::size_t n = begin; n < end; ++n) sum += static_cast<double>(signal[n]) * signal[n];
    return std::sqrt(sum / static_cast<double>(end - begin));
}

inline std::vector<float> sine(std::size_t count, double frequency, double sampleRate,
                               double amplitude) {
    std::vector<float> samples(count);
    for (std::size_t n = 0; n < count; ++n) {
        samples[n] = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * frequency *
                                                             static_cast<double>(n) / sampleRate));
    }
    return samples;
}

}  // namespace velmora::testing
