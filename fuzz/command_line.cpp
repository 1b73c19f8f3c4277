// The command line and the backend's address.

#include <vector>

#include "app/options.h"
#include "fuzz.h"
#include "saas/saas_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::vector<std::string> words;
    while (input.remaining_bytes() > 0 && words.size() < 20)
        words.push_back(input.ConsumeRandomLengthString(60));
    std::vector<const char*> argv;
    for (const std::string& word : words)
        argv.push_back(word.c_str());
    const auto parsed = ox::parse_command_line(argv, {});
    ox::wants_verbose(argv);
    OX_FUZZ_REQUIRE(parsed.action == ox::CommandLineAction::Fail || parsed.error.empty());
    for (const std::string& text : {parsed.options.saas_url, words.empty() ? "" : words.back()}) {
        const auto url = ox::parse_platform_url(text);
        if (const auto* endpoint = std::get_if<ox::PlatformEndpoint>(&url))
            OX_FUZZ_REQUIRE(endpoint->port != 0 && !endpoint->host.empty());
    }
    return 0;
}
