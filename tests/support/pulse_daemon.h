#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace ox::test {

/// A private PulseAudio daemon with the null sinks "out" (the default output), "spare" and
/// "hidden", which feeds "mic", the default source and the only one that is no monitor. Changes the
/// environment of this process to use it.
class PulseDaemon {
  public:
    PulseDaemon() {
        ::setenv("XDG_RUNTIME_DIR", dir_.path().c_str(), 1);
        ::setenv("HOME", dir_.path().c_str(), 1);
        ::unsetenv("PULSE_SERVER");
        // Clients must not start a server while it is down.
        const std::string folder = dir_.file(".config/pulse");
        std::filesystem::create_directories(folder);
        std::ofstream(folder + "/client.conf") << "autospawn = no\n";
        start();
    }

    /// Starts the server; a running one is killed first, as in a crash.
    void start() {
        daemon_.reset();
        daemon_ = std::make_unique<ChildProcess>(ChildProcess::Options{
            .argv = {"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "-L",
                     "module-native-protocol-unix", "-L", null_sink("out"), "-L",
                     null_sink("spare"), "-L", null_sink("hidden"), "-L",
                     "module-remap-source master=hidden.monitor source_name=mic", "-L",
                     "module-rescue-streams"},
            .environment = {}});
        eventually([this] { return pactl("set-default-sink out"); }, std::chrono::seconds(20));
        pactl("set-default-source mic");
    }

    /// Runs a pactl command. False when it fails.
    bool pactl(const std::string& command) const {
        return std::system(("pactl " + command + " >/dev/null 2>&1").c_str()) == 0;  // NOLINT
    }

    /// Removes a sink, like an unplugged headset.
    bool remove_sink(const std::string& name) const {
        return pactl("unload-module $(pactl list short modules | grep -w sink_name=" + name +
                     " | cut -f1)");
    }

    /// Plays a sine wave of half of full scale on `sink`.
    bool play_tone(const std::string& sink, int hertz) const {
        return pactl("load-module module-sine sink=" + sink +
                     " frequency=" + std::to_string(hertz));
    }

    /// For an agent that uses this server.
    static std::vector<std::string> environment() {
        return {std::string("HOME=") + std::getenv("HOME"),
                std::string("XDG_RUNTIME_DIR=") + std::getenv("XDG_RUNTIME_DIR")};
    }

  private:
    // Without rewinds a sink mixes 50 ms ahead, otherwise two seconds, which delays its monitor.
    static std::string null_sink(const std::string& name) {
        return "module-null-sink norewinds=1 sink_name=" + name;
    }

    TempDir dir_;
    std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace ox::test
