#include "desktop/x_authority.h"

#include <X11/Xauth.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>

#include "base/unique_fd.h"

namespace ox {
namespace {

constexpr std::string_view kCookieScheme = "MIT-MAGIC-COOKIE-1";
constexpr size_t kMostCookies = 16;  // of one display in one file

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }  // NOLINT: its owner
};
struct DisposeEntry {
    void operator()(Xauth* entry) const { ::XauDisposeAuth(entry); }
};

std::string_view text(const char* bytes, unsigned short length) {
    return {bytes, length};
}

/// Only a regular file: opening or reading anything else might wait.
std::unique_ptr<std::FILE, CloseFile> open_file(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
    std::unique_ptr<std::FILE, CloseFile> file(::fdopen(fd.get(), "r"));
    if (file) static_cast<void>(fd.release());
    return file;
}

}  // namespace

std::vector<XAuthorization> x_cookies(const std::string& path, int display) {
    std::vector<XAuthorization> cookies;
    const auto file = open_file(path);
    if (!file) return cookies;
    const std::string wanted = std::to_string(display);
    while (cookies.size() < kMostCookies) {
        const std::unique_ptr<Xauth, DisposeEntry> entry(::XauReadAuth(file.get()));
        if (!entry) break;
        const auto number = text(entry->number, entry->number_length);
        const auto scheme = text(entry->name, entry->name_length);
        if (entry->family != FamilyLocal && entry->family != FamilyWild) continue;
        if ((!number.empty() && number != wanted) || scheme != kCookieScheme) continue;
        XAuthorization cookie{.name = std::string(scheme),
                              .data = std::string(text(entry->data, entry->data_length))};
        // Several host names, one cookie.
        if (std::find(cookies.begin(), cookies.end(), cookie) == cookies.end()) {
            cookies.push_back(std::move(cookie));
        }
    }
    return cookies;
}

}  // namespace ox
