#include "production/record_forwarder.h"

namespace palimbo {

namespace {

constexpr char kNoClient[] = "this build has no PostgreSQL client: forward from a Linux station";

}  // namespace

std::unique_ptr<RecordForwarder> RecordForwarder::Start(const std::string&, const std::string&,
                                                        std::string& Error) {
  Error = kNoClient;
  return nullptr;
}

bool PushRecord(const std::string&, const std::string&, ForwardCount&, std::string& Error) {
  Error = kNoClient;
  return false;
}

bool ReadTable(const std::string&, std::vector<std::string>&, std::string& Error) {
  Error = kNoClient;
  return false;
}

}  // namespace palimbo
