#include "base/command_line.h"

namespace ox {

OptionMatch match_option(std::string_view synopsis, std::string_view name) {
    constexpr std::string_view kSeparator = ", ";
    if (!synopsis.starts_with('-'))
        return name.starts_with('-') ? OptionMatch::None : OptionMatch::Positional;
    while (!synopsis.empty()) {
        const std::string_view option = synopsis.substr(0, synopsis.find(kSeparator));
        const size_t name_end = std::min(option.find(' '), option.size());
        if (option.substr(0, name_end) == name) {
            return name_end == option.size() ? OptionMatch::Flag : OptionMatch::WithValue;
        }
        synopsis.remove_prefix(std::min(option.size() + kSeparator.size(), synopsis.size()));
    }
    return OptionMatch::None;
}

std::string argument_fault_text(ArgumentFault fault, std::string_view name,
                                std::string_view value) {
    const std::string option(name);
    switch (fault) {
        case ArgumentFault::Unknown:
            return "unknown argument '" + option + "' (see --help)";
        case ArgumentFault::NoValue:
            return option + " needs a value";
        case ArgumentFault::BadValue:
            break;
    }
    return "bad value '" + std::string(value) + "' for " + option;
}

void append_help_row(std::string& text, std::string_view synopsis, std::string_view help,
                     size_t column) {
    const std::string indent(column, ' ');
    const size_t begin = text.size();
    text.append("  ").append(synopsis);
    if (text.size() - begin < column) {
        text.resize(begin + column, ' ');
    } else {
        text.append(1, '\n').append(indent);
    }
    for (const char c : help) {
        text += c;
        if (c == '\n') text += indent;
    }
    text += '\n';
}

}  // namespace ox
