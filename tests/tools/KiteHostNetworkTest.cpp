#include "support/KiteServers.h"

namespace {

using kitetest::Quote;

kitetest::ProcessResult Host(const std::string& arguments) {
    return kitetest::RunProcess(Quote(kitetest::ExeFolder() + "\\kitehost.exe") + " " + arguments);
}

TEST(KiteHostNetworkTest, ShowsTheEffectiveConfigurationAndDownloadsTheRestoreFile) {
    kitetest::KiteServers servers;
    servers.ServeConfiguration(kitetest::CollectorConfiguration(servers.collector));
    servers.ServeRestoreFile("[Restore]\r\n");
    const std::string collector = "https://" + servers.collector + ":443";
    EXPECT_EQ(Host("telemetry").output,
              "Configuration: https://" + servers.config +
                  "//http.tolvix//TWDT_Files//Splunk//SplunkConfig.xml (registry value "
                  "KiteConfigServer)\r\n"
                  "Restore file:  http://" +
                  servers.restore +
                  "/http.tolvix/kite/restorekite.ini (registry value KiteRestoreServer)\r\n"
                  "Error channel (LED): enabled, token set\r\n"
                  "  perf (PDS) " +
                  collector +
                  "/led/perf, header X-Env (value not shown)\r\n"
                  "  prod       " +
                  collector +
                  "/led/prod, header Authorization (value not shown)\r\n"
                  "Tracking channel (Track): enabled, token set\r\n"
                  "  perf (PDS) " +
                  collector +
                  "/track/perf, header X-Env (value not shown)\r\n"
                  "  prod       " +
                  collector +
                  "/track/prod, no extra header\r\n"
                  "Kill switch: not open (recorded only: it stops no event)\r\n");

    kitetest::TempFolder target("restore");
    const kitetest::ProcessResult restore = Host("restore " + Quote(target / "restorekite.ini"));
    EXPECT_EQ(restore.exitCode, 0u);
    EXPECT_EQ(restore.output, "SendRequestAndGetResponse(" + target / "restorekite.ini" +
                                  ") = 0x00000000 (downloaded)\r\n");
    EXPECT_EQ(kitetest::ReadFileBytes(target / "restorekite.ini"), "[Restore]\r\n");
    ASSERT_EQ(servers.Requests("collector").size(), 1u);
    EXPECT_NE(servers.Requests("collector")[0].body.find("Successfully downloaded"),
              std::string::npos);

    // Without the registry values the built-in host is named; no configuration, no channel.
    servers.configServer_.Delete();
    servers.restoreServer_.Delete();
    const std::string output = Host("telemetry").output;
    EXPECT_EQ(output.substr(0, output.find("Error channel")),
              "Configuration: https://download.tolvix.com//http.tolvix//TWDT_Files//Splunk//"
              "SplunkConfig.xml (built in)\r\n"
              "Restore file:  http://download.tolvix.com/http.tolvix/kite/restorekite.ini "
              "(built in)\r\n");
    EXPECT_NE(output.find("Error channel (LED): disabled, no token\r\n  perf (PDS) no host\r\n"),
              std::string::npos);
}

}  // namespace
