#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace ox {

/// One option or several with the same help. Without help the row is not shown; without `apply` it
/// is only shown; with neither it is a heading. A synopsis without a dash takes arguments
/// without one.
template <typename Options>
struct OptionRow {
    std::string_view synopsis;  ///< "--name", "--name VALUE"; several of them behind commas
    std::string_view help{};    ///< may have several lines
    /// False when the value is unusable; `value` is empty for an option that takes none.
    bool (*apply)(Options& options, std::string_view name, const char* value) = nullptr;
};

/// For `OptionRow::apply`: stores the value, which must not be empty, in a string.
template <auto Field, typename Options>
bool store_text(Options& options, std::string_view /*name*/, const char* text) {
    options.*Field = text;
    return *text != '\0';
}

template <auto Field, typename Options>
bool store_flag(Options& options, std::string_view /*name*/, const char* /*value*/) {
    options.*Field = true;
    return true;
}

/// False when the whole text is no number from `low` to `high`.
template <typename Number>
bool read_number(std::string_view text, Number low, Number high, Number& out) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) return false;
    if (!(value >= low && value <= high)) return false;  // refuses NaN as well
    out = value;
    return true;
}

enum class CommandLineAction : uint8_t { Run, ShowHelp, ShowVersion, Fail };

template <typename Options>
struct ParsedCommandLine {
    CommandLineAction action = CommandLineAction::Run;
    Options options{};
    std::string error{};  ///< for Fail; may be empty
};

enum class ArgumentFault : uint8_t { Unknown, NoValue, BadValue };

std::string argument_fault_text(ArgumentFault fault, std::string_view name, std::string_view value);

enum class OptionMatch : uint8_t { None, Flag, WithValue, Positional };
/// Whether `synopsis` has the option `name`, and whether that takes a value.
OptionMatch match_option(std::string_view synopsis, std::string_view name);

void append_help_row(std::string& text, std::string_view synopsis, std::string_view help,
                     size_t column);

/// Reads arguments up to the first fault or request for help or version.
template <typename Table, typename Options, typename FaultText>
ParsedCommandLine<Options> read_command_line(const Table& table,
                                             std::span<const char* const> arguments,
                                             Options options, FaultText&& fault_text) {
    using Action = CommandLineAction;
    const auto fail = [&](ArgumentFault fault, std::string_view name, std::string_view value = {}) {
        return ParsedCommandLine<Options>{Action::Fail, {}, fault_text(fault, name, value)};
    };
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view name = arguments[i];
        if (name == "-h" || name == "--help") return {Action::ShowHelp};
        if (name == "--version") return {Action::ShowVersion};
        auto match = OptionMatch::None;
        const auto row = std::find_if(table.begin(), table.end(), [&](const auto& candidate) {
            if (candidate.apply) match = match_option(candidate.synopsis, name);
            return match != OptionMatch::None;
        });
        if (row == table.end()) return fail(ArgumentFault::Unknown, name);
        const char* value = "";
        if (match == OptionMatch::Positional) {
            value = arguments[i];
        } else if (match == OptionMatch::WithValue) {
            if (++i == arguments.size()) return fail(ArgumentFault::NoValue, name);
            value = arguments[i];
        }
        if (!row->apply(options, name, value)) {
            return fail(ArgumentFault::BadValue,
                        match == OptionMatch::Positional ? row->synopsis : name, value);
        }
    }
    return {Action::Run, std::move(options)};
}

template <typename Table>
std::string help_of(const Table& table, size_t column) {
    std::string text;
    for (const auto& row : table) {
        if (!row.help.empty()) {
            append_help_row(text, row.synopsis, row.help, column);
        } else if (!row.apply) {
            text.append(1, '\n').append(row.synopsis).append(1, '\n');
        }
    }
    return text;
}

}  // namespace ox
