#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace ox::test {

/// A PulseAudio daemon of the test's own with the null sinks "out" (the default output), "spare"
/// and "hidden"; the last feeds the only source that is no monitor, "mic", the default source.
/// Points this process and its children at it for as long as it lives.
class PulseDaemon {
  public:
    PulseDaemon() {
        ::setenv("XDG_RUNTIME_DIR", dir_.path().c_str(), 1);
        ::setenv("HOME", dir_.path().c_str(), 1);
        ::unsetenv("PULSE_SERVER");
        // While it is down, no client may start a server of its own.
        const std::string folder = dir_.file(".config/pulse");
        std::filesystem::create_directories(folder);
        std::ofstream(folder + "/client.conf") << "autospawn = no\n";
        start();
    }

    /// Ends the server, as a crash does. Its clients lose their connections.
    void kill() { daemon_.reset(); }

    /// Starts it, with the outputs above.
    void start() {
        daemon_ = std::make_unique<ChildProcess>(ChildProcess::Options{
            .argv = {"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "-L",
                     "module-native-protocol-unix", "-L", "module-null-sink sink_name=out", "-L",
                     "module-null-sink sink_name=spare", "-L", "module-null-sink sink_name=hidden",
                     "-L", "module-remap-source master=hidden.monitor source_name=mic", "-L",
                     "module-rescue-streams"},
            .environment = {}});
        eventually([this] { return pactl("set-default-sink out"); }, std::chrono::seconds(20));
        pactl("set-default-source mic");
    }

    /// Runs a pactl command. False when it fails.
    bool pactl(const std::string& command) const {
        return std::system(("pactl " + command + " >/dev/null 2>&1").c_str()) == 0;  // NOLINT
    }

    /// Waits until a program plays into an output. False when none does.
    [[nodiscard]] bool wait_for_playback() const {
        return eventually([this] { return pactl("list short sink-inputs | grep -q ."); },
                          std::chrono::seconds(20));
    }

    /// Takes a sink away, as when a headset is unplugged.
    bool remove_sink(const std::string& name) const {
        return pactl("unload-module $(pactl list short modules | grep -w sink_name=" + name +
                     " | cut -f1)");
    }

    /// Plays a tone of a quarter of full scale on `sink` until the returned player is destroyed.
    [[nodiscard]] std::unique_ptr<ChildProcess> play_tone(const std::string& sink,
                                                          int hertz) const {
        const std::string file = dir_.file("tone" + std::to_string(hertz) + ".raw");
        std::vector<int16_t> samples;
        constexpr int kRate = 48000;
        for (int i = 0; i < kRate * 60; ++i) {
            const double phase = 2 * std::numbers::pi * hertz * i / kRate;
            const auto sample = static_cast<int16_t>(8192 * std::sin(phase));
            samples.insert(samples.end(), {sample, sample});
        }
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(samples.data()),
                   static_cast<std::streamsize>(samples.size() * sizeof(int16_t)));
        return std::make_unique<ChildProcess>(ChildProcess::Options{
            .argv = {"pacat", "--playback", "--device=" + sink, "--format=s16le", "--rate=48000",
                     "--channels=2", "--raw", file},
            .environment = {}});
    }

  private:
    TempDir dir_;
    std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace ox::test
