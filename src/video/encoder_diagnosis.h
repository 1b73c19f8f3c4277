#pragma once

#include <span>

#include "video/diagnosis.h"
#include "video/encoder_failure.h"
#include "video/graphics_facts.h"

namespace ox {

struct EncoderDiagnosis {
    Diagnosis reason;
    /// The PC seems to have no such hardware: no news while another encoder serves.
    bool no_hardware = false;
};

/// Reads the cause out of libav's words; its own words and a general remedy when they say nothing
/// known.
EncoderDiagnosis diagnose(const EncoderFailure& failure, const GraphicsFacts& facts);

/// Of one encoder's attempts with several cards, at least one, the attempt that tells its owner
/// most: a card that refused before one that could not be opened; an NVIDIA card, which decodes at
/// best, or none last.
const EncoderFailure& most_telling(std::span<const EncoderFailure> attempts,
                                   const GraphicsFacts& facts);

}  // namespace ox
