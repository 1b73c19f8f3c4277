#include "play/input/input_capture.h"

#include <array>
#include <utility>

#include "play/input/key_map.h"

namespace ox::play {

namespace {

constexpr std::array kChordPositions = {SDL_SCANCODE_LCTRL,  SDL_SCANCODE_RCTRL,
                                        SDL_SCANCODE_LALT,   SDL_SCANCODE_RALT,
                                        SDL_SCANCODE_LSHIFT, SDL_SCANCODE_RSHIFT};

bool has_chord(uint16_t modifiers) {
    // Alt Gr is KMOD_MODE in some layouts.
    return (modifiers & KMOD_CTRL) != 0 && (modifiers & (KMOD_ALT | KMOD_MODE)) != 0 &&
           (modifiers & KMOD_SHIFT) != 0;
}

// The letter on the key; in layouts without Latin letters that of its position on a US keyboard.
char letter_of(const SDL_Keysym& key) {
    if (key.sym >= SDLK_a && key.sym <= SDLK_z) return static_cast<char>(key.sym);
    if (key.scancode < SDL_SCANCODE_A || key.scancode > SDL_SCANCODE_Z) return 0;
    return static_cast<char>('a' + (key.scancode - SDL_SCANCODE_A));
}

// 0 for the buttons that packets have no bit for.
uint8_t button_bit(uint8_t button) {
    switch (button) {
        case SDL_BUTTON_LEFT:
            return 1U << 0;
        case SDL_BUTTON_RIGHT:
            return 1U << 1;
        case SDL_BUTTON_MIDDLE:
            return 1U << 2;
        default:
            return 0;
    }
}

}  // namespace

InputCapture::InputCapture(SDL_Window* window, InputSender::Output output, bool view_only)
    : window_(window), sender_(std::move(output)), view_only_(view_only) {
    // SDL would minimise a fullscreen window with a grabbed keyboard.
    SDL_SetHint(SDL_HINT_ALLOW_ALT_TAB_WHILE_GRABBED, "0");
    // Motion is that of the mouse, whatever the size of the picture.
    SDL_SetHint(SDL_HINT_MOUSE_RELATIVE_SCALING, "0");
    // The click that focuses the window captures too.
    SDL_SetHint(SDL_HINT_MOUSE_FOCUS_CLICKTHROUGH, "1");
    // An input method would take keys for itself.
    SDL_StopTextInput();
}

std::optional<Command> InputCapture::handle(const SDL_Event& event) {
    switch (event.type) {
        case SDL_KEYDOWN:
        case SDL_KEYUP:
            return handle_key(event.key);
        case SDL_MOUSEBUTTONDOWN:
        case SDL_MOUSEBUTTONUP:
            handle_button(event.button);
            break;
        case SDL_MOUSEMOTION:
            if (captured_) sender_.move(event.motion.xrel, event.motion.yrel);
            break;
        case SDL_MOUSEWHEEL:
            handle_wheel(event.wheel);
            break;
        case SDL_WINDOWEVENT:
            if (event.window.event == SDL_WINDOWEVENT_FOCUS_LOST &&
                event.window.windowID == SDL_GetWindowID(window_))
                release_all();
            break;
        default:
            break;
    }
    return std::nullopt;
}

std::optional<Command> InputCapture::handle_key(const SDL_KeyboardEvent& event) {
    if (event.repeat != 0) return std::nullopt;  // the PC repeats by itself
    const bool down = event.state == SDL_PRESSED;
    if (down && has_chord(event.keysym.mod)) {
        bool taken = false;
        const auto command = handle_hotkey(event, taken);
        if (taken) return command;
    }
    if (!captured_)
        return down && event.keysym.scancode == SDL_SCANCODE_F11
                   ? std::optional(Command::ToggleFullscreen)
                   : std::nullopt;
    if (const auto key = wire_key_at(event.keysym.scancode))
        sender_.key(*key, down, SteadyClock::now());
    return std::nullopt;
}

// The key itself never reaches the PC; its release is that of a key that is not down.
std::optional<Command> InputCapture::handle_hotkey(const SDL_KeyboardEvent& event, bool& taken) {
    std::optional<Command> command;
    taken = true;
    switch (letter_of(event.keysym)) {
        case 'z':
            if (captured_ || resume_) {
                release_all();
            } else {
                set_captured(true);
            }
            break;
        case 'f':
            command = Command::ToggleFullscreen;
            break;
        case 's':
            command = Command::ToggleStats;
            break;
        case 'q':
            command = Command::Quit;
            break;
        default:
            taken = false;
            return std::nullopt;
    }
    for (const SDL_Scancode position : kChordPositions)
        if (const auto key = wire_key_at(position)) sender_.key(*key, false, SteadyClock::now());
    return command;
}

void InputCapture::handle_button(const SDL_MouseButtonEvent& event) {
    const bool down = event.state == SDL_PRESSED;
    if (!captured_) {
        if (down) set_captured(true);
        return;
    }
    const auto now = SteadyClock::now();
    if (const uint8_t bit = button_bit(event.button)) {
        sender_.buttons(bit, down, now);
    } else if (event.button == SDL_BUTTON_X1 || event.button == SDL_BUTTON_X2) {
        // Of the keys that the agent can inject these two are bound to nothing on most desktops.
        const auto position = event.button == SDL_BUTTON_X1 ? SDL_SCANCODE_F14 : SDL_SCANCODE_F15;
        if (const auto key = wire_key_at(position)) sender_.key(*key, down, now);
    }
}

void InputCapture::handle_wheel(const SDL_MouseWheelEvent& event) {
    if (!captured_) return;
    const double away = event.direction == SDL_MOUSEWHEEL_FLIPPED ? -1.0 : 1.0;
    sender_.wheel(away * static_cast<double>(event.preciseY), SteadyClock::now());
}

void InputCapture::set_captured(bool captured) {
    if (captured == captured_ || (captured && (!enabled_ || view_only_))) return;
    captured_ = captured;
    // Where the desktop refuses either, what the window gets is sent all the same.
    SDL_SetRelativeMouseMode(captured ? SDL_TRUE : SDL_FALSE);
    SDL_SetWindowKeyboardGrab(window_, captured ? SDL_TRUE : SDL_FALSE);
}

void InputCapture::release_all() {
    resume_ = false;
    sender_.release_all(SteadyClock::now());
    set_captured(false);
}

void InputCapture::set_enabled(bool enabled) {
    if (enabled == enabled_) return;
    enabled_ = enabled;
    if (enabled) {
        if (std::exchange(resume_, false) && SDL_GetKeyboardFocus() == window_) set_captured(true);
        return;
    }
    const bool resume = captured_;
    release_all();
    sender_.forget();  // what was sealed for this connection is of no use to the next
    resume_ = resume;
}

}  // namespace ox::play
