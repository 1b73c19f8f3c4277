#include "saas/ws_upgrade.h"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace ox {
namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";

std::string header_value(std::string_view text) {
    std::string value(text);
    std::erase_if(value, [](char c) { return static_cast<uint8_t>(c) < 0x20 || c == 0x7F; });
    return value;
}

}  // namespace

std::string make_ws_key() {
    std::array<uint8_t, 16> nonce{};
    randombytes_buf(nonce.data(), nonce.size());
    std::array<char, sodium_base64_ENCODED_LEN(16, sodium_base64_VARIANT_ORIGINAL)> text{};
    sodium_bin2base64(text.data(), text.size(), nonce.data(), nonce.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    return text.data();
}

std::string ws_build_handshake(std::string_view host, std::string_view key,
                               std::string_view agent_token) {
    return "GET /agent/connect HTTP/1.1\r\n"
           "Host: " +
           header_value(host) +
           "\r\n"
           "Upgrade: websocket\r\n"
           "Connection: Upgrade\r\n"
           "Sec-WebSocket-Key: " +
           std::string(key) +
           "\r\n"
           "Sec-WebSocket-Version: 13\r\n"
           "agent-token: " +
           header_value(agent_token) +
           "\r\n"
           "\r\n";
}

UpgradeResponse::State UpgradeResponse::feed(std::span<const uint8_t> bytes) {
    const size_t searched = text_.size();
    text_.append(bytes.begin(), bytes.end());
    if (head_size_ == 0) {
        // The terminator may straddle the old and the new bytes.
        const size_t end = text_.find(kHeadEnd, searched - std::min(searched, kHeadEnd.size() - 1));
        if (end == text_.npos) return text_.size() > kMaxHead ? State::TooLong : State::Incomplete;
        head_size_ = end + kHeadEnd.size();
    }
    const bool accepted = text_.find("101") != text_.npos && text_.find("pgrade") != text_.npos;
    return accepted ? State::Accepted : State::Rejected;
}

std::string_view UpgradeResponse::leftover() const noexcept {
    return head_size_ == 0 ? std::string_view() : std::string_view(text_).substr(head_size_);
}

bool UpgradeResponse::token_refused() const noexcept {
    const std::string_view status = std::string_view(text_).substr(0, text_.find("\r\n"));
    return status.find(" 401") != status.npos || status.find(" 403") != status.npos;
}

}  // namespace ox
