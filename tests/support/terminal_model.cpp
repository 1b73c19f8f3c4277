#include "support/terminal_model.h"

#include <algorithm>
#include <cstdlib>

#include "tui/text.h"

namespace ox::test {
namespace {

size_t sequence_length(char lead) {
    const auto byte = static_cast<unsigned char>(lead);
    if (byte < 0x80) return 1;
    if (byte < 0xE0) return 2;
    return byte < 0xF0 ? 3 : 4;
}

}  // namespace

TerminalModel::TerminalModel(int columns, int rows) : columns_(columns), rows_(rows) {
    resize(columns, rows);
}

void TerminalModel::resize(int columns, int rows) {
    columns_ = columns;
    rows_ = rows;
    cells_.assign(static_cast<size_t>(columns * rows), Cell{});
    column_ = std::min(column_, columns - 1);
    row_ = std::min(row_, rows - 1);
}

void TerminalModel::feed(std::string_view bytes) {
    pending_ += bytes;
    while (!pending_.empty() && take_one()) {
    }
}

bool TerminalModel::take_one() {
    if (pending_[0] == '\x1B') {
        if (pending_.size() < 2) return false;
        if (pending_[1] != '[') {
            unknown_ += pending_.substr(0, 2);
            pending_.erase(0, 2);
            return true;
        }
        const size_t end = pending_.find_first_not_of("0123456789;?", 2);
        if (end == std::string::npos) return false;
        if (pending_[end] == '\x1B') {  // cut short by the next one
            pending_.erase(0, end);
            return true;
        }
        control(std::string_view(pending_).substr(2, end - 2), pending_[end]);
        pending_.erase(0, end + 1);
        return true;
    }
    const size_t length = sequence_length(pending_[0]);
    if (pending_.size() < length) return false;
    size_t index = 0;
    const char32_t cp = tui::text::next_cp(pending_, index);
    if (cp < 0x20 || (cp >= 0x7F && cp < 0xA0) || index != length) {
        unknown_ += pending_.substr(0, index);
    }
    put(cp);
    pending_.erase(0, index);
    return true;
}

void TerminalModel::control(std::string_view parameters, char final) {
    const bool on = final == 'h';
    if (final == 'm') {
        style_ = "\x1B[" + std::string(parameters) + "m";
    } else if (final == 'J' && parameters == "2") {
        cells_.assign(cells_.size(), Cell{});
        overran_ = false;
    } else if (final == 'H') {
        const std::string both(parameters);
        const size_t middle = both.find(';');
        row_ = std::clamp(std::atoi(both.c_str()) - 1, 0, rows_ - 1);
        column_ = middle == std::string::npos ? 0 : std::atoi(both.c_str() + middle + 1) - 1;
        overran_ |= column_ >= columns_;
        column_ = std::clamp(column_, 0, columns_ - 1);
    } else if ((on || final == 'l') && parameters == "?1049") {
        alternate_ = on;
    } else if ((on || final == 'l') && parameters == "?25") {
        cursor_visible_ = on;
    } else if ((on || final == 'l') && parameters == "?7") {
        wraps_ = on;
    } else {
        unknown_ += "\x1B[" + std::string(parameters) + final;
    }
}

void TerminalModel::put(char32_t cp) {
    const int wide = wide_.find(cp) != std::u32string::npos ? 2 : tui::text::columns(cp);
    if (wide == 0) {
        if (column_ > 0) cells_[static_cast<size_t>(row_ * columns_ + column_ - 1)].mark = cp;
        return;
    }
    if (column_ + wide > columns_) {
        overran_ = true;
        return;
    }
    const std::string style = cp == U' ' ? "" : style_;
    set(column_, {.cp = cp, .mark = 0, .style = style});
    if (wide == 2) set(column_ + 1, {.cp = 0, .mark = 0, .style = style});
    column_ += wide;
}

void TerminalModel::set(int column, const Cell& cell) {
    const auto here = static_cast<size_t>(row_ * columns_ + column);
    // Of a wide character that is overwritten in part, nothing stays.
    if (cells_[here].cp == 0 && cell.cp != 0) cells_[here - 1] = Cell{};
    if (column + 1 < columns_ && cells_[here + 1].cp == 0) cells_[here + 1] = Cell{};
    cells_[here] = cell;
}

std::string TerminalModel::row(int row) const {
    std::string text;
    for (int column = 0; column < columns_; ++column) {
        const Cell& cell = at(column, row);
        if (cell.cp != 0) tui::text::append_cp(text, cell.cp);
        if (cell.mark != 0) tui::text::append_cp(text, cell.mark);
    }
    return text;
}

std::string TerminalModel::text() const {
    std::string all;
    for (int i = 0; i < rows_; ++i)
        all += row(i) + "\n";
    return all;
}

}  // namespace ox::test
