#include <windows.h>

#include "serial/system_message.h"

namespace palimbo {

std::string SystemMessage(uint32_t Code) {
  char* text = nullptr;
  const DWORD length = ::FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, Code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string message = length != 0 && text != nullptr ? std::string(text, length)
                                                       : "system error " + std::to_string(Code);
  if (text != nullptr) ::LocalFree(text);
  while (!message.empty() && (message.back() == '\r' || message.back() == '\n' ||
                              message.back() == ' ' || message.back() == '.')) {
    message.pop_back();
  }
  return message;
}

}  // namespace palimbo
