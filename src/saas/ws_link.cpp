#include "saas/ws_link.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "base/secret.h"
#include "log/log.h"
#include "saas/redaction.h"
#include "saas/ws_upgrade.h"

namespace ox {
namespace {

using std::chrono::milliseconds;

std::span<const uint8_t> bytes_of(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

WsLink::WsLink(TcpConnection& connection, std::string secret, Limits limits)
    : connection_(connection), secret_(std::move(secret)), limits_(limits), assembler_(secret_) {}

WsLink::Handshake WsLink::ws_handshake(const std::string& host, const std::atomic<bool>& running) {
    std::string request = ws_build_handshake(host, make_ws_key(), secret_);
    const bool sent = connection_.write_all(bytes_of(request)) >= 0;
    wipe(request);
    if (!sent) return Handshake::Failed;

    UpgradeResponse response;
    auto state = UpgradeResponse::State::Incomplete;
    const auto deadline = SteadyClock::now() + limits_.upgrade;
    while (state == UpgradeResponse::State::Incomplete) {
        if (!running || SteadyClock::now() >= deadline) return Handshake::Failed;
        const auto ready = connection_.wait_readable(milliseconds(200));
        if (ready == TcpConnection::Wait::Broken) return Handshake::Failed;
        if (ready != TcpConnection::Wait::Ready) continue;
        std::array<uint8_t, 2048> buffer{};
        const ssize_t count = connection_.read(buffer);
        if (count == 0) return Handshake::Failed;
        if (count > 0) state = response.feed(std::span(buffer).first(static_cast<size_t>(count)));
    }
    if (state == UpgradeResponse::State::TooLong) return Handshake::Failed;

    if (const std::string_view leftover = response.leftover(); !leftover.empty()) {
        OX_INFO(
            "SaasConnector: %zu byte(s) arrived with the handshake response - kept for the frame "
            "reader",
            leftover.size());
        decoder_.feed(bytes_of(leftover));
        undecoded_ = true;
    }
    if (state == UpgradeResponse::State::Accepted) return Handshake::Accepted;
    OX_ERROR("SaasConnector: WS handshake rejected: %.200s",
             loggable(response.text(), 200, secret_).c_str());
    return response.token_refused() ? Handshake::TokenRefused : Handshake::Failed;
}

bool WsLink::ws_send_frame(std::string_view payload, WsOpcode opcode) {
    WsMaskKey key{};
    randombytes_buf(key.data(), key.size());
    return connection_.write_all(bytes_of(encode_ws_frame(opcode, payload, key))) >= 0;
}

TcpConnection::Wait WsLink::wait(Milliseconds timeout, int wake_fd) {
    if (undecoded_) return TcpConnection::Wait::Ready;
    if (!decoder_.mid_frame()) return connection_.wait_readable(timeout, wake_fd);
    const auto start = SteadyClock::now();
    const auto left = std::chrono::ceil<milliseconds>(limits_.frame - frame_waited_);
    const auto result =
        connection_.wait_readable(std::clamp(left, milliseconds(0), timeout), wake_fd);
    frame_waited_ += SteadyClock::now() - start;
    return result;
}

bool WsLink::read_available() {
    if (undecoded_) return true;
    std::array<uint8_t, 16'384> buffer{};
    const ssize_t count = connection_.read(buffer);
    if (count > 0) {
        decoder_.feed(std::span(buffer).first(static_cast<size_t>(count)));
        undecoded_ = true;
        frame_waited_ = {};
    }
    return count != 0;
}

WsLink::Receive WsLink::ws_recv_message(std::string& message) {
    for (WsFrame frame;;) {
        switch (decoder_.next(frame)) {
            case WsFrameDecoder::Result::NeedMore:
                undecoded_ = false;
                return Receive::NeedMore;
            case WsFrameDecoder::Result::TooLong:
                OX_ERROR("SaasConnector: WS frame %lluB exceeds limit — closing",
                         static_cast<unsigned long long>(decoder_.announced()));
                return Receive::Drop;
            case WsFrameDecoder::Result::Frame:
                break;
        }
        last_frame_at_ = SteadyClock::now();
        frame_waited_ = {};
        switch (assembler_.take(std::move(frame), message)) {
            case WsAssembler::Step::Nothing:
                break;
            case WsAssembler::Step::Message:
                return Receive::Message;
            case WsAssembler::Step::Pong:
                if (!ws_send_frame(message, WsOpcode::Pong)) return Receive::Drop;
                break;
            case WsAssembler::Step::Drop:
                return Receive::Drop;
        }
    }
}

bool WsLink::frame_stalled() const {
    return frame_waited_ >= limits_.frame;
}

}  // namespace ox
