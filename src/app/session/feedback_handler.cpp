#include "app/session/feedback_handler.h"

#include "app/session/keyframe_policy.h"
#include "input/feedback.h"
#include "log/log.h"

namespace ox {

void FeedbackHandler::handle(const InputPacket& packet, int64_t now_us) {
    const auto kind = static_cast<InputKind>(packet.kind);
    if (kind == InputKind::KeyframeRequest) {
        request_keyframe(signals_, now_us);
    } else if (kind == InputKind::RfiRequest) {
        handle_rfi_request(packet, now_us);
    } else if (kind == InputKind::MediaFeedback) {
        handle_media_feedback(packet, now_us);
    }
}

void FeedbackHandler::handle_media_feedback(const InputPacket& packet, int64_t now_us) {
    const MediaFeedback feedback = parse_media_feedback(packet);
    signals_.loss_pct = feedback.loss_pct;
    signals_.rtt_ms = feedback.rtt_ms;
    signals_.decoded_fps = feedback.decoded_fps;
    signals_.last_media_feedback_us = now_us;
    if (feedback.keyframe_wanted) request_keyframe(signals_, now_us);
}

void FeedbackHandler::handle_rfi_request(const InputPacket& packet, int64_t now_us) {
    constexpr int64_t kMinimumGapUs = 1'000'000;
    const RfiRequest request = parse_rfi_request(packet);
    const std::string_view rejection = request.all_zero ? "" : rfi_rejection(request);
    {
        const std::lock_guard lock(rfi_mutex_);
        ++rfi_.requests;
        if (!request.all_zero && rejection.empty()) {
            // No encoder can drop references yet, so a valid request ends in a keyframe too, but a
            // launcher that repeats it while that keyframe travels gets no second one.
            ++rfi_.valid;
            ++rfi_.idr_fallbacks;
            if (last_valid_ask_us_ != 0 && now_us - last_valid_ask_us_ < kMinimumGapUs) return;
            last_valid_ask_us_ = now_us;
        }
    }
    if (!rejection.empty()) {
        OX_DEBUG("Session: RFI request rejected (%.*s)", static_cast<int>(rejection.size()),
                 rejection.data());
    }
    request_keyframe(signals_, now_us);
}

FeedbackHandler::RfiCounters FeedbackHandler::rfi_counters() const {
    const std::lock_guard lock(rfi_mutex_);
    return rfi_;
}

}  // namespace ox
