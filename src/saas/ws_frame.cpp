#include "saas/ws_frame.h"

#include <utility>

#include "log/log.h"
#include "saas/redaction.h"

namespace ox {
namespace {

constexpr uint8_t kFin = 0x80;
constexpr uint8_t kMasked = 0x80;
constexpr uint8_t kLength16 = 126;
constexpr uint8_t kLength64 = 127;
constexpr size_t kKeptBuffer = 65'536;

void append_big_endian(std::string& out, uint64_t value, size_t bytes) {
    for (size_t i = bytes; i-- > 0;) {
        out.push_back(static_cast<char>(static_cast<uint8_t>(value >> (8 * i))));
    }
}

uint64_t read_big_endian(std::string_view bytes) {
    uint64_t value = 0;
    for (const char c : bytes)
        value = value << 8U | static_cast<uint8_t>(c);
    return value;
}

void apply_mask(char* bytes, size_t size, const char* key) {
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(bytes[i] ^ key[i % 4]);
}

}  // namespace

std::string encode_ws_frame(WsOpcode opcode, std::string_view payload, const WsMaskKey& key) {
    std::string frame;
    frame.reserve(payload.size() + 14);
    frame.push_back(static_cast<char>(kFin | static_cast<uint8_t>(opcode)));
    if (payload.size() < kLength16) {
        append_big_endian(frame, kMasked | payload.size(), 1);
    } else if (payload.size() <= UINT16_MAX) {
        append_big_endian(frame, kMasked | kLength16, 1);
        append_big_endian(frame, payload.size(), 2);
    } else {
        append_big_endian(frame, kMasked | kLength64, 1);
        append_big_endian(frame, payload.size(), 8);
    }
    frame.append(key.begin(), key.end());
    const size_t start = frame.size();
    frame.append(payload);
    apply_mask(frame.data() + start, payload.size(), frame.data() + start - key.size());
    return frame;
}

void WsFrameDecoder::feed(std::span<const uint8_t> bytes) {
    buffer_.erase(0, consumed_);
    consumed_ = 0;
    // A single large frame must not keep its memory for the life of the link.
    if (buffer_.empty() && buffer_.capacity() > kKeptBuffer) buffer_.shrink_to_fit();
    buffer_.append(bytes.begin(), bytes.end());
}

WsFrameDecoder::Result WsFrameDecoder::next(WsFrame& frame) {
    const std::string_view in = std::string_view(buffer_).substr(consumed_);
    if (in.size() < 2) return Result::NeedMore;
    const auto first = static_cast<uint8_t>(in[0]);
    const auto second = static_cast<uint8_t>(in[1]);

    uint64_t length = second & 0x7FU;
    size_t header = 2;
    if (length >= kLength16) {
        const size_t length_bytes = length == kLength16 ? 2 : 8;
        if (in.size() < header + length_bytes) return Result::NeedMore;
        length = read_big_endian(in.substr(header, length_bytes));
        header += length_bytes;
    }
    if (length > kMaxWsMessage) {
        announced_ = length;
        return Result::TooLong;
    }
    const bool masked = (second & kMasked) != 0;
    const size_t key_at = header;
    if (masked) header += 4;
    if (in.size() < header + length) return Result::NeedMore;

    frame.fin = (first & kFin) != 0;
    frame.opcode = first & 0x0FU;
    frame.payload = in.substr(header, length);
    if (masked) apply_mask(frame.payload.data(), frame.payload.size(), in.data() + key_at);
    consumed_ += header + length;
    return Result::Frame;
}

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
