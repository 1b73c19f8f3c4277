#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/log_file.h"
#include "support/temp_dir.h"

struct wl_display;
struct wl_resource;

namespace ox::test {

/// One test's own Wayland session without a compositor: a session bus that starts no services, a
/// PipeWire daemon with its session manager, and a simulated desktop portal.
class WaylandDesktop {
  public:
    /// Null when a daemon is not installed or does not start.
    static std::unique_ptr<WaylandDesktop> start();

    [[nodiscard]] std::string bus_address() const { return "unix:path=" + dir_.file("bus"); }
    [[nodiscard]] std::string pipewire_socket() const { return dir_.file("pipewire-0"); }
    [[nodiscard]] std::string wayland_socket() const { return dir_.file("wayland-0"); }
    /// For programs on this desktop.
    [[nodiscard]] std::vector<std::string> environment() const;

    /// Starts the portal, replacing a running one; `behaviours` as in screencast_portal.py. False
    /// on failure.
    bool start_portal(std::vector<std::string> behaviours);
    /// SIGKILL.
    void kill_portal() { portal_.reset(); }
    /// The portal closes its sessions, as when its user presses "Stop".
    void stop_sharing() const { portal_->signal(SIGUSR1); }
    /// The calls to the current portal.
    [[nodiscard]] const LogFile& portal_report() const { return report_; }

    void kill_bus() { bus_.reset(); }
    void kill_pipewire() { pipewire_.reset(); }

  private:
    WaylandDesktop() : report_(dir_.file("portal-report")) {}
    void run(std::unique_ptr<ChildProcess>& process, std::vector<std::string> argv);

    TempDir dir_;
    LogFile report_;
    std::unique_ptr<ChildProcess> bus_;
    std::unique_ptr<ChildProcess> pipewire_;
    std::unique_ptr<ChildProcess> session_manager_;
    std::unique_ptr<ChildProcess> portal_;
};

struct WaylandTest : testing::Test {
    void SetUp() override {
        desktop_ = WaylandDesktop::start();
        if (!desktop_) GTEST_SKIP() << "no session bus or PipeWire daemon on this machine";
    }
    /// Starts the portal for a source's node, with these behaviours.
    void start_portal(uint32_t node, std::vector<std::string> behaviours = {}) {
        behaviours.push_back("node=" + std::to_string(node));
        ASSERT_TRUE(desktop_->start_portal(behaviours));
    }

    std::unique_ptr<WaylandDesktop> desktop_;
};

/// A Wayland compositor with one monitor, which can be rotated. Destroying it simulates the
/// compositor's end.
class WaylandCompositor {
  public:
    /// Listens at `socket`; throws std::runtime_error when it cannot.
    explicit WaylandCompositor(const std::string& socket);
    ~WaylandCompositor();

    /// Rotates the monitor and notifies the last client that bound it; repeats the old settings
    /// before.
    void turn_monitor() { turn_ = true; }
    /// How many clients have bound the monitor.
    [[nodiscard]] int watchers() const { return watchers_; }

  private:
    void run();
    void send_settings() const;

    wl_display* display_;
    wl_resource* monitor_ = nullptr;  ///< the last client's
    int transform_ = 0;
    std::atomic<int> watchers_{0};
    std::atomic<bool> turn_{false};
    std::atomic<bool> end_{false};
    std::thread thread_;
};

}  // namespace ox::test
