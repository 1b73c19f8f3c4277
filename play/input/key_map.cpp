#include "play/input/key_map.h"

#include <array>
#include <cstdint>

namespace ox::play {

namespace {

struct Position {
    SDL_Scancode position;
    uint8_t scan_code;
};

constexpr std::array kPlain = {
    Position{SDL_SCANCODE_ESCAPE, 1},
    Position{SDL_SCANCODE_1, 2},
    Position{SDL_SCANCODE_2, 3},
    Position{SDL_SCANCODE_3, 4},
    Position{SDL_SCANCODE_4, 5},
    Position{SDL_SCANCODE_5, 6},
    Position{SDL_SCANCODE_6, 7},
    Position{SDL_SCANCODE_7, 8},
    Position{SDL_SCANCODE_8, 9},
    Position{SDL_SCANCODE_9, 10},
    Position{SDL_SCANCODE_0, 11},
    Position{SDL_SCANCODE_MINUS, 12},
    Position{SDL_SCANCODE_EQUALS, 13},
    Position{SDL_SCANCODE_BACKSPACE, 14},
    Position{SDL_SCANCODE_TAB, 15},
    Position{SDL_SCANCODE_Q, 16},
    Position{SDL_SCANCODE_W, 17},
    Position{SDL_SCANCODE_E, 18},
    Position{SDL_SCANCODE_R, 19},
    Position{SDL_SCANCODE_T, 20},
    Position{SDL_SCANCODE_Y, 21},
    Position{SDL_SCANCODE_U, 22},
    Position{SDL_SCANCODE_I, 23},
    Position{SDL_SCANCODE_O, 24},
    Position{SDL_SCANCODE_P, 25},
    Position{SDL_SCANCODE_LEFTBRACKET, 26},
    Position{SDL_SCANCODE_RIGHTBRACKET, 27},
    Position{SDL_SCANCODE_RETURN, 28},
    Position{SDL_SCANCODE_LCTRL, 29},
    Position{SDL_SCANCODE_A, 30},
    Position{SDL_SCANCODE_S, 31},
    Position{SDL_SCANCODE_D, 32},
    Position{SDL_SCANCODE_F, 33},
    Position{SDL_SCANCODE_G, 34},
    Position{SDL_SCANCODE_H, 35},
    Position{SDL_SCANCODE_J, 36},
    Position{SDL_SCANCODE_K, 37},
    Position{SDL_SCANCODE_L, 38},
    Position{SDL_SCANCODE_SEMICOLON, 39},
    Position{SDL_SCANCODE_APOSTROPHE, 40},
    Position{SDL_SCANCODE_GRAVE, 41},
    Position{SDL_SCANCODE_LSHIFT, 42},
    Position{SDL_SCANCODE_BACKSLASH, 43},
    Position{SDL_SCANCODE_Z, 44},
    Position{SDL_SCANCODE_X, 45},
    Position{SDL_SCANCODE_C, 46},
    Position{SDL_SCANCODE_V, 47},
    Position{SDL_SCANCODE_B, 48},
    Position{SDL_SCANCODE_N, 49},
    Position{SDL_SCANCODE_M, 50},
    Position{SDL_SCANCODE_COMMA, 51},
    Position{SDL_SCANCODE_PERIOD, 52},
    Position{SDL_SCANCODE_SLASH, 53},
    Position{SDL_SCANCODE_RSHIFT, 54},
    Position{SDL_SCANCODE_KP_MULTIPLY, 55},
    Position{SDL_SCANCODE_LALT, 56},
    Position{SDL_SCANCODE_SPACE, 57},
    Position{SDL_SCANCODE_CAPSLOCK, 58},
    Position{SDL_SCANCODE_F1, 59},
    Position{SDL_SCANCODE_F2, 60},
    Position{SDL_SCANCODE_F3, 61},
    Position{SDL_SCANCODE_F4, 62},
    Position{SDL_SCANCODE_F5, 63},
    Position{SDL_SCANCODE_F6, 64},
    Position{SDL_SCANCODE_F7, 65},
    Position{SDL_SCANCODE_F8, 66},
    Position{SDL_SCANCODE_F9, 67},
    Position{SDL_SCANCODE_F10, 68},
    Position{SDL_SCANCODE_NUMLOCKCLEAR, 69},
    Position{SDL_SCANCODE_SCROLLLOCK, 70},
    Position{SDL_SCANCODE_KP_7, 71},
    Position{SDL_SCANCODE_KP_8, 72},
    Position{SDL_SCANCODE_KP_9, 73},
    Position{SDL_SCANCODE_KP_MINUS, 74},
    Position{SDL_SCANCODE_KP_4, 75},
    Position{SDL_SCANCODE_KP_5, 76},
    Position{SDL_SCANCODE_KP_6, 77},
    Position{SDL_SCANCODE_KP_PLUS, 78},
    Position{SDL_SCANCODE_KP_1, 79},
    Position{SDL_SCANCODE_KP_2, 80},
    Position{SDL_SCANCODE_KP_3, 81},
    Position{SDL_SCANCODE_KP_0, 82},
    Position{SDL_SCANCODE_KP_PERIOD, 83},
    Position{SDL_SCANCODE_NONUSBACKSLASH, 86},
    Position{SDL_SCANCODE_F11, 87},
    Position{SDL_SCANCODE_F12, 88},
    Position{SDL_SCANCODE_KP_EQUALS, 89},
    Position{SDL_SCANCODE_F13, 100},
    Position{SDL_SCANCODE_F14, 101},
    Position{SDL_SCANCODE_F15, 102},
    Position{SDL_SCANCODE_F16, 103},
    Position{SDL_SCANCODE_F17, 104},
    Position{SDL_SCANCODE_F18, 105},
    Position{SDL_SCANCODE_F19, 106},
    Position{SDL_SCANCODE_F20, 107},
    Position{SDL_SCANCODE_F21, 108},
    Position{SDL_SCANCODE_F22, 109},
    Position{SDL_SCANCODE_F23, 110},
    // Positions that national keyboards report with a code of their own.
    Position{SDL_SCANCODE_NONUSHASH, 43},
    Position{SDL_SCANCODE_LANG5, 41},
    Position{SDL_SCANCODE_LANG2, 0x71},
    Position{SDL_SCANCODE_LANG1, 0x72},
    Position{SDL_SCANCODE_INTERNATIONAL2, 0x70},
    Position{SDL_SCANCODE_INTERNATIONAL1, 0x73},
    Position{SDL_SCANCODE_F24, 0x76},
    Position{SDL_SCANCODE_INTERNATIONAL4, 0x79},
    Position{SDL_SCANCODE_INTERNATIONAL5, 0x7B},
    Position{SDL_SCANCODE_INTERNATIONAL3, 0x7D},
    Position{SDL_SCANCODE_KP_COMMA, 0x7E},
};

// Those of the extended set.
constexpr std::array kExtended = {
    Position{SDL_SCANCODE_KP_ENTER, 28},
    Position{SDL_SCANCODE_RCTRL, 29},
    Position{SDL_SCANCODE_KP_DIVIDE, 53},
    Position{SDL_SCANCODE_PRINTSCREEN, 55},
    Position{SDL_SCANCODE_RALT, 56},
    Position{SDL_SCANCODE_HOME, 71},
    Position{SDL_SCANCODE_UP, 72},
    Position{SDL_SCANCODE_PAGEUP, 73},
    Position{SDL_SCANCODE_LEFT, 75},
    Position{SDL_SCANCODE_RIGHT, 77},
    Position{SDL_SCANCODE_END, 79},
    Position{SDL_SCANCODE_DOWN, 80},
    Position{SDL_SCANCODE_PAGEDOWN, 81},
    Position{SDL_SCANCODE_INSERT, 82},
    Position{SDL_SCANCODE_DELETE, 83},
    Position{SDL_SCANCODE_LGUI, 91},
    Position{SDL_SCANCODE_RGUI, 92},
    Position{SDL_SCANCODE_APPLICATION, 93},
    Position{SDL_SCANCODE_AUDIOPREV, 0x10},
    Position{SDL_SCANCODE_AUDIONEXT, 0x19},
    Position{SDL_SCANCODE_AUDIOMUTE, 0x20},
    Position{SDL_SCANCODE_MUTE, 0x20},
    Position{SDL_SCANCODE_CALCULATOR, 0x21},
    Position{SDL_SCANCODE_AUDIOPLAY, 0x22},
    Position{SDL_SCANCODE_AUDIOSTOP, 0x24},
    Position{SDL_SCANCODE_VOLUMEDOWN, 0x2E},
    Position{SDL_SCANCODE_VOLUMEUP, 0x30},
    Position{SDL_SCANCODE_AC_HOME, 0x32},
    Position{SDL_SCANCODE_WWW, 0x32},
    Position{SDL_SCANCODE_AC_SEARCH, 0x65},
    Position{SDL_SCANCODE_AC_BOOKMARKS, 0x66},
    Position{SDL_SCANCODE_AC_REFRESH, 0x67},
    Position{SDL_SCANCODE_AC_STOP, 0x68},
    Position{SDL_SCANCODE_AC_FORWARD, 0x69},
    Position{SDL_SCANCODE_AC_BACK, 0x6A},
    Position{SDL_SCANCODE_COMPUTER, 0x6B},
    Position{SDL_SCANCODE_MAIL, 0x6C},
    Position{SDL_SCANCODE_MEDIASELECT, 0x6D},
};

struct Entry {
    uint8_t scan_code = 0;
    bool extended = false;
};

constexpr auto kTable = [] {
    std::array<Entry, SDL_NUM_SCANCODES> table{};
    for (const Position& key : kPlain)
        table[key.position] = {.scan_code = key.scan_code, .extended = false};
    for (const Position& key : kExtended)
        table[key.position] = {.scan_code = key.scan_code, .extended = true};
    return table;
}();

}  // namespace

std::optional<launcher::WireKey> wire_key_at(SDL_Scancode position) {
    if (position == SDL_SCANCODE_PAUSE) return launcher::kPauseKey;
    const auto index = static_cast<size_t>(position);
    if (index >= kTable.size() || kTable[index].scan_code == 0) return std::nullopt;
    return launcher::wire_key(kTable[index].scan_code, kTable[index].extended);
}

}  // namespace ox::play
