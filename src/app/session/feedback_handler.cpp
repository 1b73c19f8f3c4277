#include "app/session/feedback_handler.h"

#include <chrono>
#include <string_view>

#include "input/input_packet.h"
#include "log/log.h"

namespace ox {

void FeedbackHandler::handle(const InputPacket& packet, TimePoint now) {
    const auto kind = static_cast<InputKind>(packet.kind);
    if (kind == InputKind::KeyframeRequest) {
        request_keyframe(now);
    } else if (kind == InputKind::RfiRequest) {
        handle_rfi_request(packet, now);
    } else if (kind == InputKind::MediaFeedback) {
        handle_media_feedback(packet, now);
    }
}

void FeedbackHandler::handle(const ClientStats& stats, TimePoint now) {
    constexpr std::chrono::seconds kMediaFeedbackValid{2};
    const TimePoint feedback = last_media_feedback_;
    if (feedback != TimePoint{} && now - feedback < kMediaFeedbackValid) return;
    rtt_ms_ = stats.rtt_ms;
    loss_pct_ = stats.packet_loss_pct;
}

void FeedbackHandler::handle_media_feedback(const InputPacket& packet, TimePoint now) {
    const MediaFeedback feedback = parse_media_feedback(packet);
    loss_pct_ = feedback.loss_pct;
    rtt_ms_ = feedback.rtt_ms;
    last_media_feedback_ = now;
    if (feedback.keyframe_wanted) request_keyframe(now);
}

void FeedbackHandler::handle_rfi_request(const InputPacket& packet, TimePoint now) {
    constexpr std::chrono::seconds kMinimumGap{1};
    const RfiRequest request = parse_rfi_request(packet);
    const std::string_view rejection = request.all_zero ? "" : rfi_rejection(request);
    {
        const MutexLock lock(rfi_mutex_);
        ++rfi_.requests;
        if (!request.all_zero && rejection.empty()) {
            // No encoder can drop references yet, so a valid request ends in a keyframe too. A
            // launcher that repeats it while that keyframe travels gets no second one.
            ++rfi_.valid;
            ++rfi_.idr_fallbacks;
            if (last_valid_rfi_ && now - *last_valid_rfi_ < kMinimumGap) return;
            last_valid_rfi_ = now;
        }
    }
    if (!rejection.empty()) {
        OX_DEBUG("Session: RFI request rejected (%.*s)", static_cast<int>(rejection.size()),
                 rejection.data());
    }
    request_keyframe(now);
}

FeedbackHandler::RfiCounters FeedbackHandler::rfi_counters() const {
    const MutexLock lock(rfi_mutex_);
    return rfi_;
}

}  // namespace ox
