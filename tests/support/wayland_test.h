#pragma once

#include <gtest/gtest.h>

#include "support/wayland_desktop.h"

namespace ox::test {

class WaylandTest : public testing::Test {
  protected:
    void SetUp() override {
        desktop_ = WaylandDesktop::start();
        if (!desktop_) GTEST_SKIP() << "no session bus or PipeWire daemon on this machine";
    }
    /// Starts the portal for a source's node, with these behaviours.
    void start_portal(uint32_t node, std::vector<std::string> behaviours = {}) {
        behaviours.push_back("node=" + std::to_string(node));
        ASSERT_TRUE(desktop_->start_portal(behaviours));
    }

    std::unique_ptr<WaylandDesktop> desktop_;
};

}  // namespace ox::test
