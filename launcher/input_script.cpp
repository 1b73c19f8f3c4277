#include "launcher/input_script.h"

#include <array>
#include <charconv>
#include <optional>
#include <utility>

#include "launcher/client/wire_key.h"

namespace ox::launcher {

namespace {

constexpr std::string_view kDemo =
    "move 40 0; wait 20; move 40 0; wait 20; move 0 40; wait 20; move 0 40; wait 20;"
    "move -40 0; wait 20; move -40 0; wait 20; move 0 -40; wait 20; move 0 -40; wait 100;"
    "click left; wait 100; click right; wait 100; key esc; wait 100;"
    "press left; move 30 10; wait 50; move -30 -10; release left; wait 100;"
    "wheel 1; wait 50; wheel -1; wait 100;"
    "key o; key r; key v; key e; key x; wait 50; down shift; key 1; up shift; wait 50;"
    "key left; key right; key backspace; key enter";

// How long "click" and "key" hold down.
constexpr std::chrono::milliseconds kHold{20};
constexpr int kWheelUnitsPerNotch = 120;
constexpr int kMaxWaitMs = 3'600'000;

constexpr std::array<std::string_view, 3> kButtons = {"left", "right", "middle"};

struct NamedKey {
    std::string_view name;
    uint8_t scan_code;
    bool extended = false;
};

constexpr std::array kNamedKeys = {
    NamedKey{"esc", 1},
    NamedKey{"minus", 12},
    NamedKey{"equals", 13},
    NamedKey{"backspace", 14},
    NamedKey{"tab", 15},
    NamedKey{"enter", 28},
    NamedKey{"ctrl", 29},
    NamedKey{"shift", 42},
    NamedKey{"comma", 51},
    NamedKey{"period", 52},
    NamedKey{"slash", 53},
    NamedKey{"right_shift", 54},
    NamedKey{"alt", 56},
    NamedKey{"space", 57},
    NamedKey{"caps_lock", 58},
    NamedKey{"f11", 87},
    NamedKey{"f12", 88},
    NamedKey{"right_ctrl", 29, true},
    NamedKey{"right_alt", 56, true},
    NamedKey{"home", 71, true},
    NamedKey{"up", 72, true},
    NamedKey{"page_up", 73, true},
    NamedKey{"left", 75, true},
    NamedKey{"right", 77, true},
    NamedKey{"end", 79, true},
    NamedKey{"down", 80, true},
    NamedKey{"page_down", 81, true},
    NamedKey{"insert", 82, true},
    NamedKey{"delete", 83, true},
    NamedKey{"meta", 91, true},
};

// Rows of keys with a letter or a digit each, and the scan code of the first one.
struct Row {
    std::string_view characters;
    uint8_t first_scan_code;
};
constexpr std::array kRows = {Row{"1234567890", 2}, Row{"qwertyuiop", 16}, Row{"asdfghjkl", 30},
                              Row{"zxcvbnm", 44}};

std::optional<WireKey> find_character(char character) {
    for (const Row& row : kRows) {
        const size_t place = row.characters.find(character);
        if (place != std::string_view::npos)
            return wire_key(static_cast<uint8_t>(row.first_scan_code + place));
    }
    return std::nullopt;
}

// The key called `name` ("a", "7", "f5", "enter", "right_ctrl", ...) on a US keyboard.
std::optional<WireKey> find_key(std::string_view name) {
    if (name.size() == 1) return find_character(name[0]);
    for (const NamedKey& named : kNamedKeys)
        if (named.name == name) return wire_key(named.scan_code, named.extended);
    // F1 to F10 follow each other.
    if (name.size() >= 2 && name.size() <= 3 && name[0] == 'f') {
        const std::string_view digits = name.substr(1);
        const int number = digits == "10" ? 10 : digits.size() == 1 ? digits[0] - '0' : 0;
        if (number >= 1 && number <= 10) return wire_key(static_cast<uint8_t>(59 + number - 1));
    }
    return std::nullopt;
}

class Reader {
  public:
    bool read(std::string_view command) {
        words_ = command;
        const std::string_view verb = next_word();
        if (verb.empty()) return true;
        return (read_pointer(verb) || read_key(verb) || read_wait(verb)) && next_word().empty();
    }
    std::vector<InputStep> finish() {
        if (buttons_ != 0) set_buttons(0);
        while (!held_.empty())
            add_key(held_.back(), false);
        return std::move(steps_);
    }

