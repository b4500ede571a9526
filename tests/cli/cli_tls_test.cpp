// flash through a network serial server that admits only known stations: Debian's ser2net with
// its ssl layer on the loopback address, and certificates that the test makes with openssl.
#include <signal.h>

#include <cstdlib>
#include <fstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/process.h"
#include "support/ser2net.h"
#include "support/temp_file.h"
#include "support/upload_run.h"

namespace palimbo {
namespace {

using testing::Process;
using testing::ReadAll;
using testing::WriteTempFile;

// The certificates of tests/support/make_pki.sh, made anew for the test.
std::string MakeCertificates() {
  const std::string pki = (testing::TestFolder() / "pki").string();
  EXPECT_EQ(std::system(("sh " PALIMBO_MAKE_PKI " " + pki).c_str()), 0);
  return pki;
}

std::string Fingerprint(const std::string& Certificate) {
  FILE* sum = popen(("openssl x509 -outform der -in " + Certificate + " | sha256sum").c_str(), "r");
  char digest[65] = {};
  EXPECT_EQ(std::fread(digest, 1, 64, sum), 64u);
  pclose(sum);
  return digest;
}

TEST(SecuredPort, OnlyAKnownStationFlashesAndEveryRefusalSaysWhy) {
  const std::string pki = MakeCertificates();
  std::string image = testing::TestImage(2000);
  for (size_t i = 0; i < image.size(); i += 2) image[i] = '\xff';
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(image));
  const std::string dump = WriteTempFile("m.flash", "");
  Process modules(
      {PALIMBO_CLI, "simulate", "--count", "3", "--protocol", "direct,ccb", "--dump", dump},
      WriteTempFile("simulate.err", ""));
  const std::vector<std::string> devices = modules.Lines(10000);
  ASSERT_EQ(devices.size(), 3u);
  testing::Ser2net secured({devices[0], devices[1]},
                           "ssl(key=" + pki + "/server.key,cert=" + pki + "/server.crt,CA=" + pki +
                               "/ca.crt,clientauth)",
                           "    authdir: " + pki + "/auth\n");
  testing::Ser2net plain({devices[2]});
  const auto secure = [&](size_t Device, bool Telnet, const std::string& Query) {
    std::string url = secured.Url(Device, Telnet);
    return url.insert(url.find(':'), "+tls") + Query;
  };
  const std::string station =
      "?ca=" + pki + "/ca.crt&cert=" + pki + "/station.crt&key=" + pki + "/station.key";

  // Both kinds of secured port, into a module of each protocol.
  const std::string record = WriteTempFile("record.jsonl", "");
  Process flash({PALIMBO_CLI, "flash", "--record", record, "--port", secure(0, true, station),
                 "--port", "socket+tls://localhost" + secure(1, false, station).substr(22), file},
                WriteTempFile("flash.err", ""));
  EXPECT_EQ(flash.Wait(), 0) << flash.Output << ReadAll(testing::TestFolder() / "flash.err");
  std::ifstream lines(record);
  int recorded = 0;
  for (std::string line; std::getline(lines, line); ++recorded) {
    EXPECT_EQ(nlohmann::json::parse(line)["server_sha256"], Fingerprint(pki + "/server.crt"));
  }
  EXPECT_EQ(recorded, 2);

  // openssl's test server with the key of server.crt and the certificate `Cert`.
  std::vector<std::unique_ptr<Process>> servers;
  const auto serve = [&](const char* Host, const std::string& Cert, std::vector<std::string> More) {
    const std::string port = std::to_string(testing::FreePort());
    std::vector<std::string> args{"/usr/bin/openssl",
                                  "s_server",
                                  "-rev",
                                  "-quiet",
                                  "-accept",
                                  "127.0.0.1:" + port,
                                  "-key",
                                  pki + "/server.key",
                                  "-cert",
                                  pki + "/" + Cert + ".crt"};
    args.insert(args.end(), More.begin(), More.end());
    servers.push_back(std::make_unique<Process>(args, WriteTempFile("s_server.err", "")));
    for (int i = 0; i < 100 && !testing::Listens(std::stoi(port)); ++i) usleep(50000);
    return "rfc2217+tls://" + std::string(Host) + ":" + port + "?ca=" + pki + "/ca.crt";
  };
  // A secured server in front of a device that is not there: it hangs up after the handshake.
  testing::Ser2net deviceless({pki + "/none"},
                              "ssl(key=" + pki + "/server.key,cert=" + pki + "/server.crt)");
  const auto files = [&](const std::string& Ca, const std::string& Cert, const std::string& Key) {
    return secure(
        0, true, "?ca=" + pki + "/" + Ca + "&cert=" + pki + "/" + Cert + "&key=" + pki + "/" + Key);
  };

