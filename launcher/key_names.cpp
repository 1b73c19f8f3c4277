#include "launcher/key_names.h"

#include <array>

namespace ox::launcher {

namespace {

struct NamedKey {
    std::string_view name;
    Key key;
};

constexpr std::array kNamedKeys = {
    NamedKey{"esc", {0x1B, 1}},
    NamedKey{"minus", {0xBD, 12}},
    NamedKey{"equals", {0xBB, 13}},
    NamedKey{"backspace", {0x08, 14}},
    NamedKey{"tab", {0x09, 15}},
    NamedKey{"enter", {0x0D, 28}},
    NamedKey{"ctrl", {0xA2, 29}},
    NamedKey{"shift", {0xA0, 42}},
    NamedKey{"comma", {0xBC, 51}},
    NamedKey{"period", {0xBE, 52}},
    NamedKey{"slash", {0xBF, 53}},
    NamedKey{"right_shift", {0xA1, 54}},
    NamedKey{"alt", {0xA4, 56}},
    NamedKey{"space", {0x20, 57}},
    NamedKey{"caps_lock", {0x14, 58}},
    NamedKey{"f11", {0x7A, 87}},
    NamedKey{"f12", {0x7B, 88}},
    NamedKey{"right_ctrl", {0xA3, 29, true}},
    NamedKey{"right_alt", {0xA5, 56, true}},
    NamedKey{"home", {0x24, 71, true}},
    NamedKey{"up", {0x26, 72, true}},
    NamedKey{"page_up", {0x21, 73, true}},
    NamedKey{"left", {0x25, 75, true}},
    NamedKey{"right", {0x27, 77, true}},
    NamedKey{"end", {0x23, 79, true}},
    NamedKey{"down", {0x28, 80, true}},
    NamedKey{"page_down", {0x22, 81, true}},
    NamedKey{"insert", {0x2D, 82, true}},
    NamedKey{"delete", {0x2E, 83, true}},
    NamedKey{"meta", {0x5B, 91, true}},
};

// Rows of keys with a letter or a digit each, and the scan code of the first one.
struct Row {
    std::string_view characters;
    uint8_t first_scan_code;
};
constexpr std::array kRows = {Row{"1234567890", 2}, Row{"qwertyuiop", 16}, Row{"asdfghjkl", 30},
                              Row{"zxcvbnm", 44}};

std::optional<Key> find_character(char character) {
    for (const Row& row : kRows) {
        const size_t place = row.characters.find(character);
        if (place == std::string_view::npos) continue;
        const char upper = character >= 'a' ? static_cast<char>(character - 'a' + 'A') : character;
        return Key{.virtual_key = static_cast<uint8_t>(upper),
                   .scan_code = static_cast<uint8_t>(row.first_scan_code + place)};
    }
    return std::nullopt;
}

}  // namespace

std::optional<Key> find_key(std::string_view name) {
    if (name.size() == 1) return find_character(name[0]);
    for (const NamedKey& named : kNamedKeys)
        if (named.name == name) return named.key;
    // F1 to F10 follow each other.
    if (name.size() >= 2 && name.size() <= 3 && name[0] == 'f') {
        const std::string_view digits = name.substr(1);
        const int number = digits == "10" ? 10 : digits.size() == 1 ? digits[0] - '0' : 0;
        if (number >= 1 && number <= 10)
            return Key{.virtual_key = static_cast<uint16_t>(0x70 + number - 1),
                       .scan_code = static_cast<uint8_t>(59 + number - 1)};
    }
    return std::nullopt;
}

}  // namespace ox::launcher
