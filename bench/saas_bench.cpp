// The platform link: time from a queued message to the wire, CPU time of an idle link, memory
// growth over ten thousand lost connections. The backend is a socket in this process.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "base/unique_fd.h"
#include "log/log.h"
#include "saas/saas_connector.h"
#include "saas/ws_frame.h"
#include "support/sockets.h"

namespace ox {
namespace {

/// Accepts connections and upgrades.
class Backend {
  public:
    [[nodiscard]] SaasConfig config() const {
        SaasConfig config;
        config.backend = {.host = "127.0.0.1", .port = test::port_of(listener_)};
        return config;
    }

    /// Returns once the agent has registered.
    UniqueFd accept() const {
        constexpr std::string_view kAnswer =
            "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n";
        UniqueFd peer(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        std::string request;
        while (request.find("\r\n\r\n") == std::string::npos)
            request += receive(peer);
        if (::send(peer.get(), kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL) < 0) {
            throw std::runtime_error("the agent is gone");
        }
        receive(peer);
        return peer;
    }

    static std::string receive(const UniqueFd& peer) {
        std::array<char, 65'536> buffer;
        const ssize_t count = ::recv(peer.get(), buffer.data(), buffer.size(), 0);
        if (count <= 0) throw std::runtime_error("the agent is gone");
        return {buffer.data(), static_cast<size_t>(count)};
    }

  private:
    UniqueFd listener_ = test::bound_socket(SOCK_STREAM, 0);
};

void queue_to_wire(benchmark::State& state) {
    const Backend backend;
    SaasConnector connector(backend.config());
    connector.start();
    const UniqueFd peer = backend.accept();
    for (auto _ : state) {
        connector.send_session_stats("session", 60.0F, 15'000.0F, 3.0F, 0.1F, 10.0F);
        benchmark::DoNotOptimize(Backend::receive(peer));
    }
}
BENCHMARK(queue_to_wire)->UseRealTime()->Unit(benchmark::kMicrosecond);

void idle_link(benchmark::State& state) {
    constexpr double kSeconds = 25.0;  // two heartbeats
    const Backend backend;
    SaasConnector connector(backend.config());
    connector.start();
    const UniqueFd peer = backend.accept();
    const auto cpu_seconds = [] {
        timespec used{};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
    };
    for (auto _ : state) {
        const double before = cpu_seconds();
        std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
        state.counters["cpu_s_per_hour"] = (cpu_seconds() - before) * 3600.0 / kSeconds;
    }
}
BENCHMARK(idle_link)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

double resident_kb() {
    long pages = 0;
    if (std::FILE* file = std::fopen("/proc/self/statm", "re")) {
        if (std::fscanf(file, "%*d %ld", &pages) != 1) pages = 0;
        std::fclose(file);
    }
    return static_cast<double>(pages * ::sysconf(_SC_PAGESIZE)) / 1024.0;
}

void ten_thousand_reconnects(benchmark::State& state) {
    const Backend backend;
    ConnectorTiming timing;
    timing.backoff.first = timing.backoff.longest = std::chrono::milliseconds(0);
    SaasConnector connector(backend.config(), timing);
    connector.start();
    for (int i = 0; i < 100; ++i)
        backend.accept();
    for (auto _ : state) {
        const double resident = resident_kb();
        const auto heap = static_cast<double>(::mallinfo2().uordblks);
        for (int i = 0; i < 10'000; ++i)
            backend.accept();
        state.counters["heap_growth_B"] = static_cast<double>(::mallinfo2().uordblks) - heap;
        state.counters["resident_growth_kB"] = resident_kb() - resident;
    }
}
BENCHMARK(ten_thousand_reconnects)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

void decode_frames(benchmark::State& state) {
    const std::string text = R"({"type":"terminate_session","session_id":"0123456789"})";
    std::string stream;
    for (int i = 0; i < 1000; ++i) {
        stream += '\x81';
        stream += static_cast<char>(text.size());
        stream += text;
    }
    WsFrameDecoder decoder;
    WsFrame frame;
    for (auto _ : state) {
        decoder.feed({reinterpret_cast<const uint8_t*>(stream.data()), stream.size()});
        while (decoder.next(frame) == WsFrameDecoder::Result::Frame) {
            benchmark::DoNotOptimize(frame.payload.data());
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream.size()));
}
BENCHMARK(decode_frames)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace ox

int main(int argc, char** argv) {
    ox::log_level() = static_cast<int32_t>(ox::LogLevel::ERROR);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
