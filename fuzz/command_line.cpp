// The command line and the backend's address.

#include <vector>

#include "app/options.h"
#include "fuzz.h"
#include "saas/platform_url.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::vector<std::string> words{"orvex-agent"};
    while (input.remaining_bytes() > 0 && words.size() < 20)
        words.push_back(input.ConsumeRandomLengthString(60));
    std::vector<const char*> argv;
    for (const std::string& word : words)
        argv.push_back(word.c_str());
    const auto parsed = ox::parse_command_line(static_cast<int>(argv.size()), argv.data(), {});
    ox::wants_verbose(static_cast<int>(argv.size()), argv.data());
    if (const auto* run = std::get_if<ox::RunRequest>(&parsed))
        ox::parse_platform_url(run->options.saas_url);
    const auto url = ox::parse_platform_url(words.back());
    if (const auto* endpoint = std::get_if<ox::PlatformEndpoint>(&url))
        OX_FUZZ_REQUIRE(endpoint->port != 0 && !endpoint->host.empty());
    return 0;
}
