#include "input/key_map.h"

#include <linux/input-event-codes.h>

#include <array>
#include <cstddef>

namespace ox {
namespace {

struct KeyPair {
    uint8_t from;
    uint8_t to;
};

template <size_t Entries>
constexpr std::array<uint8_t, 256> make_table(const KeyPair (&pairs)[Entries]) {
    std::array<uint8_t, 256> table{};
    for (const KeyPair& pair : pairs)
        table[pair.from] = pair.to;
    return table;
}

/// Extended set-1 scan codes.
constexpr auto kExtendedScan = make_table({
    {28, KEY_KPENTER},
    {29, KEY_RIGHTCTRL},
    {53, KEY_KPSLASH},
    {55, KEY_SYSRQ},
    {56, KEY_RIGHTALT},
    {71, KEY_HOME},
    {72, KEY_UP},
    {73, KEY_PAGEUP},
    {75, KEY_LEFT},
    {77, KEY_RIGHT},
    {79, KEY_END},
    {80, KEY_DOWN},
    {81, KEY_PAGEDOWN},
    {82, KEY_INSERT},
    {83, KEY_DELETE},
    {91, KEY_LEFTMETA},
    {92, KEY_RIGHTMETA},
    {93, KEY_COMPOSE},
});

/// Windows virtual-key codes that no range in from_virtual_key covers. The generic shift, control
/// and alt codes (0x10 to 0x12) are left out: only their left and right variants name a key.
constexpr auto kVirtualKey = make_table({
    {0x08, KEY_BACKSPACE}, {0x09, KEY_TAB},        {0x0D, KEY_ENTER},      {0x13, KEY_PAUSE},
    {0x14, KEY_CAPSLOCK},  {0x1B, KEY_ESC},        {0x20, KEY_SPACE},      {0x21, KEY_PAGEUP},
    {0x22, KEY_PAGEDOWN},  {0x23, KEY_END},        {0x24, KEY_HOME},       {0x25, KEY_LEFT},
    {0x26, KEY_UP},        {0x27, KEY_RIGHT},      {0x28, KEY_DOWN},       {0x2C, KEY_SYSRQ},
    {0x2D, KEY_INSERT},    {0x2E, KEY_DELETE},     {0x5B, KEY_LEFTMETA},   {0x5C, KEY_RIGHTMETA},
    {0x5D, KEY_COMPOSE},   {0x60, KEY_KP0},        {0x61, KEY_KP1},        {0x62, KEY_KP2},
    {0x63, KEY_KP3},       {0x64, KEY_KP4},        {0x65, KEY_KP5},        {0x66, KEY_KP6},
    {0x67, KEY_KP7},       {0x68, KEY_KP8},        {0x69, KEY_KP9},        {0x6A, KEY_KPASTERISK},
    {0x6B, KEY_KPPLUS},    {0x6D, KEY_KPMINUS},    {0x6E, KEY_KPDOT},      {0x6F, KEY_KPSLASH},
    {0x90, KEY_NUMLOCK},   {0x91, KEY_SCROLLLOCK}, {0xA0, KEY_LEFTSHIFT},  {0xA1, KEY_RIGHTSHIFT},
    {0xA2, KEY_LEFTCTRL},  {0xA3, KEY_RIGHTCTRL},  {0xA4, KEY_LEFTALT},    {0xA5, KEY_RIGHTALT},
    {0xBA, KEY_SEMICOLON}, {0xBB, KEY_EQUAL},      {0xBC, KEY_COMMA},      {0xBD, KEY_MINUS},
    {0xBE, KEY_DOT},       {0xBF, KEY_SLASH},      {0xC0, KEY_GRAVE},      {0xDB, KEY_LEFTBRACE},
    {0xDC, KEY_BACKSLASH}, {0xDD, KEY_RIGHTBRACE}, {0xDE, KEY_APOSTROPHE}, {0xE2, KEY_102ND},
});

/// Keys outside the extended set; 0 for an unknown scan code.
int from_plain_scan(uint16_t virtual_key, uint8_t scan) {
    constexpr uint16_t kVirtualPause = 0x13;
    if (scan == 69) return virtual_key == kVirtualPause ? KEY_PAUSE : KEY_NUMLOCK;
    if (scan == 89) return KEY_KPEQUAL;
    if (scan >= 100 && scan <= 111) return scan - 100 + KEY_F13;
    // The first Linux key codes equal the scan codes of set 1.
    return scan >= 1 && scan <= 88 ? scan : 0;
}

/// The fallback for launchers that send no scan code. The ranges follow the virtual-key numbering,
/// not the keyboard layout.
int from_virtual_key(uint16_t vk) {
    const auto within = [vk](uint16_t first, uint16_t last) { return vk >= first && vk <= last; };
    if (within(0x41, 0x5A)) return vk - 35;
    if (within(0x30, 0x39)) return (vk - 39) % 10 + 2;
    if (within(0x70, 0x7B)) return vk - 53;
    if (within(0x7C, 0x87)) return vk + 59;
    return within(0x08, 0xE2) ? kVirtualKey[vk] : 0;
}

}  // namespace

int linux_key_code(uint16_t virtual_key, uint8_t scan_code, bool extended) {
    const int by_scan =
        extended ? kExtendedScan[scan_code] : from_plain_scan(virtual_key, scan_code);
    return by_scan != 0 ? by_scan : from_virtual_key(virtual_key);
}

}  // namespace ox
