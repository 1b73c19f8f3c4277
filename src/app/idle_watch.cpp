#include "app/idle_watch.h"

#include "control/port_check.h"
#include "input/uinput_device.h"
#include "tui/board/board.h"

namespace ox {

void IdleWatch::look() {
    const int error = options_.input ? uinput_access_error(uinput_.c_str()) : 0;
    // Only what has changed: a session may have failed for a reason that permissions do not show.
    if (error != uinput_error_) tui::board().input_device(error);
    uinput_error_ = error;

    const tui::ClosedPort closed = tui::board().closed_port();
    if (closed.error != 0 && tcp_port_error(closed.port) == 0) {
        tui::board().control_port_open(closed.port);
    }
}

}  // namespace ox
