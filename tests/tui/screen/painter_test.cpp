#include "tui/screen/painter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "base/text.h"
#include "support/terminal_model.h"

namespace ox::tui {
namespace {

using ox::test::TerminalModel;

/// The frame painted naively, each character by itself.
std::string one_by_one(const Frame& frame, ColourMode mode) {
    std::string bytes;
    for (int row = 0; row < frame.size().rows; ++row) {
        for (int column = 0; column < frame.size().columns; ++column) {
            const Cell& cell = frame.at(column, row);
            bytes += "\x1B[" + std::to_string(row + 1) + ";" + std::to_string(column + 1) + "H" +
                     sgr(cell.style, mode);
            if (cell.cp != 0) text::append_cp(bytes, cell.cp);
            if (cell.mark != 0) text::append_cp(bytes, cell.mark);
        }
    }
    return bytes;
}

void expect_shows(const TerminalModel& terminal, const Frame& frame, ColourMode mode) {
    EXPECT_EQ(terminal.unknown(), "");
    TerminalModel wanted(frame.size().columns, frame.size().rows);
    wanted.feed(one_by_one(frame, mode));
    for (int row = 0; row < frame.size().rows; ++row) {
        for (int column = 0; column < frame.size().columns; ++column) {
            const VTermScreenCell here = terminal.at(column, row);
            const VTermScreenCell there = wanted.at(column, row);
            ASSERT_TRUE(std::ranges::equal(here.chars, there.chars) && here.width == there.width &&
                        std::memcmp(&here.attrs, &there.attrs, sizeof here.attrs) == 0 &&
                        vterm_color_is_equal(&here.fg, &there.fg) != 0 &&
                        vterm_color_is_equal(&here.bg, &there.bg) != 0)
                << column << "," << row << " of\n"
                << terminal.text();
        }
    }
}

// Random text in random styles, of one and two columns and with marks.
std::vector<Line> random_lines(std::mt19937& random, Size size) {
    const std::string_view pieces[] = {"a", "b",       " ", "  ",      "Ж",   "漢",
                                       "🎮", "e\u0301", "─", "\x1B[2J", "\xD0"};
    std::uniform_int_distribution<size_t> piece(0, std::size(pieces) - 1);
    std::uniform_int_distribution<int> number(0, 7);
    std::vector<Line> lines(static_cast<size_t>(size.rows));
    for (Line& line : lines) {
        for (int i = number(random) * 3; i > 0; --i) {
            line.add(pieces[piece(random)], {.tone = static_cast<Tone>(number(random)),
                                             .bold = number(random) > 4,
                                             .shade = static_cast<uint8_t>(number(random))});
        }
    }
    return lines;
}

TEST(Painter, TerminalShowsEachFrameAfterItsChanges) {
    std::mt19937 random(20240611);  // the same frames in each run
    for (const ColourMode mode : {ColourMode::Ansi, ColourMode::TrueColour}) {
        const Size size{.columns = 17, .rows = 3};
        TerminalModel terminal(size.columns, size.rows);
        Frame shown(size, random_lines(random, size));
        terminal.feed("leftovers\x1B[31m");
        terminal.feed(paint_all(shown, mode));
        expect_shows(terminal, shown, mode);
        for (int round = 0; round < 500 && !HasFailure(); ++round) {
            const Frame next(size, random_lines(random, size));
            terminal.feed(paint_changes(shown, next, mode));
            expect_shows(terminal, next, mode);
            shown = next;
        }
    }
}

}  // namespace
}  // namespace ox::tui
