#include "video/portal/screen_cast.h"

#include <chrono>
#include <string_view>
#include <utility>

#include "log/log.h"
#include "video/portal/portal_diagnosis.h"

namespace ox::portal {
namespace {

constexpr uint32_t kMonitor = 1;              // of the source types
constexpr uint32_t kCursorInPicture = 2;      // of the cursor modes
constexpr uint32_t kPersistUntilRevoked = 2;  // of the persist modes
constexpr const char* kNoParentWindow = "";
constexpr uint32_t kCancelledByUser = 1;  // of the response codes
constexpr uint32_t kEndedOtherwise = 2;
constexpr std::chrono::seconds kRetryAfter{1};
constexpr std::chrono::milliseconds kFastestPerson{1000};  // to answer the dialog of Start

std::string request_token() {
    return next_token("oxreq_");
}

}  // namespace

ScreenCast::ScreenCast(PortalBus& bus, const RestoreTokenFile& token_file,
                       const PortalLimits& limits, std::function<void(bool)> on_awaiting_owner)
    : bus_(bus),
      token_file_(token_file),
      limits_(limits),
      on_awaiting_owner_(std::move(on_awaiting_owner)) {}

ScreenCast::~ScreenCast() {
    close_session();
}

void ScreenCast::close_session() {
    if (!session_.empty()) bus_.close_object(session_, "org.freedesktop.portal.Session");
    session_.clear();
}

std::variant<SharedScreen, ShareFailure> ScreenCast::share_monitor() {
    auto screen = attempt();
    if (!screen && failed_at_once_) {
        OX_INFO("PortalCapture: asking once more in a second");
        close_session();
        if (bus_.wait_for(kRetryAfter)) screen = attempt();
    }
    if (!screen) return failure_;
    return std::move(*screen);
}

std::optional<SharedScreen> ScreenCast::attempt() {
    failure_ = ShareFailure::Other;
    failed_at_once_ = false;
    token_ = token_file_.read();
    if (!token_) {
        OX_WARN(
            "PortalCapture: first run on this machine — approve the screen-share dialog once; the "
            "choice is stored in %s and reused afterwards",
            token_file_.path().c_str());
    }
    if (!create_session() || !select_sources()) return std::nullopt;
    const auto node = start();
    if (!node) return std::nullopt;
    UniqueFd remote = open_remote();
    if (!remote) return std::nullopt;
    return SharedScreen{.node = *node, .remote = std::move(remote), .by_token = token_.has_value()};
}

std::optional<Response> ScreenCast::send_request(const char* method, const DBusMessagePtr& call,
                                                 const std::string& request,
                                                 std::chrono::milliseconds limit) {
    return granted_response(method, call ? bus_.request(*call, request, limit) : RequestResult{},
                            limit);
}

/// A granted request's response; else nothing, after a log line.
std::optional<Response> ScreenCast::granted_response(const char* method,
                                                     const RequestResult& result,
                                                     std::chrono::milliseconds limit) {
    switch (result.outcome) {
        case RequestOutcome::Answered:
            if (result.response.code == 0) return result.response;
            OX_ERROR("PortalCapture: portal refused %s (response=%u)", method,
                     result.response.code);
            failed_at_once_ = result.response.code == kEndedOtherwise &&
                              (result.took < kFastestPerson || std::string_view(method) != "Start");
            break;
        case RequestOutcome::Refused:
            if (!result.error.empty()) OX_WARN("PortalCapture: %s", result.error.c_str());
            OX_ERROR("PortalCapture: %s returned no request handle", method);
            break;
        case RequestOutcome::TimedOut:
            OX_ERROR("PortalCapture: no Response for %s within %d ms", method,
                     static_cast<int>(limit.count()));
            break;
        case RequestOutcome::Cancelled:
            OX_INFO("PortalCapture: %s cancelled", method);
            break;
        case RequestOutcome::Lost:
            OX_ERROR("PortalCapture: session bus connection lost during %s", method);
            break;
    }
    log_diagnosis(diagnose(result));
    return std::nullopt;
}

bool ScreenCast::create_session() {
    const std::string request = request_token();
    const auto call = make_call("CreateSession", {{"handle_token", request},
                                                  {"session_handle_token", next_token("oxsess_")}});
    const auto response = send_request("CreateSession", call, request, limits_.create_session);
    if (!response) return false;
    if (response->session_handle.empty()) {
        OX_ERROR("PortalCapture: CreateSession did not return a session handle");
        return false;
    }
    session_ = response->session_handle;
    return true;
}

RequestResult ScreenCast::request_sources(const std::optional<std::string>& token) {
    const std::string request = request_token();
    Options options{{"handle_token", request},
                    {"types", kMonitor},
                    {"multiple", false},
                    {"cursor_mode", kCursorInPicture},
                    {"persist_mode", kPersistUntilRevoked}};
    if (token) options.emplace_back("restore_token", *token);
    const auto call = make_call("SelectSources", session_, options);
    return call ? bus_.request(*call, request, limits_.select_sources) : RequestResult{};
}

bool ScreenCast::select_sources() {
    if (token_) OX_INFO("PortalCapture: using saved restore token");
    auto result = request_sources(token_);
    // Portals refuse a token in another format than their own.
    const bool token_refused = token_ && result.outcome == RequestOutcome::Refused;
    if (token_refused) {
        OX_WARN("PortalCapture: saved restore token not accepted (%s) — asking without it",
                result.error.c_str());
        token_.reset();
        result = request_sources(token_);
    }
    if (!granted_response("SelectSources", result, limits_.select_sources)) return false;
    if (token_refused) token_file_.remove();
    return true;
}

/// The desktop asks the user, which it also does when it does not know the token.
void ScreenCast::report_dialog() {
    if (token_) {
        OX_WARN(
            "PortalCapture: the desktop asks again, although there is a saved choice — approve the "
            "screen-share dialog; the new choice is stored in %s",
            token_file_.path().c_str());
    }
    if (on_awaiting_owner_) on_awaiting_owner_(true);
}

RequestResult ScreenCast::request_start() {
    const std::string request = request_token();
    const auto call = make_call("Start", session_, kNoParentWindow, {{"handle_token", request}});
    if (!call) return {};
    bool dialog_reported = false;
    RequestResult result = bus_.request(*call, request, limits_.start(token_.has_value()),
                                        {.after = limits_.dialog(token_.has_value()), .call = [&] {
                                             dialog_reported = true;
                                             report_dialog();
                                         }});
    if (dialog_reported && on_awaiting_owner_) on_awaiting_owner_(false);
    return result;
}

std::optional<uint32_t> ScreenCast::start() {
    const auto result = request_start();
    const auto response = granted_response("Start", result, limits_.start(token_.has_value()));
    if (!response) {
        const bool declined =
            result.outcome == RequestOutcome::Answered && result.response.code == kCancelledByUser;
        if (declined) failure_ = ShareFailure::Declined;
        if (result.outcome == RequestOutcome::TimedOut) failure_ = ShareFailure::Unanswered;
        if (token_ && failure_ != ShareFailure::Other) token_file_.remove();
        if (!declined && result.outcome != RequestOutcome::Cancelled &&
            result.outcome != RequestOutcome::Lost) {
            OX_ERROR(
                "PortalCapture: screen sharing was not approved in time. Either approve the dialog "
                "once on this machine, run an X11 session, or capture a dedicated virtual display "
                "for unattended hosts.");
        }
        return std::nullopt;
    }
    if (!response->node) {
        OX_ERROR("PortalCapture: Start returned no stream node");
        return std::nullopt;
    }
    if (!response->restore_token.empty()) save_token(response->restore_token);
    return response->node;
}

void ScreenCast::save_token(const std::string& token) const {
    if (token_file_.write(token)) {
        OX_INFO("PortalCapture: restore token saved (next sessions skip the dialog)");
    } else {
        OX_WARN("PortalCapture: cannot persist restore token to %s", token_file_.path().c_str());
    }
}

UniqueFd ScreenCast::open_remote() {
    std::string error;
    const auto call = make_call("OpenPipeWireRemote", session_, Options{});
    UniqueFd remote = call ? bus_.request_fd(*call, limits_.open_remote, error) : UniqueFd{};
    if (!remote) {
        OX_ERROR("PortalCapture: OpenPipeWireRemote returned no fd");
        log_diagnosis(diagnose_no_pipewire(error));
    }
    return remote;
}

}  // namespace ox::portal
