#pragma once

#include <SDL.h>

#include <cstdint>
#include <optional>

#include "base/clock.h"
#include "play/input/input_sender.h"

namespace ox::play {

/// What a hotkey asks the program to do.
enum class Command : uint8_t { ToggleFullscreen, ToggleStats, Quit };

/// Sends the window's keyboard and mouse while they are captured: from a click into the window,
/// with the pointer hidden and the keyboard grabbed as far as the desktop allows, until the hotkey,
/// loss of focus or `release_all`. `play/options.cpp` describes the hotkeys. Used and destroyed
/// before the window, on SDL's thread.
class InputCapture {
  public:
    /// `view_only`: hotkeys work, nothing is captured or sent. Starts disabled.
    InputCapture(SDL_Window* window, InputSender::Output output, bool view_only);
    ~InputCapture() { release_all(); }
    InputCapture(const InputCapture&) = delete;
    InputCapture& operator=(const InputCapture&) = delete;

    std::optional<Command> handle(const SDL_Event& event);

    /// To be called after each batch of events, and at the time that it returns (Time::max():
    /// none).
    InputSender::Time tick(InputSender::Time now) { return sender_.tick(now); }

    /// Ends the capture and releases every key and button on the PC.
    void release_all();

    /// Whether there is a connection. Without one nothing is captured; a capture that ended with
    /// the connection is resumed if the window still has the focus.
    void set_enabled(bool enabled);

    [[nodiscard]] bool captured() const { return captured_; }

  private:
    std::optional<Command> handle_key(const SDL_KeyboardEvent& event);
    std::optional<Command> handle_hotkey(const SDL_KeyboardEvent& event, bool& taken);
    void handle_button(const SDL_MouseButtonEvent& event);
    void handle_wheel(const SDL_MouseWheelEvent& event);
    void set_captured(bool captured);

    SDL_Window* window_;
    InputSender sender_;
    bool view_only_;
    bool enabled_ = false;
    bool captured_ = false;
    bool resume_ = false;  ///< captured when the connection was lost
};

}  // namespace ox::play
