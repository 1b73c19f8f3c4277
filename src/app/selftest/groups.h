#pragma once

#include "app/selftest/checks.h"

namespace ox::selftest {

// One group of checks each, in a file of its own name. Where setting up fails, the checks that
// build on it fail too.
void check_media_packets();
void check_session_keys();
void check_input_packets();
void check_video_chain();
void check_audio_parity();
void check_reference_invalidation();
void check_low_delay_audio();

}  // namespace ox::selftest
