#pragma once

#include <memory>
#include <string>

#include "serial/remote_port_url.h"
#include "serial/serial_backend.h"

namespace palimbo {

/// The ports of network serial servers, with the serial layer's contract: line settings sent
/// and their refusal reported at `Open`, the server's queues purged on opening, 0xFF doubled on
/// the wire and undone, and a connection that goes away reported as a lost port.
std::unique_ptr<SerialBackend> MakeRemoteSerialBackend();

}  // namespace palimbo
