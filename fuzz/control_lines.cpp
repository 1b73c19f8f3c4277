// An authenticated launcher's lines, in pieces of any size.

#include <vector>

#include "control/control_message.h"
#include "fuzz.h"

namespace {

using Lines = std::vector<std::pair<std::string, size_t>>;

Lines split(std::string_view bytes, size_t piece) {
    constexpr size_t kLongest = 200;
    ox::LineSplitter splitter(kLongest);
    Lines lines;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        splitter.feed(bytes.substr(at, piece), [&](const ox::LineSplitter::Line& line) {
            OX_FUZZ_REQUIRE(line.text.size() <= kLongest);
            lines.emplace_back(line.text, line.length);
        });
    }
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Lines lines = split(bytes, bytes.size());
    OX_FUZZ_REQUIRE(lines == split(bytes, data[0] % 64U + 1));
    for (const auto& line : lines) {
        const ox::ControlLine parsed = ox::parse_control_line(line.first);
        if (const auto* ping = std::get_if<ox::Ping>(&parsed)) ox::make_pong(ping->ts);
    }
    return 0;
}
