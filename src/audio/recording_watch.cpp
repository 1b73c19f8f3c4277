#include "audio/recording_watch.h"

#include <pulse/pulseaudio.h>

#include <cstdint>
#include <cstdlib>
#include <optional>

#include "audio/pulse_handles.h"
#include "base/clock.h"

namespace ox {
namespace {

/// For an operation whose callback does the work.
void release_operation(pa_operation* operation) {
    if (operation != nullptr) ::pa_operation_unref(operation);
}

}  // namespace

/// The connection to the sound server and the state learned through it. Every query belongs to a
/// numbered round: an event that affects the recording starts a new round, and replies to queries
/// of an older one are ignored.
class RecordingWatch::Server {
  public:
    void watch(pid_t pid) {
        pid_ = std::to_string(pid);
        watched_since_ = SteadyClock::now();
        found_ = false;
        output_index_.reset();
        new_round();
    }

    Verdict poll() {
        if (!connected_or_connecting()) return unreachable();
        int events = 0;
        do {
            events = ::pa_mainloop_iterate(loop_.get(), 0, nullptr);
        } while (events > 0);
        if (events < 0 || !PA_CONTEXT_IS_GOOD(::pa_context_get_state(context_.get()))) {
            disconnect();
            return unreachable();
        }
        return verdict();
    }

    [[nodiscard]] const std::string& default_sink() const { return default_sink_; }

  private:
    /// A recording that the server knew may have been moved since.
    [[nodiscard]] Verdict unreachable() const {
        return found_ ? Verdict::Unknown : Verdict::Unwatched;
    }

    [[nodiscard]] Verdict verdict() const {
        if (!found_) return is_appearing() ? Verdict::Unknown : Verdict::Unwatched;
        if (!source_known_) return Verdict::Unknown;
        if (monitored_sink_.empty()) return Verdict::Elsewhere;
        const bool other_default = !default_sink_.empty() && default_sink_ != monitored_sink_;
        return other_default ? Verdict::DefaultChanged : Verdict::OnMonitor;
    }

    /// The server may still report the recording: the recorder was started just now, or a query is
    /// unanswered.
    [[nodiscard]] bool is_appearing() const {
        constexpr std::chrono::milliseconds kAppearLimit{250};
        constexpr std::chrono::seconds kReplyLimit{2};
        const auto now = SteadyClock::now();
        return now - watched_since_ <= kAppearLimit ||
               (query_pending_since_ && now - *query_pending_since_ <= kReplyLimit);
    }

    bool connected_or_connecting() {
        constexpr std::chrono::milliseconds kRetry{500};
        if (context_) return true;
        const auto now = SteadyClock::now();
        if (now - last_try_ < kRetry) return false;
        last_try_ = now;
        loop_.reset(::pa_mainloop_new());
        if (!loop_) return false;
        context_ = connect_to_sound_server(*loop_);
        if (!context_) {
            disconnect();
            return false;
        }
        query_pending_since_ = now;
        ::pa_context_set_state_callback(context_.get(), &Server::on_state, this);
        ::pa_context_set_subscribe_callback(context_.get(), &Server::on_event, this);
        return true;
    }

    void disconnect() {
        context_.reset();
        loop_.reset();
        output_index_.reset();
        default_sink_.clear();
        query_pending_since_.reset();
        new_round();
    }

    /// Forgets what the recording is attached to, and queries it again.
    void new_round() {
        ++round_;
        source_known_ = false;
        monitored_sink_.clear();
        if (ready()) query_source_outputs();
    }

    [[nodiscard]] bool ready() const {
        return context_ && ::pa_context_get_state(context_.get()) == PA_CONTEXT_READY;
    }

    void query_source_outputs() {
        outputs_round_ = round_;
        if (!query_pending_since_) query_pending_since_ = SteadyClock::now();
        release_operation(
            ::pa_context_get_source_output_info_list(context_.get(), &Server::on_output, this));
    }

    void query_default_sink() {
        release_operation(::pa_context_get_server_info(context_.get(), &Server::on_server, this));
    }

    static void on_state(pa_context* context, void* self) {
        auto* server = static_cast<Server*>(self);
        if (::pa_context_get_state(context) != PA_CONTEXT_READY) return;
        constexpr auto kMask = static_cast<pa_subscription_mask_t>(
            PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT | PA_SUBSCRIPTION_MASK_SERVER);
        release_operation(::pa_context_subscribe(context, kMask, nullptr, nullptr));
        server->query_default_sink();
        server->new_round();
    }

    static void on_event(pa_context* /*context*/, pa_subscription_event_type_t type, uint32_t index,
                         void* self) {
        auto* server = static_cast<Server*>(self);
        if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SERVER) {
            server->query_default_sink();
        } else if (!server->output_index_ || *server->output_index_ == index) {
            server->new_round();
        }
    }

    static void on_server(pa_context* /*context*/, const pa_server_info* info, void* self) {
        if (info == nullptr) return;
        const char* name = info->default_sink_name;
        static_cast<Server*>(self)->default_sink_ = name == nullptr ? "" : name;
    }

    static void on_output(pa_context* context, const pa_source_output_info* info, int end,
                          void* self) {
        auto* server = static_cast<Server*>(self);
        if (server->outputs_round_ != server->round_) return;
        if (end != 0) server->query_pending_since_.reset();
        if (end != 0 || info == nullptr) return;
        const char* pid = ::pa_proplist_gets(info->proplist, PA_PROP_APPLICATION_PROCESS_ID);
        if (pid == nullptr || server->pid_ != pid) return;
        server->found_ = true;
        server->output_index_ = info->index;
        server->source_round_ = server->round_;
        release_operation(
            ::pa_context_get_source_info_by_index(context, info->source, &Server::on_source, self));
    }

    static void on_source(pa_context* /*context*/, const pa_source_info* info, int end,
                          void* self) {
        auto* server = static_cast<Server*>(self);
        if (end != 0 || info == nullptr || server->source_round_ != server->round_) return;
        server->source_known_ = true;
        server->monitored_sink_ =
            info->monitor_of_sink_name == nullptr ? "" : info->monitor_of_sink_name;
    }

    PulseMainloopPtr loop_;
    PulseContextPtr context_;  // destroyed before its loop
    SteadyClock::time_point last_try_{};

    std::string pid_;  ///< the recording process
    SteadyClock::time_point watched_since_{};
    bool found_ = false;  ///< a server has reported its recording
    /// Since when the list of source outputs is awaited.
    std::optional<SteadyClock::time_point> query_pending_since_;
    std::optional<uint32_t> output_index_;  ///< its source output, once known
    uint64_t round_ = 0;
    uint64_t outputs_round_ = 0;  ///< round of the last source output query
    uint64_t source_round_ = 0;   ///< round of the last source query
    bool source_known_ = false;
    std::string monitored_sink_;  ///< sink whose monitor is recorded; empty: no monitor
    std::string default_sink_;    ///< empty until known
};

RecordingWatch::RecordingWatch() : server_(std::make_unique<Server>()) {}
RecordingWatch::~RecordingWatch() = default;

void RecordingWatch::watch(pid_t pid) {
    server_->watch(pid);
}
RecordingWatch::Verdict RecordingWatch::poll() {
    return server_->poll();
}
const std::string& RecordingWatch::default_sink() const {
    return server_->default_sink();
}

}  // namespace ox
