// A backend that vanishes without a word, as when a cable is pulled: two network namespaces with a
// link between them that goes down. Takes the real half minute.

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <thread>

#include "base/unique_fd.h"
#include "saas/connector_fixture.h"
#include "saas/raw_backend.h"

namespace ox {
namespace {

using std::chrono::hours;
using std::chrono::seconds;
using test::eventually;

bool run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/// Two named network namespaces, "agent" with 10.98.76.1 and "backend" with 10.98.76.2.
class TwoNetworks {
  public:
    TwoNetworks() {
        ready_ = run("ip netns add " + agent_) && run("ip netns add " + backend_) &&
                 run("ip -n " + agent_ + " link add v0 type veth peer name v0 netns " + backend_) &&
                 run("ip -n " + agent_ + " addr add 10.98.76.1/24 dev v0") &&
                 run("ip -n " + backend_ + " addr add 10.98.76.2/24 dev v0") &&
                 run("ip -n " + agent_ + " link set v0 up") &&
                 run("ip -n " + backend_ + " link set v0 up");
    }
    ~TwoNetworks() {
        run("ip netns del " + agent_);
        run("ip netns del " + backend_);
    }
    TwoNetworks(const TwoNetworks&) = delete;
    TwoNetworks& operator=(const TwoNetworks&) = delete;

    [[nodiscard]] bool ready() const { return ready_; }
    template <typename Work>
    void in_agent(Work work) {
        inside(agent_, work);
    }
    template <typename Work>
    void in_backend(Work work) {
        inside(backend_, work);
    }
    bool pull_cable() { return run("ip -n " + backend_ + " link set v0 down"); }

  private:
    /// Sockets and threads that `work` makes belong to the namespace.
    template <typename Work>
    void inside(const std::string& name, Work work) {
        std::thread([&] {
            const UniqueFd space(::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC));
            ASSERT_EQ(::setns(space.get(), CLONE_NEWNET), 0);
            work();
        }).join();
    }

    const std::string agent_ = "ox-agent-" + std::to_string(::getpid());
    const std::string backend_ = "ox-backend-" + std::to_string(::getpid());
    bool ready_ = false;
};

class DeadPeerTest : public test::ConnectorTest {};

TEST_F(DeadPeerTest, IsNoticedWithinThirtySeconds) {
    TwoNetworks networks;
    if (!networks.ready()) GTEST_SKIP() << "no right to make network namespaces";
    std::optional<test::RawBackend> backend;
    networks.in_backend([&] { backend.emplace(0, INADDR_ANY); });

    // One link with nothing in flight and one whose heartbeats wait for their acknowledgement.
    ConnectorTiming idle_timing = quick();
    idle_timing.heartbeat = hours(1);
    SaasConnector idle(config(backend->port(), "10.98.76.2"), idle_timing);
    SaasConnector busy(config(backend->port(), "10.98.76.2"), quick());
    networks.in_agent([&] { idle.start(); });
    test::RawPeer idle_peer = backend->accept();
    idle_peer.accept_upgrade();
    networks.in_agent([&] { busy.start(); });
    test::RawPeer busy_peer = backend->accept();
    busy_peer.accept_upgrade();
    ASSERT_TRUE(idle_peer.read_frame() && busy_peer.read_frame());

    ASSERT_TRUE(networks.pull_cable());
    const auto pulled = SteadyClock::now();
    const auto noticed_after = [&](SaasConnector& connector) {
        EXPECT_TRUE(eventually([&] { return !connector.connected(); }, seconds(60)));
        return std::chrono::duration<double>(SteadyClock::now() - pulled).count();
    };
    const double idle_s = noticed_after(idle);
    const double busy_s = noticed_after(busy);
    RecordProperty("idle_seconds", std::to_string(idle_s));
    RecordProperty("busy_seconds", std::to_string(busy_s));
    EXPECT_LT(std::max(idle_s, busy_s), 33.0) << idle_s << " idle, " << busy_s << " busy";
}

}  // namespace
}  // namespace ox
