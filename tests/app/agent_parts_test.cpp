// Small parts of the program.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "app/host_checks.h"
#include "app/memory_trim.h"
#include "app/panic_listener.h"
#include "app/process_flags.h"
#include "app/selftest/checks.h"
#include "base/clock.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/sockets.h"
#include "support/temp_dir.h"
#include "tui/board/messages.h"

namespace ox {
namespace {

TEST(NvidiaDriverCheck, MissingOnlyWithAnAdapterAndWithoutTheDriver) {
    const test::TempDir folder;
    const std::filesystem::path& root = folder.path();
    const std::string gpu = "sys/bus/pci/devices/0000:01:00.0/";
    folder.write(gpu + "vendor", "0x10de\n");
    folder.write(gpu + "class", "0x040300\n");
    EXPECT_FALSE(nvidia_driver_missing(root)) << "its audio function is no display";
    for (const char* display : {"0x030000\n", "0x030200\n"}) {
        folder.write(gpu + "class", display);
        EXPECT_TRUE(nvidia_driver_missing(root)) << display;
    }
    std::filesystem::remove_all(root / "sys");
    EXPECT_FALSE(nvidia_driver_missing(root));
    folder.write("sys/class/drm/card0/device/vendor", "0x10de\n");
    EXPECT_TRUE(nvidia_driver_missing(root)) << "seen as a DRM card only";
    folder.write("proc/driver/nvidia/version", "NVRM\n");
    EXPECT_FALSE(nvidia_driver_missing(root));
}

TEST(PanicListener, ReplacesAStaleFileServesBesideSilentClientsAndKeepsTheNextAgentsFile) {
    const test::TempDir dir;
    const test::Environment runtime("XDG_RUNTIME_DIR", dir.path().string());
    std::ofstream(panic_socket_path()) << "left by a crash";
    panic_flag() = false;
    std::jthread listener = start_panic_listener();
    UniqueFd silent;  // must not block the other clients or the end
    EXPECT_TRUE(test::eventually([&] {
        silent = test::connect_unix(panic_socket_path());
        return static_cast<bool>(silent);
    }));
    const UniqueFd client = test::connect_unix(panic_socket_path());
    EXPECT_EQ(::write(client.get(), "stop", 4), 4);
    EXPECT_TRUE(test::eventually([] { return panic_flag().load(); }));
    const UniqueFd another = test::connect_unix(panic_socket_path());
    ::unlink(panic_socket_path().c_str());
    std::ofstream(panic_socket_path()) << "the next agent's";
    const auto before = SteadyClock::now();
    listener = {};
    EXPECT_LT(SteadyClock::now() - before, std::chrono::seconds(2));
    panic_flag() = false;
    EXPECT_EQ(::access(panic_socket_path().c_str(), F_OK), 0);
}

TEST(OwnIpAddress, IsOneOfThisPc) {
    const std::string ip = own_ip_address();
    if (ip.empty()) GTEST_SKIP() << "no network";
    sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {}, .sin_zero = {}};
    ASSERT_EQ(::inet_pton(AF_INET, ip.c_str(), &address.sin_addr), 1) << ip;
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << ip;
}

TEST(IdleWatch, NoticesMendedFaults) {
    const test::TempDir dir;
    const std::string node = dir.file("uinput");
    const test::PortBlock ports;
    const Options options;
    IdleWatch watch(options, node);
    const auto expect_alert = [&](const std::string& remedy) {
        watch.check();
        const tui::Snapshot board = tui::board().snapshot();
        constexpr auto kAlert = tui::Alert::UinputDenied;
        const bool raised = board.alerts.at(static_cast<size_t>(kAlert));
        const std::string text =
            tui::alert_text(kAlert, tui::Lang::English, tui::Host::Desktop, 0, board.alert_reason);
        EXPECT_NE((raised ? text : "none").find(remedy), std::string::npos) << text;
    };
    expect_alert("sudo modprobe");
    std::ofstream(node).put(' ');
    expect_alert("none");
    // A session's own failure stays.
    tui::board().input_device(EACCES);
    expect_alert("usermod");
    std::filesystem::remove(node);
    expect_alert("sudo modprobe");

    tui::board().control_port_closed(ports.control(), EADDRINUSE);
    UniqueFd occupier = test::bound_socket(SOCK_STREAM, ports.control());
    watch.check();
    EXPECT_EQ(tui::board().closed_port().error, EADDRINUSE);
    occupier.reset();
    watch.check();
    EXPECT_EQ(tui::board().closed_port().error, 0);
}

// Pages of the program's file, far enough from others: a page fault maps up to fifteen neighbours.
constexpr size_t kPage = 4096;
alignas(kPage) const std::array<volatile char, 48 * kPage> constants{};
const volatile char& untouched = constants[23 * kPage];
const volatile char& patched = constants[24 * kPage];

TEST(MemoryTrim, ReleasesUnmodifiedPagesAndKeepsPatchedOnes) {
    const auto is_resident = [](const volatile char& byte) {
        const UniqueFd pagemap(::open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC));
        const auto page = reinterpret_cast<uintptr_t>(&byte) / kPage;
        uint64_t entry = 0;
        EXPECT_EQ(
            ::pread(pagemap.get(), &entry, sizeof entry, static_cast<off_t>(page * sizeof entry)),
            static_cast<ssize_t>(sizeof entry));
        return entry >> 63 != 0;
    };
    record_linked_libraries();
    auto* const writable = const_cast<char*>(&patched);
    ASSERT_EQ(::mprotect(writable, kPage, PROT_READ | PROT_WRITE), 0);
    *writable = 'b';
    ASSERT_EQ(::mprotect(writable, kPage, PROT_READ), 0);
    EXPECT_EQ(untouched, '\0');
    ASSERT_TRUE(is_resident(untouched));
    trim_memory();
    EXPECT_FALSE(is_resident(untouched));
    EXPECT_EQ(patched, 'b');
}

TEST(SelftestChecks, OneFailureFailsTheRunButDoesNotEndIt) {
    constexpr auto kGood = [] { selftest::check(true, "water is wet"); };
    constexpr auto kBad = [] { selftest::check(false, "the moon is cheese"); };
    constexpr std::array<selftest::Group, 3> kGroups{
        {{"[1] a", kGood}, {"[2] b", kBad}, {"[3] c", kGood}}};
    testing::internal::CaptureStdout();
    EXPECT_EQ(selftest::run_groups([] { return 0; }, kGroups), 1);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_NE(output.find("[2] b\n  FAIL  the moon is cheese\n[3] c\n"), std::string::npos);
    EXPECT_TRUE(output.ends_with("2 passed, 1 failed\nSELFTEST FAIL\n"));
}

}  // namespace
}  // namespace ox
