#include "saas/ws_assembler.h"

#include <utility>

#include "log/log.h"
#include "saas/log_text.h"

namespace ox {

WsAssembler::Step WsAssembler::take(WsFrame frame, std::string& message) {
    constexpr size_t kMaxPong = 125;
    switch (static_cast<WsOpcode>(frame.opcode)) {
        case WsOpcode::Continuation:
            return take_continuation(frame, message);
        case WsOpcode::Text:
        case WsOpcode::Binary:
            return take_data(frame, message);
        case WsOpcode::Close:
            return take_close(frame);
        case WsOpcode::Ping:
            message = frame.payload.substr(0, kMaxPong);
            return Step::Pong;
        case WsOpcode::Pong:
            return Step::Nothing;
    }
    OX_DEBUG("SaasConnector: ignoring WS opcode 0x%x", unsigned{frame.opcode});
    return Step::Nothing;
}

WsAssembler::Step WsAssembler::take_continuation(const WsFrame& frame, std::string& message) {
    if (!fragment_active_) {
        OX_WARN("SaasConnector: continuation with no active fragment");
        return Step::Nothing;
    }
    if (fragments_.size() + frame.payload.size() > kMaxWsMessage) {
        OX_ERROR("SaasConnector: fragmented message exceeds limit");
        fragment_active_ = false;
        fragments_.clear();
        return Step::Drop;
    }
    fragments_ += frame.payload;
    if (!frame.fin) return Step::Nothing;
    fragment_active_ = false;
    message = std::exchange(fragments_, {});
    return Step::Message;
}

WsAssembler::Step WsAssembler::take_data(WsFrame& frame, std::string& message) {
    if (fragment_active_) {
        OX_WARN("SaasConnector: new data frame mid-fragment — dropping stale fragment");
        fragment_active_ = false;
        fragments_.clear();
    }
    if (frame.fin) {
        message = std::move(frame.payload);
        return Step::Message;
    }
    fragments_ = std::move(frame.payload);
    fragment_active_ = true;
    return Step::Nothing;
}

WsAssembler::Step WsAssembler::take_close(const WsFrame& frame) {
    close_code_ = 0;
    close_reason_.clear();
    if (frame.payload.size() >= 2) {
        close_code_ = static_cast<uint16_t>(static_cast<uint8_t>(frame.payload[0]) << 8U |
                                            static_cast<uint8_t>(frame.payload[1]));
        close_reason_ = frame.payload.substr(2);
    }
    const std::string reason = loggable(close_reason_, kMaxLoggedText, secret_);
    OX_WARN("SaasConnector: WS close frame code=%u reason='%.*s'", unsigned{close_code_},
            static_cast<int>(reason.size()), reason.c_str());
    return Step::Drop;
}

}  // namespace ox
