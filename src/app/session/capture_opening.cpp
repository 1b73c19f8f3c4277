#include "app/session/capture_opening.h"

#include <system_error>
#include <utility>

#include "log/log.h"

namespace ox {

CaptureOpening::CaptureOpening(Open open, std::function<bool()> cancelled) {
    // The capture asks for longer than this object lives.
    auto ended = [unwanted = unwanted_, further = std::move(cancelled)] {
        return unwanted->load() || further();
    };
    try {
        thread_ = std::thread([this, open = std::move(open), ended = std::move(ended)] {
            result_ = open(ended);
            done_ = true;
        });
    } catch (const std::system_error& error) {
        OX_ERROR("Session: cannot open the capture anew: %s", error.what());
        done_ = true;
    }
}

CaptureOpening::~CaptureOpening() {
    *unwanted_ = true;
    if (thread_.joinable()) thread_.join();
}

CaptureOpening::Result CaptureOpening::take() {
    if (thread_.joinable()) thread_.join();
    return std::move(result_);
}

}  // namespace ox
