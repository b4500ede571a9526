#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace palimbo {

/// One platform's serial port services, seen through handles.
///
/// A backend holds its own open ports; two backends never share one. Every call returns at
/// once except `WaitForInput`, which waits at most the time it is given.
///
/// A port can go away under its user (an adapter pulled out, a line hung up). The backend
/// notices it at a look or a write, closes the port itself and keeps the system's message in
/// `LostReason`; `BytesWaiting` then gives -1 for that handle until it is closed.
class SerialBackend {
 public:
  virtual ~SerialBackend() = default;

  /// Opens `PortName` with the line settings text behind the ":" of a setting string,
  /// such as "57600,N,8,1". Returns a handle of 0 or more, or -1.
  virtual int32_t Open(const std::string& PortName, const std::string& LineSettings) = 0;
  /// The system's reason for the last failed `Open`, for the front ends to show.
  virtual std::string LastOpenError() const = 0;
  /// The system's message for the loss of the port opened last, such as "Input/output
  /// error"; empty while it lives and after an ordinary close. Each `Open` clears it.
  virtual std::string LostReason() const = 0;
  /// Bytes waiting in the input queue; 0 for a handle that is not open, -1 for a port that
  /// has gone away (the backend has closed it and `LostReason` says why).
  virtual int32_t BytesWaiting(int32_t Handle) = 0;
  /// Reads exactly `Count` bytes that are already waiting into `Buffer` (replacing it).
  /// Returns the system read's status: non-zero for success.
  virtual int16_t Read(int32_t Handle, int32_t Count, std::string& Buffer) = 0;
  /// Writes all of `Data` in one call; returns the count written, 0 for a handle not open.
  /// A write that falls short leaves its reason in `LostReason`, as the caller then closes
  /// the port.
  virtual int32_t Write(int32_t Handle, const std::string& Data) = 0;
  /// Releases the port; a handle that is not open, or that went away, is ignored.
  virtual void Close(int32_t Handle) = 0;
  /// Raises DTR. A port that refuses it (a pseudo-terminal does) is no failure.
  virtual void RaiseDtr(int32_t Handle) = 0;
  /// Waits until input is waiting or `MaxMicros` have passed, whichever is first.
  /// Returns at once when input is already waiting or the handle is not open.
  virtual void WaitForInput(int32_t Handle, int32_t MaxMicros) = 0;
  /// The SHA-256 of the server's certificate (as `sha256sum` prints a digest) for the secured
  /// network port opened last, kept until the next `Open`; empty for every other port.
  virtual std::string ServerFingerprint() const { return {}; }
  /// Asked now and then while an `Open` waits (for a name, a connection, a server's word);
  /// true stops that open, which then fails with "cancelled". Ports that open at once never
  /// wait and never ask.
  virtual void SetOpenInterrupt(std::function<bool()> Interrupted) { (void)Interrupted; }
};

/// The serial ports of the machine the program runs on (termios or Win32, chosen at build time),
/// and the ports of network serial servers, named by URL.
std::unique_ptr<SerialBackend> MakeSystemSerialBackend();

/// The machine's own serial ports only.
std::unique_ptr<SerialBackend> MakeLocalSerialBackend();

}  // namespace palimbo
