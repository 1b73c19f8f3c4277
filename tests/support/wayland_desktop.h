#pragma once

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/log_file.h"
#include "support/temp_dir.h"

namespace ox::test {

/// What a Wayland session has besides its compositor, for one test alone: a session bus on which
/// nothing is started by itself, a PipeWire daemon with its session manager, and a desktop portal
/// that does as it is told.
class WaylandDesktop {
  public:
    /// Null when a daemon is not installed or does not come up.
    static std::unique_ptr<WaylandDesktop> start();

    [[nodiscard]] std::string bus_address() const { return "unix:path=" + dir_.file("bus"); }
    [[nodiscard]] std::string pipewire_socket() const { return dir_.file("pipewire-0"); }
    [[nodiscard]] std::string wayland_socket() const { return dir_.file("wayland-0"); }
    /// For programs that are to run on this desktop.
    [[nodiscard]] std::vector<std::string> environment() const;

    /// Starts the portal, in place of one that runs; `behaviours` as in screencast_portal.py. False
    /// when it does not come up.
    bool start_portal(std::vector<std::string> behaviours);
    /// SIGKILL.
    void kill_portal() { portal_.reset(); }
    /// The portal closes its sessions, as when its user presses "Stop".
    void stop_sharing() const { portal_->signal(SIGUSR1); }
    /// The calls that the present portal got.
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

}  // namespace ox::test
