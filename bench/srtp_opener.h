#pragma once

#include <srtp2/srtp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace ox::bench {

/// Opens the RTP packets of one sender sealed as AES_CM_128_HMAC_SHA1_80 (RFC 3711).
class SrtpOpener {
  public:
    /// `hex_key`: 60 digits, master key and salt. Throws when libsrtp refuses them.
    explicit SrtpOpener(const std::string& hex_key) {
        for (size_t i = 0; i + 1 < hex_key.size(); i += 2)
            key_.push_back(static_cast<uint8_t>(std::stoul(hex_key.substr(i, 2), nullptr, 16)));
        srtp_policy_t policy{};
        srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(&policy.rtp);
        srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(&policy.rtcp);
        policy.ssrc.type = ssrc_any_inbound;
        policy.key = key_.data();
        if (key_.size() != 30 || srtp_init() != srtp_err_status_ok ||
            srtp_create(&session_, &policy) != srtp_err_status_ok) {
            throw std::runtime_error("libsrtp refused the key");
        }
    }
    ~SrtpOpener() { srtp_dealloc(session_); }
    SrtpOpener(const SrtpOpener&) = delete;
    SrtpOpener& operator=(const SrtpOpener&) = delete;

    /// The packet in clear, valid until the next call; empty when it is not authentic.
    std::span<const uint8_t> open(std::span<const uint8_t> sealed) {
        if (sealed.size() > packet_.size()) return {};
        std::ranges::copy(sealed, packet_.begin());
        int size = static_cast<int>(sealed.size());
        if (srtp_unprotect(session_, packet_.data(), &size) != srtp_err_status_ok) return {};
        return {packet_.data(), static_cast<size_t>(size)};
    }

  private:
    std::vector<uint8_t> key_;
    srtp_t session_ = nullptr;
    std::array<uint8_t, 2048> packet_{};
};

}  // namespace ox::bench
