// Debian's ser2net on the loopback address, in front of pseudo-terminals, for the tests of
// network ports.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/free_port.h"
#include "support/process.h"
#include "support/temp_file.h"

namespace palimbo::testing {

// Whether something listens on `Port`, by the kernel's table: a probing connection would make
// the server open its device, and the next client could find it busy.
inline bool Listens(int Port) {
  char local[32];
  std::snprintf(local, sizeof local, ":%04X ", Port);
  std::ifstream table("/proc/net/tcp");
  for (std::string line; std::getline(table, line);) {
    if (line.find(local) != std::string::npos && line.find(" 0A ") != std::string::npos) {
      return true;
    }
  }
  return false;
}

// ser2net serving each device twice: by RFC 2217 and as a raw TCP stream, each short answer
// passed on at once (no character delay, TCP_NODELAY), as a station's server is set up.
// `Secure` (an ssl layer) and `Options` (more connection options) make a secured server.
struct Ser2net {
  explicit Ser2net(const std::vector<std::string>& Devices, const std::string& Secure = "",
                   const std::string& Options = "") {
    std::string config = "%YAML 1.1\n---\n";
    const std::string tcp = Secure.empty() ? "tcp(nodelay)" : Secure + ",tcp(nodelay)";
    for (const std::string& device : Devices) {
      for (const std::string& accepter : {"telnet(rfc2217)," + tcp, tcp}) {
        Ports.push_back(FreePort());
        config += "connection: &c" + std::to_string(Ports.back()) + "\n  accepter: " + accepter +
                  ",127.0.0.1," + std::to_string(Ports.back()) + "\n  connector: serialdev," +
                  device + ",57600n81,local\n  options:\n    chardelay: false\n" + Options;
      }
    }
    Config = WriteTempFile("ser2net.yaml", config);
    Start();
  }
  // Starts the server (again, after `Server` ended) on the same ports.
  void Start() {
    Server = std::make_unique<Process>(
        std::vector<std::string>{PALIMBO_SER2NET, "-n", "-d", "-c", Config, "-P",
                                 WriteTempFile("ser2net.pid", "")},
        WriteTempFile("ser2net.err", ""));
    for (int i = 0; i < 100 && !Listens(Ports.back()); ++i) usleep(50000);
  }
  // The URL of device `Index`, by RFC 2217 or raw.
  std::string Url(size_t Index, bool Telnet) const {
    return std::string(Telnet ? "rfc2217" : "socket") +
           "://127.0.0.1:" + std::to_string(Ports[2 * Index + (Telnet ? 0 : 1)]);
  }
  std::vector<int> Ports;
  std::string Config;
  std::unique_ptr<Process> Server;  // killed when the test ends, however it ends
};

}  // namespace palimbo::testing
