#include <windows.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "serial/serial_backend.h"
#include "serial/system_message.h"

namespace palimbo {
namespace {

// Queue sizes asked of the driver for both directions.
constexpr DWORD kQueueSize = 2048;

// Errors by which a port tells that it is gone: a USB adapter pulled out, a driver that
// dropped the device.
bool IsLossError(DWORD Error) {
  switch (Error) {
    case ERROR_ACCESS_DENIED:
    case ERROR_BAD_COMMAND:
    case ERROR_DEVICE_NOT_CONNECTED:
    case ERROR_DEVICE_REMOVED:
    case ERROR_GEN_FAILURE:
    case ERROR_INVALID_HANDLE:
    case ERROR_OPERATION_ABORTED:
      return true;
    default:
      return false;
  }
}

class Win32SerialBackend final : public SerialBackend {
 public:
  Win32SerialBackend() = default;
  Win32SerialBackend(const Win32SerialBackend&) = delete;
  Win32SerialBackend& operator=(const Win32SerialBackend&) = delete;
  ~Win32SerialBackend() override {
    for (HANDLE port : ports_) {
      if (port != INVALID_HANDLE_VALUE) ::CloseHandle(port);
    }
  }

  int32_t Open(const std::string& PortName, const std::string& LineSettings) override;
  std::string LastOpenError() const override { return last_error_; }
  std::string LostReason() const override { return lost_reason_; }
  int32_t BytesWaiting(int32_t Handle) override;
  int16_t Read(int32_t Handle, int32_t Count, std::string& Buffer) override;
  int32_t Write(int32_t Handle, const std::string& Data) override;
  void Close(int32_t Handle) override;
  void RaiseDtr(int32_t Handle) override;
  void WaitForInput(int32_t Handle, int32_t MaxMicros) override;

 private:
  // The interface speaks in small numbers; the table maps them to the system's handles.
  HANDLE Find(int32_t Handle) const {
    if (Handle < 0 || static_cast<size_t>(Handle) >= ports_.size()) return INVALID_HANDLE_VALUE;
    return ports_[static_cast<size_t>(Handle)];
  }
  bool IsLost(int32_t Handle) const {
    return std::find(lost_.begin(), lost_.end(), Handle) != lost_.end();
  }
  // Closes a port that has gone away and keeps why; its handle reads as lost until closed.
  void Lose(int32_t Handle, DWORD Error) {
    ::CloseHandle(ports_[static_cast<size_t>(Handle)]);
    ports_[static_cast<size_t>(Handle)] = INVALID_HANDLE_VALUE;
    lost_.push_back(Handle);
    lost_reason_ = SystemMessage(Error);
  }

  std::vector<HANDLE> ports_;
  std::vector<int32_t> lost_;
  std::string last_error_;
  std::string lost_reason_;
};

int32_t Win32SerialBackend::Open(const std::string& PortName, const std::string& LineSettings) {
  lost_reason_.clear();
  lost_reason_.clear();
  const std::string path = "\\\\.\\" + PortName;
  // Share mode 0: a port another program holds cannot be opened.
  HANDLE port = ::CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              0, nullptr);
  if (port == INVALID_HANDLE_VALUE) {
    last_error_ = SystemMessage(::GetLastError());
    return -1;
  }
  ::SetupComm(port, kQueueSize, kQueueSize);
  DCB dcb{};
  dcb.DCBlength = sizeof(dcb);
  ::GetCommState(port, &dcb);
  // Fields the text does not name keep what the port reported.
  if (::BuildCommDCBA(LineSettings.c_str(), &dcb) == 0) {
    ::CloseHandle(port);
    last_error_ = "bad line settings '" + LineSettings + "'";
    return -1;
  }
  ::SetCommState(port, &dcb);

  auto slot = std::find(ports_.begin(), ports_.end(), INVALID_HANDLE_VALUE);
  if (slot == ports_.end()) slot = ports_.insert(ports_.end(), INVALID_HANDLE_VALUE);
  *slot = port;
  const auto handle = static_cast<int32_t>(slot - ports_.begin());
  // The slot of a port that went away is taken again only now.
  std::erase(lost_, handle);
  return handle;
}

int32_t Win32SerialBackend::BytesWaiting(int32_t Handle) {
  if (IsLost(Handle)) return -1;
  const HANDLE port = Find(Handle);
  if (port == INVALID_HANDLE_VALUE) return 0;
  DWORD errors = 0;
  COMSTAT status{};
  // The error flags (overrun, framing, parity) are cleared and dropped unread.
  if (::ClearCommError(port, &errors, &status) == 0) {
    const DWORD error = ::GetLastError();
    if (!IsLossError(error)) return 0;
    Lose(Handle, error);
    return -1;
  }
  return static_cast<int32_t>(
      std::min<DWORD>(status.cbInQue, static_cast<DWORD>(std::numeric_limits<int32_t>::max())));
}

int16_t Win32SerialBackend::Read(int32_t Handle, int32_t Count, std::string& Buffer) {
  Buffer.clear();
  const HANDLE port = Find(Handle);
  if (port == INVALID_HANDLE_VALUE || Count <= 0) return 0;
  Buffer.resize(static_cast<size_t>(Count));
  DWORD got = 0;
  const BOOL ok = ::ReadFile(port, Buffer.data(), static_cast<DWORD>(Count), &got, nullptr);
  Buffer.resize(got);
  if (ok == 0) {
    const DWORD error = ::GetLastError();
    // Bytes read before the loss are still delivered; the next look reports the loss.
    if (IsLossError(error)) Lose(Handle, error);
  }
  return ok ? 1 : 0;
}

int32_t Win32SerialBackend::Write(int32_t Handle, const std::string& Data) {
  const HANDLE port = Find(Handle);
  if (port == INVALID_HANDLE_VALUE) return 0;
  DWORD written = 0;
  if (::WriteFile(port, Data.data(), static_cast<DWORD>(Data.size()), &written, nullptr) == 0) {
    const DWORD error = ::GetLastError();
    if (IsLossError(error)) {
      Lose(Handle, error);
    } else {
      // The caller closes the port for the short write; this is why.
      lost_reason_ = SystemMessage(error);
    }
  } else if (written < Data.size()) {
    lost_reason_ = "the port took " + std::to_string(written) + " of " +
                   std::to_string(Data.size()) + " bytes";
  }
  return static_cast<int32_t>(written);
}

void Win32SerialBackend::Close(int32_t Handle) {
  // The system handle of a lost port is closed already.
  if (std::erase(lost_, Handle) != 0) return;
  const HANDLE port = Find(Handle);
  if (port == INVALID_HANDLE_VALUE) return;
  ::CloseHandle(port);
  ports_[static_cast<size_t>(Handle)] = INVALID_HANDLE_VALUE;
}

void Win32SerialBackend::RaiseDtr(int32_t Handle) {
  const HANDLE port = Find(Handle);
  if (port != INVALID_HANDLE_VALUE) ::EscapeCommFunction(port, SETDTR);
}

void Win32SerialBackend::WaitForInput(int32_t Handle, int32_t MaxMicros) {
  if (MaxMicros <= 0 || Find(Handle) == INVALID_HANDLE_VALUE || BytesWaiting(Handle) > 0) return;
  // With no time-outs set on the port there is no waiting read; one short sleep is about 1 ms
  // when the program holds timeBeginPeriod(1), a whole timer tick otherwise.
  ::Sleep(MaxMicros >= 1000 ? 1 : 0);
}

}  // namespace

std::unique_ptr<SerialBackend> MakeLocalSerialBackend() {
  return std::make_unique<Win32SerialBackend>();
}

}  // namespace palimbo