  struct Refusal {
    std::string Url;
    int Status;
    std::string Message;
  } const refusals[] = {
      {files("other.crt", "station.crt", "station.key"), 1,
       "the server's certificate is not trusted: it was issued by CN=Palimbo test CA, which the "
       "CA in " +
           pki + "/other.crt does not vouch for"},
      {secure(0, true, "?" + station.substr(station.find('&') + 1)), 1,
       "CN=Palimbo test CA, which the system's trust store does not vouch for"},
      {serve("127.0.0.1", "dnsonly", {}), 1,
       "the server's certificate does not name 127.0.0.1 among its IP addresses (it names none)"},
      {serve("127.0.0.1", "cnonly", {}), 1, "does not name 127.0.0.1 among its IP addresses"},
      {serve("127.0.0.1", "otherip", {}), 1, "among its IP addresses (it names 127.0.0.2)"},
      {serve("localhost", "dnsonly", {}), 1,
       "the server's certificate is for 127.0.0.1, not localhost"},
      {serve("127.0.0.1", "server", {"-tls1_3"}), 1,
       "the server and we share no TLS version (we speak TLS 1.2) (TLS alert: protocol version)"},
      {serve("127.0.0.1", "server", {"-tls1_2", "-cipher", "AES256-SHA256"}), 1,
       "the server and we share no cipher suite or key exchange (TLS alert: handshake failure)"},
      {files("ca.crt", "stranger.crt", "stranger.key"), 1,
       "the server does not admit our certificate"},
      {secure(1, false, "?ca=" + pki + "/ca.crt"), 1,
       "the server asks for a client certificate: give cert=FILE&key=FILE"},
      {"rfc2217+tls" + deviceless.Url(0, true).substr(7) + "?ca=" + pki + "/ca.crt", 1,
       "the server closed the connection after the TLS handshake: "},
      {files("ca.crt", "station.crt", "stranger.key"), 2, "does not belong to certificate"},
      {files("ca.crt", "none.crt", "station.key"), 2,
       "certificate file " + pki + "/none.crt: No such file or directory"},
      {files("ca.crt", "auth", "station.key"), 2, "certificate file " + pki + "/auth: is a folder"},
      {files("ca.key", "station.crt", "station.key"), 2,
       pki + "/ca.key holds a private key, not a certificate"},
      {files("ca.crt", "station.key", "station.crt"), 2,
       pki + "/station.key holds a private key, not a certificate"},
      {files("ca.crt", "station.crt", "station.crt"), 2,
       pki + "/station.crt holds a certificate, not a key"},
      {files("ca.crt", "station.crt", "locked.key"), 2,
       "the key in " + pki + "/locked.key is protected by a passphrase; give it without one"},
      {"rfc2217+tls" + plain.Url(0, true).substr(7) + station, 1, "the server does not speak TLS"},
  };
  for (const Refusal& row : refusals) {
    const std::string err = WriteTempFile("refused.err", "");
    Process refused({PALIMBO_CLI, "flash", "--port", row.Url, file}, err);
    EXPECT_EQ(refused.Wait(), row.Status) << row.Url;
    EXPECT_NE(ReadAll(err).find(row.Message), std::string::npos) << row.Url << "\n" << ReadAll(err);
  }
  modules.Signal(SIGTERM);
  modules.Wait();
  for (int m = 1; m <= 2; ++m) {
    EXPECT_EQ(ReadAll(dump + "." + std::to_string(m)).substr(0, image.size()), image) << m;
  }
}

}  // namespace
}  // namespace palimbo
