#include "tui/screen/painter.h"

#include "base/text.h"

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

// "Bright black" is invisible in some themes; faint is not.
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

namespace {

// A cursor move takes about as many bytes as rewriting this many unchanged characters.
constexpr int kCheapGap = 4;

// Terminals disagree about the width of the other characters.
bool width_is_certain(const Cell& cell) {
    const char32_t cp = cell.cp;
    return cell.mark == 0 &&
           (cp < 0x300 || (cp >= 0x370 && cp < 0x483) || (cp >= 0x48A && cp < 0x530) ||
            (cp >= 0x2010 && cp <= 0x2027) || (cp >= 0x2190 && cp < 0x2600));
}

class ChangePainter {
  public:
    ChangePainter(const Frame& shown, const Frame& wanted, ColourMode mode)
        : shown_(shown), wanted_(wanted), mode_(mode) {}

    std::string paint() {
        const Size size = wanted_.size();
        for (int row = 0; row < size.rows; ++row) {
            for (int column = 0; column < size.columns;) {
                column = is_same(column, row) ? column + 1 : paint_run(column, row);
            }
        }
        if (!bytes_.empty()) bytes_ += "\x1B[0m";
        return std::move(bytes_);
    }

  private:
    [[nodiscard]] bool is_same(int column, int row) const {
        return shown_.at(column, row) == wanted_.at(column, row);
    }

    // Writes from a changed cell to the last one before a longer unchanged run; returns the column
    // after it.
    int paint_run(int column, int row) {
        if (wanted_.at(column, row).cp == 0) --column;
        move_to(column, row);
        int same = 0;
        const int columns = wanted_.size().columns;
        int end = column + 1;
        for (int at = end; at < columns && same < kCheapGap; ++at) {
            same = is_same(at, row) ? same + 1 : 0;
            if (same == 0) end = at + 1;
        }
        bool placed = true;
        for (int at = column; at < end; ++at) {
            const Cell& cell = wanted_.at(at, row);
            if (cell.cp == 0) continue;
            if (!placed) move_to(at, row);
            write(cell);
            placed = width_is_certain(cell);
        }
        return end;
    }

    void move_to(int column, int row) {
        bytes_ += "\x1B[" + std::to_string(row + 1) + ";" + std::to_string(column + 1) + "H";
    }

    void write(const Cell& cell) {
        if (style_.empty() || cell.style != cell_style_) {
            cell_style_ = cell.style;
            std::string style = sgr(cell.style, mode_);
            if (style != style_) bytes_ += style_ = std::move(style);
        }
        text::append_cp(bytes_, cell.cp);
        if (cell.mark != 0) text::append_cp(bytes_, cell.mark);
    }

    const Frame& shown_;
    const Frame& wanted_;
    ColourMode mode_;
    std::string bytes_;
    Style cell_style_;
    std::string style_;  // as last written; empty before the first
};

}  // namespace

std::string paint_changes(const Frame& shown, const Frame& wanted, ColourMode mode) {
    return ChangePainter(shown, wanted, mode).paint();
}

std::string paint_all(const Frame& wanted, ColourMode mode) {
    return "\x1B[0m\x1B[2J" + paint_changes(Frame(wanted.size()), wanted, mode);
}

}  // namespace ox::tui
