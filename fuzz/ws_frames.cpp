// Frames of the backend, in pieces of any size.

#include <utility>
#include <vector>

#include "fuzz.h"
#include "saas/ws_frame.h"

namespace {

using Messages = std::vector<std::pair<ox::WsAssembler::Step, std::string>>;

Messages receive(std::span<const uint8_t> bytes, size_t piece) {
    ox::WsFrameDecoder decoder;
    ox::WsAssembler assembler("secret");
    Messages messages;
    while (!bytes.empty()) {
        const size_t take = std::min(piece, bytes.size());
        decoder.feed(bytes.first(take));
        bytes = bytes.subspan(take);
        ox::WsFrame frame;
        auto result = decoder.next(frame);
        for (; result == ox::WsFrameDecoder::Result::Frame; result = decoder.next(frame)) {
            std::string message;
            const auto step = assembler.take(std::move(frame), message);
            OX_FUZZ_REQUIRE(message.size() <= ox::kMaxWsMessage);
            messages.emplace_back(step, message);
            if (step == ox::WsAssembler::Step::Drop) return messages;
            frame = {};
        }
        if (result == ox::WsFrameDecoder::Result::TooLong) return messages;
    }
    return messages;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const std::span<const uint8_t> bytes(data + 1, size - 1);
    OX_FUZZ_REQUIRE(receive(bytes, bytes.size()) == receive(bytes, data[0] % 16U + 1));

    // Encoding and decoding round-trip.
    const std::string payload(bytes.begin(), bytes.end());
    const std::string encoded =
        ox::encode_ws_frame(ox::WsOpcode::Binary, payload, {1, 2, 3, data[0]});
    ox::WsFrameDecoder decoder;
    decoder.feed({reinterpret_cast<const uint8_t*>(encoded.data()), encoded.size()});
    ox::WsFrame frame;
    OX_FUZZ_REQUIRE(decoder.next(frame) == ox::WsFrameDecoder::Result::Frame);
    OX_FUZZ_REQUIRE(frame.fin && frame.payload == payload && !decoder.mid_frame());
    return 0;
}
