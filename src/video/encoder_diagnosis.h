#pragma once

#include <string>

#include "video/diagnosis.h"
#include "video/encoder_options.h"
#include "video/graphics_facts.h"

namespace ox {

/// One encoder's refusal to open.
struct EncoderFailure {
    const EncoderChoice* choice = nullptr;
    int error = 0;     ///< libav's
    std::string said;  ///< libav's warnings and errors of the attempt, as it wrote them
};

struct EncoderDiagnosis {
    Diagnosis reason;
    /// The PC seems to have no such hardware: no news while another encoder serves.
    bool no_hardware = false;
};

/// Reads the cause out of libav's words; its own words and a general remedy when they say nothing
/// known.
EncoderDiagnosis diagnose(const EncoderFailure& failure, const GraphicsFacts& facts);

}  // namespace ox
