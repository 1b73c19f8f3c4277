#pragma once

#include <span>

#include "video/diagnosis.h"
#include "video/encoder_ladder.h"
#include "video/graphics_facts.h"

namespace ox {

struct EncoderDiagnosis {
    Diagnosis reason;
    /// The PC seems to lack the hardware: not worth a line while another encoder works.
    bool no_hardware = false;
};

/// Finds the cause in libav's messages; else quotes its last error with a general remedy.
EncoderDiagnosis diagnose(const EncoderFailure& failure, const GraphicsFacts& facts);

/// Of one encoder's attempts on several cards, at least one, the one to report: a card that refused
/// before one that could not be opened; last an NVIDIA card, which decodes at best, or no card.
const EncoderFailure& most_informative(std::span<const EncoderFailure> attempts,
                                       const GraphicsFacts& facts);

}  // namespace ox
