// palimbo-cli flash against palimbo-cli simulate, over a real pseudo-terminal.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

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

// What a user may type, refused before anything opens (2) or failing the run loudly (1): an
// empty value never turns a guard off, and an output that is not written is never silent.
TEST(Flash, WhatAUserTypes) {
  Process modules({PALIMBO_CLI, "simulate", "--count", "2"},
                  testing::WriteTempFile("simulate.err", ""));
  const std::vector<std::string> ports = modules.Lines(10000);
  ASSERT_EQ(ports.size(), 2u);
  const std::string file = testing::WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(64)));
  const std::string folder = testing::TestFolder().string();
  const std::string missing = folder + "/no-such-folder/out";
  // A stable name of the kind /dev/serial/by-path gives, with colons in it.
  const std::string stable = folder + "/pci-0000:00:14.0-usb-0:1.4:1.0-port0";
  std::filesystem::remove(stable);
  std::filesystem::create_symlink(ports[1], stable);
  const std::string noPort = "/dev/palimbo-no-such-port";
  struct Row {
    std::vector<std::string> Args;
    int Status;
    std::string Message;  // the start of stderr's first line, behind "palimbo-cli "
  } const rows[] = {
      {{"flash", "--record", "", "--port", noPort, file}, 2, "flash: --record: empty value"},
      {{"flash", "--expect-sha256", "", "--port", noPort, file},
       2,
       "flash: --expect-sha256: empty"},
      {{"verify", "--trace", "", "--port", noPort, file}, 2, "verify: --trace: empty value"},
      {{"flash", "--port", "", file}, 2, "flash: --port: empty value"},
      {{"flash", "--port", noPort, ""}, 2, "flash: FILE: empty value"},
      {{"flash", "--trace", folder, "--port", noPort, file},
       2,
       "palimbo-cli: cannot write trace file " + folder + ": Is a directory"},
      {{"flash", "--trace", missing, "--port", noPort, file},
       2,
       "palimbo-cli: cannot write trace file " + missing + ": No such file or directory"},
      {{"flash", "--record", folder, "--port", noPort, file},
       2,
       "palimbo-cli: cannot open record file " + folder + ": Is a directory"},
      {{"verify", "--record", missing, "--port", noPort, file},
       2,
       "palimbo-cli: cannot open record file " + missing + ": No such file"},
      {{"flash", "--unit-pattern", "SN-[0-9", "--unit", "SN-1", "--port", noPort, file},
       2,
       "flash: --unit-pattern 'SN-[0-9' is no regular expression"},
      {{"verify", "--unit-pattern", "SN-[0-9]+", "--unit", "sn-1", "--port", noPort, file},
       2,
       "verify: --unit: unit 'sn-1' does not match the pattern SN-[0-9]+"},
      {{"flash", "--unit", "SN-1", "--station", "--port", noPort, file},
       2,
       "flash: --unit names the one module of a run"},
      {{"flash", "--ask-unit", "--station", "--port", noPort, "--port", ports[0], file},
       2,
       "flash: --ask-unit takes one port"},
      {{"flash", "--port", ports[0], "--port", ports[0], file},
       2,
       "flash: --port " + ports[0] + " is given twice"},
      {{"flash", "--port", ports[1], "--port", stable, file},
       2,
       "flash: --port " + stable + " names the same port as --port " + ports[1]},
      {{"flash", "--give-up-after", "35", "--port", noPort, file},
       2,
       "flash: --give-up-after 35 is shorter than a healthy module may stay silent (36 s: the "
       "CRC probe and two erases)"},
      {{"flash", "--give-up-after", "36", "--port", noPort, file},
       1,
       "palimbo-cli: cannot open port " + noPort + ": No such file or directory"},
      {{"verify", "--give-up-after", "21", "--port", noPort, file},
       2,
       "verify: --give-up-after 21 is shorter than a healthy module may stay silent (22 s: the "
       "check)"},
      {{"verify", "--give-up-after", "22", "--port", noPort, file},
       1,
       "palimbo-cli: cannot open port"},
      // A trace that the disk does not take fails a module that was written all the same.
      {{"flash", "--json", "--trace", "/dev/full", "--port", ports[0], file},
       1,
       "palimbo-cli: " + ports[0] + ": cannot write trace file /dev/full: No space left on device"},
      {{"verify", file}, 1, "verify: no controller adapter found"},
      {{"flash", "--all", file}, 1, "flash: no controller adapter found"},
      {{"flash", "--port", stable, file}, 0, ""},
  };
  for (const Row& row : rows) {
    const std::string err = testing::WriteTempFile("flash.err", "");
    // Without standard input, as a service may start it: a port may then be handle 0.
    std::vector<std::string> args = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 0<&-", PALIMBO_CLI};
    args.insert(args.end(), row.Args.begin(), row.Args.end());
    Process run(args, err);
    const int status = run.Wait();
    const std::string said = ReadAll(err);
    EXPECT_EQ(status, row.Status) << said << run.Output;
    const std::string first = said.substr(0, said.find('\n'));
    EXPECT_EQ(first.rfind(row.Message.starts_with("palimbo-cli:") ? row.Message
                                                                  : "palimbo-cli " + row.Message,
                          0),
              row.Message.empty() ? std::string::npos : 0u)
        << said;
    if (std::find(row.Args.begin(), row.Args.end(), "/dev/full") != row.Args.end()) {
      EXPECT_NE(run.Output.find("\"trace\":\"not written: cannot write trace file /dev/full"),
                std::string::npos)
          << run.Output;
    }
  }
  std::filesystem::remove(stable);
}

}  // namespace
}  // namespace palimbo
