#include "play/player.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace ox::play {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kLongestWait{100};
constexpr seconds kStatisticsPeriod{1};
constexpr seconds kFarewell{8};

double seconds_between(SteadyClock::time_point from, SteadyClock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

}  // namespace

/// SDL's connection to the window system.
class Player::Video {
  public:
    Video() : open_(SDL_InitSubSystem(SDL_INIT_VIDEO) == 0) {}
    ~Video() {
        if (open_) SDL_QuitSubSystem(SDL_INIT_VIDEO);
    }
    Video(const Video&) = delete;
    Video& operator=(const Video&) = delete;

    /// Somebody can look at it: SDL falls back to drivers without a screen.
    [[nodiscard]] bool has_screen() const {
        const std::string_view driver = open_ ? SDL_GetCurrentVideoDriver() : "";
        return !driver.empty() && driver != "offscreen" && driver != "dummy" && driver != "evdev";
    }

  private:
    bool open_;
};

Player::Player(const Options& options, tui::Lang lang)
    : options_(options), lang_(lang), show_statistics_(options.stats) {}

Player::~Player() = default;

Player::Result Player::run() {
    std::string error;
    RaisedThreads raised("Play");
    raised.raise_since(threads_of_process());  // this one
    video_ = std::make_unique<Video>();
    if (!video_->has_screen())
        return {
            ExitStatus::NoDisplay, "there is no window system: start it in a desktop session", {}};
    if (!open_window(error)) return {ExitStatus::NoDisplay, error, {}};
    start_link();
    loop();
    input_.reset();
    link_->stop();

    const LinkStatus status = link_->status();
    Result result{.status = status.exit, .error = status.error, .summary = {}};
    if (undrawable_)
        result = {ExitStatus::Undecodable, "the pictures are of a kind that cannot be shown", {}};
    if (pictures_shown_ > 0) {
        const double time = seconds_between(first_shown_, SteadyClock::now());
        std::array<char, 160> line{};
        std::snprintf(line.data(), line.size(),
                      "played %.1f s: %llu pictures, %.1f a second, %llu lost on the way, %s", time,
                      static_cast<unsigned long long>(pictures_shown_),
                      static_cast<double>(pictures_shown_) / std::max(time, 1e-3),
                      static_cast<unsigned long long>(status.progress.frames_lost), status.decoder);
        result.summary = line.data();
    }
    return result;
}

bool Player::open_window(std::string& error) {
    wake_event_ = SDL_RegisterEvents(1);
    if (options_.width == 0) {
        const SDL_Point size = display_size();
        options_.width = size.x;
        options_.height = size.y;
    }
    return window_.open({.title = options_.host + " — orvex-play",
                         .picture = {options_.width, options_.height},
                         .fullscreen = options_.fullscreen},
                        error);
}

void Player::start_link() {
    Link::Sinks sinks{.wake = [this] { wake(); }, .sound = {}};
    if (!options_.no_audio) {
        sound_ = std::make_unique<SoundOutput>();
        sinks.sound = [this](std::span<const int16_t> pcm, const launcher::AudioFrame& frame) {
            sound_->add(pcm, frame, steady_now_us());
        };
    }
    link_ = std::make_unique<Link>(options_, pictures_, std::move(sinks));
    input_ = std::make_unique<InputCapture>(
        window_.handle(), InputSender::output_of(link_->input()), options_.view_only);
    // Behind all that sets SDL's hints, which its thread reads: SDL does not lock them.
    if (std::string error; sound_) sound_->start(error);
    link_->start();
}

// One event is enough for everything that has changed until it is handled.
void Player::wake() {
    if (wake_pending_.exchange(true)) return;
    SDL_Event event{};
    event.type = wake_event_;
    SDL_PushEvent(&event);
}

void Player::loop() {
    auto wait = kLongestWait;
    while (!quit_) {
        SDL_Event event{};
        if (SDL_WaitEventTimeout(&event, static_cast<int>(wait.count())) == 1) {
            do {
                handle(event);
            } while (SDL_PollEvent(&event) == 1);
        }
        const auto now = SteadyClock::now();
        const auto due = input_->tick(now);  // input goes out before a picture is drawn
        update();
        wait =
            std::clamp(std::chrono::ceil<milliseconds>(due - now), milliseconds(1), kLongestWait);
    }
}

void Player::handle(const SDL_Event& event) {
    if (event.type == wake_event_) {
        wake_pending_ = false;
        return;
    }
    if (const auto command = input_->handle(event)) obey(*command);
    if (event.type == SDL_QUIT) quit_ = true;
    if (event.type == SDL_WINDOWEVENT) redraw_ = true;
    if (event.type == SDL_KEYDOWN && farewell_until_ != SteadyClock::time_point{}) quit_ = true;
}

void Player::obey(Command command) {
    switch (command) {
        case Command::ToggleFullscreen:
            window_.toggle_fullscreen();
            break;
        case Command::ToggleStats:
            show_statistics_ = !show_statistics_;
            statistics_due_ = {};
            redraw_ = true;
            break;
        case Command::Quit:
            quit_ = true;
            break;
    }
}

void Player::update() {
    const auto now = SteadyClock::now();
    if (Picture picture = pictures_.take(); picture.image) {
        shown_ = std::move(picture);
        if (pictures_shown_++ == 0) first_shown_ = now;
        redraw_ = true;
        if (!quit_) draw();
        if (sound_ && shown_.timestamp != 0)
            sound_->picture_shown(shown_.timestamp, steady_now_us());
    }
    const LinkStatus status = link_->status();
    input_->set_enabled(status.state == LinkState::Playing || status.state == LinkState::Silent);
    if (is_over(status, now)) quit_ = true;
    if (auto message = status_message(status, options_.host, now, lang_); message != message_) {
        message_ = std::move(message);
        redraw_ = true;
    }
    if (show_statistics_ && now >= statistics_due_) update_statistics(status, now);
    if (redraw_) draw();
}

void Player::update_statistics(const LinkStatus& status, SteadyClock::time_point now) {
    const auto age = status.clock.age_ms(shown_.timestamp, steady_now_us(), status.progress.rtt_ms);
    StatisticsView view{.picture = shown_.image
                                       ? SDL_Point{shown_.image->width, shown_.image->height}
                                       : SDL_Point{},
                        .renderer = window_.renderer(),
                        .shown_fps = static_cast<double>(pictures_shown_ - statistics_shown_) /
                                     std::max(seconds_between(statistics_made_, now), 1e-3),
                        .age_ms = age.value_or(-1),
                        .dropped = pictures_.dropped(),
                        .automatic_bitrate = options_.bitrate_kbps == 0,
                        .sound = sound_ ? std::optional(sound_->stats()) : std::nullopt,
                        .input = link_->input().counters()};
    statistics_ = statistics_text(status, view, lang_);
    statistics_shown_ = pictures_shown_;
    statistics_made_ = now;
    statistics_due_ = now + kStatisticsPeriod;
    redraw_ = true;
}

void Player::draw() {
    redraw_ = false;
    if (window_.show(shown_.image.get(), message_, show_statistics_ ? statistics_ : "")) return;
    undrawable_ = true;
    quit_ = true;
}

// What failed before the first picture is said on the terminal; afterwards the player looks at the
// window.
bool Player::is_over(const LinkStatus& status, SteadyClock::time_point now) {
    if (status.state != LinkState::Ended) return false;
    if (pictures_shown_ == 0 || status.error.empty()) return true;
    if (farewell_until_ == SteadyClock::time_point{}) farewell_until_ = now + kFarewell;
    return now >= farewell_until_;
}

}  // namespace ox::play
