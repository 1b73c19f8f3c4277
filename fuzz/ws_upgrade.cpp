// The backend's response to the WebSocket upgrade, in pieces of any size.

#include "saas/ws_upgrade.h"
#include "fuzz.h"

namespace {

struct Outcome {
    ox::UpgradeResponse::State state = ox::UpgradeResponse::State::Incomplete;
    std::string rest;  ///< bytes behind the head
    bool refused = false;

    bool operator==(const Outcome&) const = default;
};

Outcome feed(std::span<const uint8_t> bytes, size_t piece) {
    ox::UpgradeResponse response;
    Outcome outcome;
    while (!bytes.empty() && outcome.state == ox::UpgradeResponse::State::Incomplete) {
        const size_t take = std::min(piece, bytes.size());
        outcome.state = response.feed(bytes.first(take));
        bytes = bytes.subspan(take);
    }
    if (outcome.state == ox::UpgradeResponse::State::Accepted) {
        outcome.rest = std::string(response.leftover());
        outcome.rest.append(bytes.begin(), bytes.end());
    }
    if (outcome.state == ox::UpgradeResponse::State::Rejected)
        outcome.refused = response.token_refused();
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const std::span<const uint8_t> bytes(data + 1, size - 1);
    const Outcome whole = feed(bytes, bytes.size());
    const Outcome pieces = feed(bytes, data[0] % 16U + 1);
    // The lenient check includes the bytes behind the head, which may only turn a rejection into an
    // acceptance.
    using State = ox::UpgradeResponse::State;
    if (pieces.state == State::Accepted || whole.state != State::Accepted)
        OX_FUZZ_REQUIRE(pieces == whole);
    return 0;
}
