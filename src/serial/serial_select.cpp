#include <functional>
#include <memory>
#include <utility>

#include "serial/serial_backend.h"
#include "serial/serial_remote.h"

namespace palimbo {

namespace {

// Handles of network ports are numbered from here, above any the machine's ports use.
constexpr int32_t kRemoteHandleBase = 0x40000000;

// Hands each port to the backend its name calls for: a URL of any scheme to the network, which
// takes or refuses it, the rest to the machine's own serial ports.
class SelectingSerialBackend final : public SerialBackend {
 public:
  int32_t Open(const std::string& PortName, const std::string& LineSettings) override {
    if (IsRemotePortName(PortName)) {
      return OpenRemote(PortName, LineSettings);
    }
    last_ = local_.get();
    return local_->Open(PortName, LineSettings);
  }
  std::string LastOpenError() const override { return last_->LastOpenError(); }
  std::string LostReason() const override { return last_->LostReason(); }
  std::string ServerFingerprint() const override { return last_->ServerFingerprint(); }
  int32_t BytesWaiting(int32_t Handle) override {
    return IsRemote(Handle) ? remote_->BytesWaiting(Handle - kRemoteHandleBase)
                            : local_->BytesWaiting(Handle);
  }
  int16_t Read(int32_t Handle, int32_t Count, std::string& Buffer) override {
    return IsRemote(Handle) ? remote_->Read(Handle - kRemoteHandleBase, Count, Buffer)
                            : local_->Read(Handle, Count, Buffer);
  }
  int32_t Write(int32_t Handle, const std::string& Data) override {
    return IsRemote(Handle) ? remote_->Write(Handle - kRemoteHandleBase, Data)
                            : local_->Write(Handle, Data);
  }
  void Close(int32_t Handle) override {
    IsRemote(Handle) ? remote_->Close(Handle - kRemoteHandleBase) : local_->Close(Handle);
  }
  void RaiseDtr(int32_t Handle) override {
    IsRemote(Handle) ? remote_->RaiseDtr(Handle - kRemoteHandleBase) : local_->RaiseDtr(Handle);
  }
  void WaitForInput(int32_t Handle, int32_t MaxMicros) override {
    IsRemote(Handle) ? remote_->WaitForInput(Handle - kRemoteHandleBase, MaxMicros)
                     : local_->WaitForInput(Handle, MaxMicros);
  }
  void SetOpenInterrupt(std::function<bool()> Interrupted) override {
    local_->SetOpenInterrupt(Interrupted);
    remote_->SetOpenInterrupt(std::move(Interrupted));
  }

 private:
  static bool IsRemote(int32_t Handle) { return Handle >= kRemoteHandleBase; }
  int32_t OpenRemote(const std::string& Url, const std::string& LineSettings) {
    last_ = remote_.get();
    const int32_t handle = remote_->Open(Url, LineSettings);
    return handle >= 0 ? handle + kRemoteHandleBase : -1;
  }

  std::unique_ptr<SerialBackend> local_ = MakeLocalSerialBackend();
  std::unique_ptr<SerialBackend> remote_ = MakeRemoteSerialBackend();
  SerialBackend* last_ = local_.get();
};

}  // namespace

std::unique_ptr<SerialBackend> MakeSystemSerialBackend() {
  return std::make_unique<SelectingSerialBackend>();
}

}  // namespace palimbo
