#include "launcher/tone_meter.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace ox::launcher {

namespace {

constexpr double kFullScale = 32768;
constexpr double kAudibleDbfs = -60;

using Complex = std::complex<float>;

double to_dbfs(double power) {
    return power > 0 ? std::max(10 * std::log10(power), ToneReport::kSilenceDbfs)
                     : ToneReport::kSilenceDbfs;
}

// A sine of full scale has a mean power of one half.
double level_dbfs(double power_sum, uint64_t samples) {
    return samples == 0 ? ToneReport::kSilenceDbfs
                        : to_dbfs(2 * power_sum / static_cast<double>(samples));
}

double peak_dbfs(int peak) {
    return to_dbfs(std::pow(peak / kFullScale, 2));
}

// Fast Fourier transform in place (radix 2, decimation in time); the size is a power of two.
void transform(std::vector<Complex>& values) {
    const size_t size = values.size();
    for (size_t i = 1, j = 0; i < size; ++i) {
        size_t bit = size >> 1;
        for (; (j & bit) != 0; bit >>= 1)
            j ^= bit;
        j ^= bit;
        if (i < j) std::swap(values[i], values[j]);
    }
    for (size_t half = 1; half < size; half *= 2) {
        for (size_t k = 0; k < half; ++k) {
            const Complex turn =
                std::polar(1.0F, -std::numbers::pi_v<float> * static_cast<float>(k) /
                                     static_cast<float>(half));
            for (size_t i = k; i < size; i += 2 * half) {
                const Complex odd = turn * values[i + half];
                values[i + half] = values[i] - odd;
                values[i] += odd;
            }
        }
    }
}

// Frequency of the highest peak, interpolated by a parabola through the logarithms; with this
// window exact to a tenth of a line.
double strongest_hz(std::span<const double> power) {
    const auto last = power.end() - 1;
    const auto peak = std::max_element(power.begin() + 1, last);
    const double below = std::log(*(peak - 1) + 1e-12);
    const double here = std::log(*peak + 1e-12);
    const double above = std::log(*(peak + 1) + 1e-12);
    const double curve = below - 2 * here + above;
    const double offset = curve < 0 ? (below - above) / (2 * curve) : 0.0;
    return (static_cast<double>(peak - power.begin()) + offset) * ToneMeter::kSampleRate /
           static_cast<double>(ToneMeter::kWindow);
}

}  // namespace

void ToneMeter::add(std::span<const int16_t> samples) {
    for (size_t i = 0; i + 1 < samples.size(); i += 2) {
        const double left = samples[i] / kFullScale;
        const double right = samples[i + 1] / kFullScale;
        window_power_ += left * left + right * right;
        window_peak_ =
            std::max({window_peak_, std::abs(int{samples[i]}), std::abs(int{samples[i + 1]})});
        window_.push_back(static_cast<float>((left + right) / 2));
        ++samples_;
        if (window_.size() == kWindow) end_window();
    }
}

void ToneMeter::end_window() {
    std::vector<Complex> values(kWindow);
    for (size_t i = 0; i < kWindow; ++i) {
        const float hann =
            0.5F - 0.5F * std::cos(2 * std::numbers::pi_v<float> * static_cast<float>(i) / kWindow);
        values[i] = window_[i] * hann;
    }
    transform(values);
    Spectrum spectrum{};
    for (size_t i = 0; i < spectrum.size(); ++i)
        spectrum[i] = std::norm(values[i]);

    latest_ = {.level_dbfs = level_dbfs(window_power_, 2 * kWindow),
               .peak_dbfs = peak_dbfs(window_peak_),
               .pitch_hz = 0};
    if (latest_.level_dbfs > kAudibleDbfs) {
        latest_.pitch_hz = strongest_hz(spectrum);
        std::ranges::transform(spectrum, spectrum_, spectrum_.begin(), std::plus<>{});
        audible_ = true;
    }
    power_ += window_power_;
    peak_ = std::max(peak_, window_peak_);
    window_power_ = 0;
    window_peak_ = 0;
    window_.clear();
}

ToneReport ToneMeter::whole() const {
    return {.level_dbfs = level_dbfs(power_ + window_power_, 2 * samples_),
            .peak_dbfs = peak_dbfs(std::max(peak_, window_peak_)),
            .pitch_hz = audible_ ? strongest_hz(spectrum_) : 0.0};
}

}  // namespace ox::launcher
