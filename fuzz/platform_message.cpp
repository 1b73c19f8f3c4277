// A message of the backend, what is logged of it, and what is sent back.

#include "fuzz.h"
#include "saas/platform_messages.h"
#include "saas/redaction.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (const std::string& line :
         {ox::loggable(text, 100, "secret"), ox::loggable(ox::redact_broken_json(text)),
          ox::loggable(ox::redact_secrets(text))}) {
        for (const char c : line)
            OX_FUZZ_REQUIRE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
    }
    const ox::PlatformMessage message = ox::parse_platform_message(text);
    if (const auto* prepare = std::get_if<ox::PrepareSessionParams>(&message)) {
        ox::session_ready_message(prepare->session_id, "0.0.0.0", 1, 2, 3);
        ox::session_stats_message(prepare->session_id, {});
        ox::error_message("CODE", prepare->client_id, prepare->session_id);
        OX_FUZZ_REQUIRE(ox::redact_secrets(text).size() == text.size());
    } else if (const auto* terminate = std::get_if<ox::TerminateSession>(&message)) {
        ox::session_ended_message(terminate->session_id, terminate->reason, 1);
    }
    return 0;
}
