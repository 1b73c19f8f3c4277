#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ox::launcher {

/// Levels are relative to a sine wave of full scale: one of a quarter of full scale has -12 dBFS.
struct ToneReport {
    static constexpr double kSilenceDbfs = -120;

    double level_dbfs = kSilenceDbfs;  ///< of the mean power, both channels
    double peak_dbfs = kSilenceDbfs;   ///< of the loudest sample
    double pitch_hz = 0;               ///< strongest frequency; 0 = too quiet to measure
};

/// Measures 16-bit stereo at 48 kHz, as a whole and over its last 85 ms. Pure; one thread.
class ToneMeter {
  public:
    static constexpr int kSampleRate = 48000;
    static constexpr size_t kWindow = 4096;  ///< sample pairs per spectrum

    /// `samples`: left and right in turn.
    void add(std::span<const int16_t> samples);

    [[nodiscard]] ToneReport whole() const;
    /// The last full window; silence before the first one.
    [[nodiscard]] const ToneReport& latest() const { return latest_; }

  private:
    using Spectrum = std::array<double, kWindow / 2 + 1>;  ///< power per frequency

    void end_window();

    uint64_t samples_ = 0;  ///< pairs
    double power_ = 0;      ///< sum over all samples of both channels, full scale 1
    int peak_ = 0;
    double window_power_ = 0;
    int window_peak_ = 0;
    std::vector<float> window_;  ///< mean of the two channels
    Spectrum spectrum_{};        ///< sum over all audible windows
    bool audible_ = false;
    ToneReport latest_;
};

}  // namespace ox::launcher