  private:
    std::string_view next_word() {
        const size_t begin = words_.find_first_not_of(" \t\r");
        if (begin == std::string_view::npos) return words_ = {};
        const size_t end = std::min(words_.find_first_of(" \t\r", begin), words_.size());
        const std::string_view word = words_.substr(begin, end - begin);
        words_.remove_prefix(end);
        return word;
    }
    std::optional<int> next_number(int low, int high) {
        const std::string_view word = next_word();
        int value = 0;
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
        if (error != std::errc{} || end != word.data() + word.size()) return std::nullopt;
        return value >= low && value <= high ? std::optional(value) : std::nullopt;
    }

    bool read_pointer(std::string_view verb) {
        if (verb == "move") {
            const auto dx = next_number(INT16_MIN, INT16_MAX);
            const auto dy = next_number(INT16_MIN, INT16_MAX);
            if (dx && dy) add(InputKind::MouseMotion, *dx, *dy);
            return dx && dy;
        }
        if (verb == "wheel") {
            constexpr int kMaxNotches = INT16_MAX / kWheelUnitsPerNotch;
            const auto notches = next_number(-kMaxNotches, kMaxNotches);
            if (notches) add(InputKind::Wheel, 0, *notches * kWheelUnitsPerNotch);
            return notches.has_value();
        }
        if (verb != "press" && verb != "release" && verb != "click") return false;
        const std::string_view name = next_word();
        uint8_t bit = 0;
        for (size_t i = 0; i < kButtons.size(); ++i)
            if (kButtons[i] == name) bit = static_cast<uint8_t>(1U << i);
        if (bit == 0) return false;
        if (verb != "release") set_buttons(static_cast<uint8_t>(buttons_ | bit));
        if (verb == "click") now_ += kHold;
        if (verb != "press") set_buttons(static_cast<uint8_t>(buttons_ & ~bit));
        return true;
    }

    bool read_key(std::string_view verb) {
        if (verb != "down" && verb != "up" && verb != "key") return false;
        const auto key = find_key(next_word());
        if (!key) return false;
        if (verb != "up") add_key(*key, true);
        if (verb == "key") now_ += kHold;
        if (verb != "down") add_key(*key, false);
        return true;
    }

    bool read_wait(std::string_view verb) {
        const auto ms = verb == "wait" ? next_number(0, kMaxWaitMs) : std::nullopt;
        if (ms) now_ += std::chrono::milliseconds(*ms);
        return ms.has_value();
    }

    void add(InputPacket packet) {
        packet.buttons = buttons_;
        steps_.push_back({.at = now_, .packet = packet});
    }
    void add(InputKind kind, int data0, int data1) {
        InputPacket packet;
        packet.kind = static_cast<uint8_t>(kind);
        packet.data0 = static_cast<int16_t>(data0);
        packet.data1 = static_cast<int16_t>(data1);
        add(packet);
    }
    void set_buttons(uint8_t buttons) {
        buttons_ = buttons;
        add(InputKind::MouseButtons, 0, 0);
    }
    void add_key(const WireKey& key, bool down) {
        add(make_key_packet(key, down));
        std::erase(held_, key);
        if (down) held_.push_back(key);
    }

    std::string_view words_;
    std::chrono::milliseconds now_{0};
    uint8_t buttons_ = 0;
    std::vector<WireKey> held_;
    std::vector<InputStep> steps_;
};

}  // namespace

bool parse_input_script(std::string_view text, std::vector<InputStep>& steps, std::string& error) {
    if (text == "demo") text = kDemo;
    Reader reader;
    while (!text.empty()) {
        const size_t end = std::min(text.find_first_of(";\n"), text.size());
        const std::string_view command = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (reader.read(command)) continue;
        error = "input script: cannot read '" + std::string(command) + "'";
        return false;
    }
    steps = reader.finish();
    return true;
}

}  // namespace ox::launcher
