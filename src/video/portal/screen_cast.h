#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "video/portal/portal_bus.h"
#include "video/portal/portal_limits.h"
#include "video/portal/restore_token.h"

namespace ox::portal {

/// A screen that the user, or the token of an earlier session, has allowed to be captured.
struct SharedScreen {
    uint32_t node = 0;      ///< the PipeWire node that has the pictures
    UniqueFd remote;        ///< a connection to the PipeWire daemon
    bool by_token = false;  ///< a saved token was used: nobody had to be asked
};

/// One session of the portal's ScreenCast interface. Logs each failure, and what helps
/// where that is known. Used by one thread; `bus`, which must be open, outlives it.
class ScreenCast {
  public:
    ScreenCast(PortalBus& bus, const RestoreTokenFile& token_file, const PortalLimits& limits);
    /// Closes the session: the portal stops the stream.
    ~ScreenCast();
    ScreenCast(const ScreenCast&) = delete;
    ScreenCast& operator=(const ScreenCast&) = delete;

    /// Goes through CreateSession, SelectSources, Start and OpenPipeWireRemote, and keeps the token
    /// for the next time. Nothing when a step fails or the bus's owner cancels.
    std::optional<SharedScreen> share_monitor();

  private:
    std::optional<Response> ask(const char* method, const DBusMessagePtr& call,
                                const std::string& request, std::chrono::milliseconds limit);
    std::optional<Response> accept(const char* method, const RequestResult& result,
                                   std::chrono::milliseconds limit);
    RequestResult request_sources(const std::optional<std::string>& token);
    bool create_session();
    bool select_sources();
    std::optional<uint32_t> start();
    void keep_token(const std::string& token) const;
    UniqueFd open_remote();

    PortalBus& bus_;
    const RestoreTokenFile& token_file_;
    const PortalLimits& limits_;
    std::optional<std::string> token_;  ///< the saved one, while it is of use
    std::string session_;               ///< object path; empty until created
};

}  // namespace ox::portal
