#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>

#include "base/unique_fd.h"
#include "video/portal/portal_bus.h"
#include "video/portal/portal_limits.h"
#include "video/portal/restore_token.h"

namespace ox::portal {

/// A screen whose capture the user, or an earlier session's token, has approved.
struct SharedScreen {
    uint32_t node = 0;      ///< PipeWire node with the pictures
    UniqueFd remote;        ///< a connection to the PipeWire daemon
    bool by_token = false;  ///< approved by a saved token
};

enum class ShareFailure { Declined, Unanswered, Other };

/// One session of the portal's ScreenCast interface. Logs each failure, with a remedy where one is
/// known. Used by one thread; `bus`, which must be open, outlives it.
class ScreenCast {
  public:
    /// `on_awaiting_owner` may be empty; true: the user is being asked, false: no longer.
    ScreenCast(PortalBus& bus, const RestoreTokenFile& token_file, const PortalLimits& limits,
               std::function<void(bool)> on_awaiting_owner);
    /// Closes the session: the portal stops the stream.
    ~ScreenCast();
    ScreenCast(const ScreenCast&) = delete;
    ScreenCast& operator=(const ScreenCast&) = delete;

    /// Calls CreateSession, SelectSources, Start and OpenPipeWireRemote, and saves the token for
    /// the next time; a token that the user did not confirm is deleted. A portal that fails at
    /// once, as after a restart of its compositor, is tried once more.
    std::variant<SharedScreen, ShareFailure> share_monitor();
    [[nodiscard]] const std::string& session() const { return session_; }

  private:
    std::optional<SharedScreen> attempt();
    void close_session();
    std::optional<Response> send_request(const char* method, const DBusMessagePtr& call,
                                         const std::string& request,
                                         std::chrono::milliseconds limit);
    std::optional<Response> granted_response(const char* method, const RequestResult& result,
                                             std::chrono::milliseconds limit);
    RequestResult request_sources(const std::optional<std::string>& token);
    bool create_session();
    bool select_sources();
    std::optional<uint32_t> start();
    RequestResult request_start();
    void report_dialog();
    void save_token(const std::string& token) const;
    UniqueFd open_remote();

    PortalBus& bus_;
    const RestoreTokenFile& token_file_;
    const PortalLimits& limits_;
    std::function<void(bool)> on_awaiting_owner_;
    ShareFailure failure_ = ShareFailure::Other;  ///< of the last attempt
    bool failed_at_once_ = false;                 ///< the portal ended a request itself
    std::optional<std::string> token_;            ///< the saved one, until refused
    std::string session_;                         ///< object path; empty until created
};

}  // namespace ox::portal
