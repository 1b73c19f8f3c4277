// The connector against a WebSocket and TLS server of another make.

#include <gmock/gmock.h>

#include <cstdlib>
#include <optional>

#include "saas/connector_fixture.h"
#include "saas/platform_messages.h"
#include "support/child_process.h"
#include "support/environment.h"
#include "support/log_file.h"
#include "support/temp_dir.h"

namespace ox {
namespace {

using std::chrono::seconds;
using test::eventually;
using ::testing::HasSubstr;

class ForeignServerTest : public test::ConnectorTest {
  protected:
    ForeignServerTest() {
        test::ChildProcess made(
            {.argv = {OX_SAAS_TEST_DIR "/make_test_certs.sh", folder_.path().string()}});
        EXPECT_EQ(made.wait(seconds(30)), 0);
    }

    /// Starts a server with the certificate of that name (none: without TLS).
    void serve(const std::string& certificate) {
        std::vector<std::string> argv{OX_TEST_PYTHON, OX_SAAS_TEST_DIR "/websocket_backend.py"};
        if (!certificate.empty()) argv.push_back(folder_.file(certificate));
        const std::string output = folder_.file("said" + std::to_string(++servers_));
        said_ = test::LogFile(output);
        server_.emplace(test::ChildProcess::Options{
            .argv = argv, .stdout_path = output, .stderr_path = output});
        const auto line = said_.wait_for("port ", seconds(20));
        ASSERT_TRUE(line) << testing::PrintToString(said_.lines());
        port_ = static_cast<uint16_t>(std::stoi(line->substr(5)));
    }

    bool said(const std::string& line, size_t times = 1) {
        return said_.wait_for(line, seconds(10), times).has_value();
    }
    bool logged(const std::string& text) {
        return eventually([&] { return log_.times(text) > 0; });
    }
    SaasConfig server(const std::string& host, bool tls = true) const {
        SaasConfig result = config(port_, host);
        result.tls = tls;
        return result;
    }

    test::TempDir folder_;
    const test::Environment trust_{"SSL_CERT_FILE", folder_.file("ca.pem")};
    int servers_ = 0;
    test::LogFile said_{""};  ///< what the newest server reports
    std::optional<test::ChildProcess> server_;
    uint16_t port_ = 0;
};

TEST_F(ForeignServerTest, TalksOverPlainTcpAndOverTlsToTheRightHost) {
    for (const auto& [certificate, host, sni] : {std::tuple{"", "127.0.0.1", "path"},
                                                 {"name", "localhost", "sni localhost"},
                                                 {"address", "127.0.0.1", "sni None"}}) {
        SCOPED_TRACE(sni);
        serve(certificate);
        SaasConnector connector(server(host, certificate[0] != '\0'), quick());
        std::atomic<size_t> id_size{0};
        connector.set_prepare_session_callback(
            [&](const PrepareSessionParams& params) { id_size = params.session_id.size(); });
        connector.start();
        EXPECT_TRUE(said(sni));
        EXPECT_TRUE(said("path /agent/connect"));
        EXPECT_TRUE(said(std::string("token ") + test::kAgentToken));
        EXPECT_TRUE(said(R"(message {"agent_version":)"));
        EXPECT_TRUE(said(R"(message {"type":"pong"})"));
        EXPECT_TRUE(eventually([&] { return id_size == 70'000; }));
        const size_t around = error_message("c", "", "").size();
        for (const size_t size : {125, 126, 65'535, 65'536, 500'000})
            connector.send_error("c", std::string(size - around, 'x'), "");
        EXPECT_TRUE(said(R"(message {"code":"c")", 5));
        connector.send_session_ended("s1", "shutdown", 1);
        connector.stop();
        EXPECT_TRUE(said(R"(message {"duration_sec":1,"reason":"shutdown")"));
        EXPECT_TRUE(said("closed 1006"));  // no close frame; the connection just ends
    }
    EXPECT_TRUE(logged("SaasConnector: TLS established (TLS_"));
}

TEST_F(ForeignServerTest, RefusesCertificatesItCannotTrust) {
    for (const auto& [certificate, host, fault] : {
             std::tuple{"expired", "localhost", "certificate has expired"},
             {"self_signed", "localhost", "self-signed certificate"},
             {"other_name", "localhost", "hostname mismatch"},
             {"name", "127.0.0.1", "IP address mismatch"},
         }) {
        serve(certificate);
        SaasConnector connector(server(host), quick());
        connector.start();
        EXPECT_TRUE(
            logged("[ERROR] SaasConnector: TLS handshake failed: error:0A000086:SSL "
                   "routines::certificate verify failed (" +
                   std::string(fault) + ")"))
            << log_.text();
        connector.stop();
        EXPECT_EQ(said_.count("path "), 0U) << certificate;
    }
}

}  // namespace
}  // namespace ox
