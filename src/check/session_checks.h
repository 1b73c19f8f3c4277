#pragma once

#include <string>

#include "app/options.h"

/// What a session would find on this PC now, tried out one thing at a time and given in words for
/// `start-agent`, which has the texts for the owner: "VERDICT" or "VERDICT DETAIL". Nothing is
/// recorded or kept, no dialog opens. May hang or crash where a driver or server does.
namespace ox {

/// Opens the encoder that these options lead to and encodes some pictures.
///
///     hardware NAME      a graphics card encodes
///     processor NAME     the processor encodes, as was asked for
///     only-processor NAME    the same, as no card does
///     fails NAME         it opened, but gave no picture
///     none               nothing opened
std::string check_encoder(const Options& options);

/// Where the picture would come from.
///
///     x11 DISPLAY WIDTHxHEIGHT
///     portal-knows       the Wayland desktop, without asking anybody
///     portal-asks        the Wayland desktop, once somebody at the PC has approved it
///     portal-missing     a Wayland desktop that cannot share its screen: a test picture
///     none               no desktop: a test picture
///     test               a test picture, as was asked for
std::string check_picture(const Options& options);

/// Where the sound would come from.
///
///     monitor NAME       what this monitor of the default output records
///     muted NAME         the same, but the output is muted
///     no-output          the server has no output
///     no-server          no sound server answers
///     off                nowhere, as was asked for
std::string check_sound(const Options& options);

/// With nobody at the PC. Sound is not needed.
bool is_playable(const std::string& encoder, const std::string& picture);

}  // namespace ox
