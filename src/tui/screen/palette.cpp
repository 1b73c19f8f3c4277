#include "tui/screen/palette.h"

namespace ox::tui {
namespace {

struct Rgb {
    int red;
    int green;
    int blue;
};

// Chosen to be readable on dark and on light backgrounds.
constexpr Rgb kDim{128, 136, 149};
constexpr Rgb kFaint{92, 100, 112};
constexpr Rgb kAccent{45, 150, 166};
constexpr Rgb kGood{63, 182, 96};
constexpr Rgb kWarn{217, 154, 38};
constexpr Rgb kBad{240, 82, 82};
constexpr Rgb kLogoFirst{52, 190, 210};
constexpr Rgb kLogoLast{124, 110, 245};

Rgb between(Rgb first, Rgb last, int shade) {
    const auto mix = [shade](int a, int b) { return a + (b - a) * shade / 255; };
    return {mix(first.red, last.red), mix(first.green, last.green), mix(first.blue, last.blue)};
}

std::string true_colour(Style style) {
    const auto code = [](Rgb rgb) {
        return ";38;2;" + std::to_string(rgb.red) + ";" + std::to_string(rgb.green) + ";" +
               std::to_string(rgb.blue);
    };
    switch (style.tone) {
        case Tone::Text:
            return {};
        case Tone::Dim:
            return code(kDim);
        case Tone::Faint:
            return code(kFaint);
        case Tone::Accent:
            return code(kAccent);
        case Tone::Good:
            return code(kGood);
        case Tone::Warn:
            return code(kWarn);
        case Tone::Bad:
            return code(kBad);
        case Tone::Logo:
            return code(between(kLogoFirst, kLogoLast, style.shade));
    }
    return {};
}

// "Bright black" would be invisible in some themes; faint is not.
const char* basic_colour(Tone tone) {
    switch (tone) {
        case Tone::Text:
            return "";
        case Tone::Dim:
        case Tone::Faint:
            return ";2";
        case Tone::Accent:
        case Tone::Logo:
            return ";36";
        case Tone::Good:
            return ";32";
        case Tone::Warn:
            return ";33";
        case Tone::Bad:
            return ";31";
    }
    return "";
}

}  // namespace

std::string sgr(Style style, ColourMode mode) {
    std::string codes = "\x1B[0";
    if (style.bold) codes += ";1";
    if (mode == ColourMode::TrueColour) codes += true_colour(style);
    if (mode == ColourMode::Ansi) codes += basic_colour(style.tone);
    if (mode == ColourMode::Plain && (style.tone == Tone::Dim || style.tone == Tone::Faint)) {
        codes += ";2";
    }
    return codes + "m";
}

}  // namespace ox::tui
