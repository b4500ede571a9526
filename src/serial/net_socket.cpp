#include "serial/net_socket.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "serial/net_socket_platform.h"

// What the systems share: the waits of a connect, and ownership of the connection.

namespace palimbo {

namespace {

using SteadyTime = std::chrono::steady_clock;

// The longest a connect waits without asking whether it is still wanted.
constexpr auto kAskEvery = std::chrono::milliseconds(50);

// The result of one name lookup, shared with its thread: a lookup given up on finishes alone.
struct Lookup {
  std::mutex Lock;
  std::condition_variable Finished;
  bool Done = false;
  std::vector<SocketAddress> Addresses;
  std::string Error;
};

// A host written as an IPv4 or IPv6 address; a name always holds something else.
bool IsAddressText(const std::string& Host) {
  return Host.find(':') != std::string::npos ||
         Host.find_first_not_of("0123456789.") == std::string::npos;
}

bool Asked(const std::function<bool()>& Interrupted) {
  return Interrupted && Interrupted();
}

std::string WithinText(int32_t TimeoutMs) {
  return TimeoutMs % 1000 == 0 ? std::to_string(TimeoutMs / 1000) + " s"
                               : std::to_string(TimeoutMs) + " ms";
}

// The addresses of the name, or nothing and why.
std::optional<std::vector<SocketAddress>> LookUp(const std::string& Host, const std::string& Port,
                                                 const ConnectLimits& Limits, std::string& Error) {
  const auto deadline = SteadyTime::now() + std::chrono::milliseconds(Limits.TimeoutMs);
  auto lookup = std::make_shared<Lookup>();
  try {
    std::thread([lookup, Host, Port, resolve = Limits.Resolve] {
      std::string error;
      auto found = resolve(Host, Port, IsAddressText(Host), error);
      const std::lock_guard hold(lookup->Lock);
      lookup->Addresses = std::move(found);
      lookup->Error = std::move(error);
      lookup->Done = true;
      lookup->Finished.notify_all();
    }).detach();
  } catch (const std::system_error& e) {
    Error = std::string("cannot start the name lookup: ") + e.what();
    return std::nullopt;
  }
  std::unique_lock hold(lookup->Lock);
  while (!lookup->Done) {
    // Asked without the lock: the question may pump a window's events.
    hold.unlock();
    const bool stop = Asked(Limits.Interrupted);
    hold.lock();
    if (stop) {
      Error = kConnectCancelled;
      return std::nullopt;
    }
    const auto now = SteadyTime::now();
    if (now >= deadline) {
      Error = "the name was not found within " + WithinText(Limits.TimeoutMs);
      return std::nullopt;
    }
    lookup->Finished.wait_for(hold, std::min<SteadyTime::duration>(deadline - now, kAskEvery));
  }
  if (lookup->Addresses.empty()) {
    Error = lookup->Error;
    return std::nullopt;
  }
  return std::move(lookup->Addresses);
}

}  // namespace

std::vector<SocketAddress> ResolveWithSystem(const std::string& Host, const std::string& Port,
                                             bool Address, std::string& Error) {
  // The system reads "127.1" and "0x7f.1" as addresses: a name that it would read so is none.
  std::string numeric;
  if (!Address && !socket_os::Resolve(Host, Port, true, numeric).empty()) {
    Error = "'" + Host + "' reads as an address, not a name";
    return {};
  }
  return socket_os::Resolve(Host, Port, Address, Error);
}

std::optional<NetSocket> NetSocket::Connect(const std::string& Host, const std::string& Port,
                                            const ConnectLimits& Limits, std::string& Error) {
  const auto addresses = LookUp(Host, Port, Limits, Error);
  if (!addresses) return std::nullopt;
  for (const SocketAddress& address : *addresses) {
    const intptr_t handle = socket_os::StartConnect(address, Error);
    if (handle == kNoSocket) continue;
    const auto deadline = SteadyTime::now() + std::chrono::milliseconds(Limits.TimeoutMs);
    for (;;) {
      if (Asked(Limits.Interrupted)) {
        socket_os::CloseSocket(handle);
        Error = kConnectCancelled;
        return std::nullopt;
      }
      const auto left = deadline - SteadyTime::now();
      if (left <= SteadyTime::duration::zero()) {
        Error = "no answer within " + WithinText(Limits.TimeoutMs);
        socket_os::CloseSocket(handle);
        break;
      }
      const auto slice = std::chrono::duration_cast<std::chrono::microseconds>(
          std::min<SteadyTime::duration>(left, kAskEvery));
      const int state =
          socket_os::FinishConnect(handle, static_cast<int32_t>(slice.count()), Error);
      if (state > 0) return NetSocket(handle);
      if (state < 0) {
        socket_os::CloseSocket(handle);
        break;
      }
    }
  }
  return std::nullopt;
}

NetSocket::NetSocket(NetSocket&& Other) noexcept : handle_(Other.handle_) {
  Other.handle_ = kNoSocket;
}

NetSocket& NetSocket::operator=(NetSocket&& Other) noexcept {
  if (this != &Other) {
    Release();
    handle_ = Other.handle_;
    Other.handle_ = kNoSocket;
  }
  return *this;
}

NetSocket::~NetSocket() {
  Release();
}

void NetSocket::Release() {
  if (handle_ != kNoSocket) socket_os::CloseSocket(handle_);
  handle_ = kNoSocket;
}

}  // namespace palimbo
