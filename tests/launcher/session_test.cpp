#include "launcher/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "launcher/fake_agent.h"
#include "launcher/stamped_encoder.h"
#include "launcher/video_decoder.h"
#include "support/port_block.h"
#include "support/tcp_client.h"
#include "support/temp_dir.h"

namespace ox::launcher {
namespace {

using test::FakeAgent;

Options options_for(const test::PortBlock& ports) {
    Options options;
    options.port_base = ports.base();
    options.local_port = ports.base();
    options.token = "right";
    options.width = test::StampedEncoder::kWidth;
    options.height = test::StampedEncoder::kHeight;
    options.check_stamps = true;
    return options;
}

Summary run(const Options& options) {
    return Session(options, nullptr, nullptr).run();
}

TEST(LauncherSession, ReceivesRepairsAsksAndSaves) {
    const test::PortBlock ports;
    const test::TempDir folder;
    Options options = options_for(ports);
    options.seconds = 2.2;
    options.save_stream = folder.file("stream.mkv");
    options.save_frame = folder.file("frame.png");
    options.bitrate_changes = {{.kbps = 1234, .at_seconds = 0.2}};
    // Of each keyframe one packet gets lost; of frame 1030, which has no parity, too.
    FakeAgent agent(ports.base(), {.lose = [](const PacketHeader& header) {
                        const bool key = (header.flags & packet_flags::KEYFRAME) != 0;
                        return header.index == 1 && (key || header.frame_id == 1030);
                    }});
    int progress_calls = 0;
    const Summary summary = Session(options, nullptr, [&](const Progress& progress) {
                                ++progress_calls;
                                EXPECT_GT(progress.mbit_per_s, 0.0);
                            }).run();
    const FakeAgent::Heard heard = agent.wait();

    EXPECT_EQ(summary.status, ExitStatus::Ok) << summary.error;
    const AssemblyCounters& counters = summary.receive.stream.assembly;
    EXPECT_EQ(counters.frames_lost, 1U);
    EXPECT_EQ(counters.frames_repaired, summary.receive.stream.keyframes);
    EXPECT_EQ(counters.packets_recovered, summary.receive.stream.keyframes);
    EXPECT_EQ(counters.packets_lost, summary.receive.stream.keyframes + 1);
    EXPECT_GE(summary.receive.stream.keyframes, 2U) << "one to start, one asked for";
    EXPECT_EQ(summary.decode.frames_decoded + summary.receive.stream.frames_withheld,
              counters.frames_complete);
    EXPECT_GE(summary.decode.frames_decoded, 60U);
    EXPECT_EQ(summary.decode.decode_errors, 0U);
    EXPECT_EQ(summary.decode.stamps.read, summary.decode.frames_decoded);
    EXPECT_EQ(summary.decode.stamps.invented + summary.decode.stamps.out_of_order, 0U);
    EXPECT_EQ(summary.decode.frames_recorded, summary.decode.frames_decoded);
    // The keyframes came without their capture time, which their lost packets carried.
    EXPECT_GT(summary.decode.latency.samples(), 0U);
    EXPECT_GT(summary.rtt_ms, 0.0);
    EXPECT_GT(std::filesystem::file_size(options.save_stream), 4000U);
    EXPECT_GT(std::filesystem::file_size(options.save_frame), 100U);
    EXPECT_GE(progress_calls, 1);

    EXPECT_EQ(heard.width, test::StampedEncoder::kWidth);
    EXPECT_EQ(heard.settings.bitrate, 1234);
    EXPECT_GE(std::ranges::count(heard.messages, "request_idr"), 1);
    EXPECT_EQ(heard.messages.back(), "end_session");
    ASSERT_FALSE(heard.stats.empty());
    EXPECT_GT(heard.stats.back().decoded_fps, 1.0F);
    EXPECT_TRUE(std::ranges::any_of(heard.stats,
                                    [](const ClientStats& s) { return s.packet_loss_pct > 0.1F; }));

    const auto json = nlohmann::json::parse(to_json(summary));
    EXPECT_EQ(json["result"], "ok");
    EXPECT_EQ(json["frames_decoded"], summary.decode.frames_decoded);
    EXPECT_EQ(json["latency_ms"]["samples"], summary.decode.latency.samples());
    EXPECT_EQ(json["stamps"]["invented"], 0);
}

TEST(LauncherSession, LeavesWithoutAWordWhenToldSo) {
    const test::PortBlock ports;
    Options options = options_for(ports);
    options.seconds = 0.1;
    options.no_end = true;
    FakeAgent agent(ports.base(), {});
    EXPECT_EQ(run(options).status, ExitStatus::Ok);
    const FakeAgent::Heard heard = agent.wait();
    EXPECT_TRUE(heard.authenticated);
    EXPECT_EQ(std::ranges::count(heard.messages, "end_session"), 0);
}

TEST(LauncherSession, TellsFailuresApart) {
    silence_libav();
    const struct {
        const char* what;
        FakeAgent::Script script;
        ExitStatus status;
        const char* error;
    } cases[] = {
        {"other token", {.token = "other"}, ExitStatus::Rejected, "token rejected"},
        {"no media", {.send_media = false}, ExitStatus::TimedOut, "no media came within 0.5 s"},
        {"other key",
         {.wrong_key = true},
         ExitStatus::TimedOut,
         "none that the session's key opens"},
        {"no H.264", {.garbage = true}, ExitStatus::Undecodable, "frames could be decoded"},
        {"agent leaves", {.end_after = 12}, ExitStatus::AgentEnded, "the agent ended the session"},
    };
    for (const auto& c : cases) {
        const test::PortBlock ports;
        Options options = options_for(ports);
        options.media_timeout_s = 0.5;
        FakeAgent agent(ports.base(), c.script);
        const Summary summary = run(options);
        EXPECT_EQ(summary.status, c.status) << c.what << ": " << summary.error;
        EXPECT_NE(summary.error.find(c.error), std::string::npos)
            << c.what << ": " << summary.error;
    }
}

TEST(LauncherSession, LocalFailuresComeBeforeTheAgentIsBothered) {
    const test::PortBlock ports;
    const test::TempDir folder;
    Options options = options_for(ports);
    options.save_stream = folder.file("missing/stream.mkv");
    EXPECT_EQ(run(options).status, ExitStatus::Failed);

    MediaSocket occupant;
    std::string error;
    ASSERT_TRUE(occupant.open(ports.base(), error)) << error;
    const Summary summary = run(options_for(ports));
    EXPECT_EQ(summary.status, ExitStatus::Failed);
    EXPECT_NE(summary.error.find("in use"), std::string::npos) << summary.error;
}

TEST(LauncherSession, StopsWhenTold) {
    const test::PortBlock ports;
    const Options options = options_for(ports);
    FakeAgent agent(ports.base(), {});
    std::atomic<bool> stop{false};
    const Summary stopped =
        Session(
            options, [&] { return stop.load(); }, [&](const Progress&) { stop = true; })
            .run();
    EXPECT_EQ(stopped.status, ExitStatus::Ok) << stopped.error;
    EXPECT_EQ(agent.wait().messages.back(), "end_session");
}

}  // namespace
}  // namespace ox::launcher
