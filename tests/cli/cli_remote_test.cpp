// flash through a real network serial server: Debian's ser2net on the loopback address, in
// front of the pseudo-terminals of simulate.
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/process.h"
#include "support/ser2net.h"
#include "support/temp_file.h"
#include "support/upload_run.h"

namespace palimbo {
namespace {

using testing::FreePort;
using testing::Process;
using testing::ReadAll;
using testing::Ser2net;
using testing::WriteTempFile;

// Bytes Telnet must escape or could mangle: 0xFF in runs and alone, CR before NUL and LF.
std::string HostileImage(size_t Length) {
  std::string image = testing::TestImage(Length);
  for (size_t i = 0; i < Length; ++i) {
    if (i % 3 == 0 || (i / 256) % 4 == 1) image[i] = '\xff';
    if (i % 97 == 5) image.replace(i, 2, "\r\0", 2);
  }
  return image.substr(0, Length);
}

TEST(RemotePort, BothKindsFlashBothProtocolsBesideALocalPort) {
  const std::string image = HostileImage(3000);
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(image));
  const std::string dump = WriteTempFile("m.flash", "");
  Process modules({PALIMBO_CLI, "simulate", "--count", "5", "--protocol", "direct,ccb,direct,ccb",
                   "--dump", dump},
                  WriteTempFile("simulate.err", ""));
  const std::vector<std::string> devices = modules.Lines(10000);
  ASSERT_EQ(devices.size(), 5u) << modules.Output;
  Ser2net server({devices[0], devices[1], devices[2], devices[3]});
  const std::vector<std::string> ports = {server.Url(0, true), server.Url(1, true),
                                          server.Url(2, false), server.Url(3, false), devices[4]};
  const std::string record = WriteTempFile("record.jsonl", "");
  std::vector<std::string> args = {PALIMBO_CLI, "flash",    "--json", "--give-up-after",
                                   "40",        "--record", record};
  for (const std::string& port : ports) args.insert(args.end(), {"--port", port});
  args.push_back(file);
  Process flash(args, WriteTempFile("flash.err", ""));
  EXPECT_EQ(flash.Wait(), 0) << flash.Output << ReadAll(testing::TestFolder() / "flash.err");

  size_t results = 0;
  std::istringstream lines(flash.Output);
  for (std::string line; std::getline(lines, line);) {
    const auto object = nlohmann::json::parse(line);
    if (object["type"] != "result") continue;
    ++results;
    EXPECT_EQ(object["outcome"], "verified") << object["port"] << ": " << object["reason"];
  }
  EXPECT_EQ(results, ports.size());
  // The record has a line per module too, each port once.
  std::ifstream recorded(record);
  std::set<std::string> recordedPorts;
  for (std::string line; std::getline(recorded, line);) {
    const auto object = nlohmann::json::parse(line);
    EXPECT_EQ(object["outcome"], "verified");
    recordedPorts.insert(object["port"].get<std::string>());
  }
  EXPECT_EQ(recordedPorts, std::set<std::string>(ports.begin(), ports.end()));
  modules.Signal(SIGTERM);
  modules.Wait();
  for (size_t i = 0; i < ports.size(); ++i) {
    EXPECT_EQ(ReadAll(dump + "." + std::to_string(i + 1)).substr(0, image.size()), image)
        << ports[i];
  }
}

// A lost server or none at all ends the job with its reason, within seconds, exit status 1.
TEST(RemotePort, ALostServerIsALostPort) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(HostileImage(20000)));
  Process module({PALIMBO_CLI, "simulate"}, WriteTempFile("simulate.err", ""));
  const std::string device = module.FirstLine(10000);
  Ser2net server({device});
  const std::string err = WriteTempFile("flash.err", "");
  Process flash(
      {PALIMBO_CLI, "flash", "--give-up-after", "40", "--port", server.Url(0, true), file}, err);
  ASSERT_TRUE(flash.WaitForLine("Writing FLASH", 30000)) << flash.Output << ReadAll(err);
  server.Server->Signal(SIGKILL);
  const auto cut = std::chrono::steady_clock::now();
  EXPECT_EQ(flash.Wait(), 1) << flash.Output;
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - cut).count(), 10);
  // The server's end shows as a closed or a reset connection, as the system saw it.
  EXPECT_NE(ReadAll(err).find("port " + server.Url(0, true) + " lost: "), std::string::npos)
      << ReadAll(err);

  // A server of another kind, or none, is told as such; a URL that cannot be right is a wrong
  // argument.
  server.Start();
  const std::string pki = (testing::TestFolder() / "pki").string();
  ASSERT_EQ(std::system(("sh " PALIMBO_MAKE_PKI " " + pki).c_str()), 0);
  Ser2net secured({device}, "ssl(key=" + pki + "/server.key,cert=" + pki + "/server.crt)");
  const auto as = [](const char* Scheme, const std::string& Url) {
    return Scheme + Url.substr(Url.find(':'));
  };
  const struct {
    std::string Url;
    int Status;
    const char* Message;
  } others[] = {
      {"socket://127.0.0.1:" + std::to_string(FreePort()), 1, "Connection refused"},
      {as("socket", server.Url(0, true)), 1, "the server speaks Telnet (RFC 2217): use rfc2217://"},
      {secured.Url(0, true), 1, "as a TLS server does: use rfc2217+tls://"},
      {secured.Url(0, false), 1, "as a TLS server does: use socket+tls://"},
      {as("tcp", server.Url(0, false)), 2, "unknown scheme 'tcp'"},
  };
  for (const auto& row : others) {
    Process refused({PALIMBO_CLI, "flash", "--port", row.Url, file}, err);
    EXPECT_EQ(refused.Wait(), row.Status) << row.Url;
    EXPECT_NE(ReadAll(err).find(row.Message), std::string::npos) << row.Url << ReadAll(err);
  }
}

}  // namespace
}  // namespace palimbo
