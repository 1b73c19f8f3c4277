#pragma once

#include <cstdint>
#include <functional>
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
    /// How a request for a screen ended.
    enum class Outcome { Shared, Declined, Unanswered, Failed };

    /// `awaiting_owner` may be empty; it is told when the user is being asked, and when no longer.
    ScreenCast(PortalBus& bus, const RestoreTokenFile& token_file, const PortalLimits& limits,
               std::function<void(bool)> awaiting_owner);
    /// Closes the session: the portal stops the stream.
    ~ScreenCast();
    ScreenCast(const ScreenCast&) = delete;
    ScreenCast& operator=(const ScreenCast&) = delete;

    /// Goes through CreateSession, SelectSources, Start and OpenPipeWireRemote, and keeps the token
    /// for the next time; one that the user has not confirmed is forgotten. Nothing when a step
    /// fails or the bus's owner cancels. A portal that fails at once, as one does whose compositor
    /// has just come back, is asked once more.
    std::optional<SharedScreen> share_monitor();
    /// Of the last `share_monitor`.
    [[nodiscard]] Outcome outcome() const { return outcome_; }
    /// Object path of the session; empty when there is none.
    [[nodiscard]] const std::string& session() const { return session_; }

  private:
    std::optional<SharedScreen> try_once();
    void close_session();
    std::optional<Response> ask(const char* method, const DBusMessagePtr& call,
                                const std::string& request, std::chrono::milliseconds limit);
    std::optional<Response> accept(const char* method, const RequestResult& result,
                                   std::chrono::milliseconds limit);
    RequestResult request_sources(const std::optional<std::string>& token);
    bool create_session();
    bool select_sources();
    std::optional<uint32_t> start();
    RequestResult request_start();
    void tell_of_dialog();
    void keep_token(const std::string& token) const;
    UniqueFd open_remote();

    PortalBus& bus_;
    const RestoreTokenFile& token_file_;
    const PortalLimits& limits_;
    std::function<void(bool)> awaiting_owner_;
    Outcome outcome_ = Outcome::Failed;
    bool failed_at_once_ = false;       ///< the portal ended a request otherwise, without a person
    std::optional<std::string> token_;  ///< the saved one, while it is of use
    std::string session_;               ///< object path; empty until created
};

}  // namespace ox::portal
