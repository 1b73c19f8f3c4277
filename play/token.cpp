#include "play/token.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace ox::play {

namespace {

std::string token_of_file(const std::string& path, std::string& error) {
    std::ifstream file(path);
    std::string token;
    if (file && std::getline(file, token)) {
        if (token.ends_with('\r')) token.pop_back();
        if (!token.empty()) return token;
        error = "the first line of '" + path + "' is empty";
    } else {
        error = "cannot read a token from '" + path +
                "': " + (file.is_open() ? "it is empty" : std::strerror(errno));
    }
    return {};
}

/// The terminal without echo. Ctrl+C comes as a character, so that the echo is never left off.
class SilentTerminal {
  public:
    SilentTerminal() {
        if (::tcgetattr(STDIN_FILENO, &before_) != 0) return;
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | ISIG);
        changed_ = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    }
    ~SilentTerminal() {
        if (changed_) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;

  private:
    termios before_{};
    bool changed_ = false;
};

std::string token_of_terminal(const std::string& host) {
    constexpr char kInterrupt = 3, kEnd = 4, kBackspace = 8, kClear = 21, kDelete = 127;
    std::fprintf(stderr, "Session token of %s: ", host.c_str());
    std::string token;
    const SilentTerminal silent;
    for (char c = 0; ::read(STDIN_FILENO, &c, 1) == 1;) {
        if (c == '\n' || c == '\r' || c == kEnd) break;
        if (c == kInterrupt || c == kClear) token.clear();
        if (c == kInterrupt) break;
        if ((c == kBackspace || c == kDelete) && !token.empty()) token.pop_back();
        if (static_cast<unsigned char>(c) >= ' ' && c != kDelete) token += c;
    }
    std::fputc('\n', stderr);
    return token;
}

}  // namespace

std::string find_token(const Options& options, std::string& error) {
    if (!options.token.empty()) return options.token;
    if (!options.token_file.empty()) return token_of_file(options.token_file, error);
    const char* environment = std::getenv("ORVEX_TOKEN");
    if (environment != nullptr && *environment != '\0') return environment;
    std::string token;
    if (::isatty(STDIN_FILENO) == 1) token = token_of_terminal(options.host);
    if (token.empty()) error = "no session token: give --token-file, or set ORVEX_TOKEN";
    return token;
}

}  // namespace ox::play
