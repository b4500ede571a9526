// palimbo-cli flash against palimbo-cli simulate, over a real pseudo-terminal.
#include <signal.h>

#include <chrono>

#include <gtest/gtest.h>

#include "support/process.h"
#include "support/ser2net.h"
#include "support/temp_file.h"
#include "support/upload_run.h"

namespace palimbo {
namespace {

using testing::Process;
using testing::ReadAll;

struct FlashCase {
  const char* Name;
  std::vector<std::string> SimulateArgs;
  size_t ImageLength;
  int ExitStatus;
  const char* LastLine;
};

class FlashIntoSimulate : public ::testing::TestWithParam<FlashCase> {};

TEST_P(FlashIntoSimulate, ExitStatusLogAndFlash) {
  const std::string image = testing::TestImage(GetParam().ImageLength);
  const std::string file = testing::WriteTempFile("fw.hex", testing::HexOf(image));
  const std::string dump = testing::WriteTempFile("flash.bin", "");
  const std::string trace = testing::WriteTempFile("trace.txt", "");
  std::vector<std::string> simArgs = {PALIMBO_CLI, "simulate", "--dump", dump};
  simArgs.insert(simArgs.end(), GetParam().SimulateArgs.begin(), GetParam().SimulateArgs.end());
  Process module(simArgs, testing::WriteTempFile("simulate.err", ""));
  const std::string port = module.FirstLine(5000);
  ASSERT_FALSE(port.empty());

  Process flash({PALIMBO_CLI, "flash", "--port", port, "--trace", trace, file},
                testing::WriteTempFile("flash.err", ""));
  EXPECT_EQ(flash.Wait(), GetParam().ExitStatus) << flash.Output;
  module.Signal(SIGTERM);
  EXPECT_EQ(module.Wait(), 0);

  EXPECT_TRUE(flash.Output.find("Entered bootloader mode successfully.\n") != std::string::npos);
  ASSERT_GE(flash.Output.size(), 2u);
  const std::string lastLine =
      flash.Output.substr(flash.Output.rfind('\t', flash.Output.size() - 2) + 1);
  EXPECT_EQ(lastLine, std::string(GetParam().LastLine) + "\n");
  EXPECT_EQ(ReadAll(dump).substr(0, image.size()), image);
  // The trace begins with the first poll going out.
  const std::string traced = ReadAll(trace);
  EXPECT_NE(traced.find(" > 69\n"), std::string::npos) << traced.substr(0, 200);
}

INSTANTIATE_TEST_SUITE_P(
    , FlashIntoSimulate,
    ::testing::Values(FlashCase{"Direct", {}, 5000, 0, "UPLOAD SUCCESSFULLY COMPLETED."},
                      FlashCase{
                          "Ccb", {"--protocol", "ccb"}, 5000, 0, "UPLOAD SUCCESSFULLY COMPLETED."}),
    [](const auto& Info) { return std::string(Info.param.Name); });

TEST(Flash, PortThatCannotBeOpenedSaysWhy) {
  const std::string file = testing::WriteTempFile("fw.hex", ":0100000055AA\r\n");
  const std::string err = testing::WriteTempFile("flash.err", "");
  Process flash({PALIMBO_CLI, "flash", "--port", "/dev/palimbo-no-such-port", file}, err);
  EXPECT_EQ(flash.Wait(), 1);
  EXPECT_EQ(flash.Output.substr(flash.Output.rfind('\t') + 1),
            "Firmware read from file. Length 1 Bytes.\n");
  EXPECT_NE(ReadAll(err).find("cannot open port /dev/palimbo-no-such-port: No such file"),
            std::string::npos)
      << ReadAll(err);
}

// Ctrl-C while a network port opens (here a server that never answers the line settings) is
// a cancel, and at once.
TEST(Flash, CtrlCWhileAPortOpensCancels) {
  const std::string file = testing::WriteTempFile("fw.hex", ":0100000055AA\r\n");
  const int port = testing::FreePort();
  const int server = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  // The system takes the connection; nobody ever answers on it.
  ASSERT_EQ(listen(server, 4), 0);
  // The line settings wait for the server's word, a secured port for its handshake.
  for (const char* scheme : {"rfc2217", "socket+tls"}) {
    Process flash({PALIMBO_CLI, "flash", "--port",
                   std::string(scheme) + "://127.0.0.1:" + std::to_string(port), file},
                  testing::WriteTempFile("flash.err", ""));
    usleep(500000);
    const auto pressed = std::chrono::steady_clock::now();
    flash.Signal(SIGINT);
    EXPECT_EQ(flash.Wait(), 1) << scheme;
    EXPECT_LT(std::chrono::steady_clock::now() - pressed, std::chrono::milliseconds(1000));
    EXPECT_NE(flash.Output.find("\tOperation cancelled.\n"), std::string::npos) << flash.Output;
  }
  close(server);
}

// A give-up shorter than a healthy module's longest silence would cancel good uploads.
TEST(Flash, GiveUpBelowAHealthySilenceIsRefused) {
  const std::string file = testing::WriteTempFile("fw.hex", ":0100000055AA\r\n");
  const std::string err = testing::WriteTempFile("flash.err", "");
  for (const auto& [seconds, status] : {std::pair{"35", 2}, {"36", 1}, {"0", 1}}) {
    Process flash({PALIMBO_CLI, "flash", "--port", "/dev/palimbo-no-such-port", "--give-up-after",
                   seconds, file},
                  err);
    EXPECT_EQ(flash.Wait(), status) << seconds;
    EXPECT_EQ(ReadAll(err).find("--give-up-after 35 is shorter than a healthy module may stay "
                                "silent (36 s: the CRC probe and two erases)") != std::string::npos,
              status == 2)
        << ReadAll(err);
  }
}

}  // namespace
}  // namespace palimbo
