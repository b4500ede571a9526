#include "production/profile.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

namespace palimbo {

namespace {

using Json = nlohmann::json;

// Why a key's value is wrong, for the message; empty when it is right.
using KeyReader = std::function<std::string(const Json& Value, RunRequest& Request)>;

std::string Text(const Json& Value, std::string& Into) {
  if (!Value.is_string()) return "expected a text";
  Into = Value.get<std::string>();
  return Into.empty() ? "empty" : "";
}

std::string Flag(const Json& Value, bool& Into) {
  if (!Value.is_boolean()) return "expected true or false";
  Into = Value.get<bool>();
  return {};
}

std::string Whole(const Json& Value, int32_t Least, int32_t Most, int32_t& Into) {
  const std::string expected =
      "expected a whole number from " + std::to_string(Least) + " to " + std::to_string(Most);
  if (!Value.is_number_integer()) return expected;
  const auto number = Value.get<int64_t>();
  if (number < Least || number > Most) return expected;
  Into = static_cast<int32_t>(number);
  return {};
}

std::string Ports(const Json& Value, std::vector<std::string>& Into) {
  const char* const expected = "expected a port name or a list of them";
  const Json list = Value.is_array() ? Value : Json::array({Value});
  if (list.empty()) return expected;
  for (const Json& port : list) {
    if (!port.is_string()) return expected;
    if (port.get<std::string>().empty()) return "empty";
    Into.push_back(port.get<std::string>());
  }
  return {};
}

const std::map<std::string, KeyReader>& Keys() {
  static const std::map<std::string, KeyReader> keys = {
      {"file", [](const Json& v, RunRequest& r) { return Text(v, r.File); }},
      {"port", [](const Json& v, RunRequest& r) { return Ports(v, r.Ports); }},
      {"record", [](const Json& v, RunRequest& r) { return Text(v, r.RecordFile); }},
      {"trace", [](const Json& v, RunRequest& r) { return Text(v, r.TraceFile); }},
      {"expect-sha256", [](const Json& v, RunRequest& r) { return Text(v, r.ExpectSha256); }},
      {"skip-same",
       [](const Json& v, RunRequest& r) {
         bool on = false;
         std::string why = Flag(v, on);
         if (on) r.Mode = r.Mode == WriteMode::Never ? r.Mode : WriteMode::UnlessSame;
         return why;
       }},
      {"verify",
       [](const Json& v, RunRequest& r) {
         bool on = false;
         std::string why = Flag(v, on);
         if (on) r.Mode = WriteMode::Never;
         return why;
       }},
      {"ask-unit", [](const Json& v, RunRequest& r) { return Flag(v, r.AskUnit); }},
      {"unit-pattern", [](const Json& v, RunRequest& r) { return Text(v, r.UnitPattern); }},
      {"forward", [](const Json& v, RunRequest& r) { return Text(v, r.ForwardUrl); }},
      {"count",
       [](const Json& v, RunRequest& r) { return Whole(v, 1, kLargestCount, r.StationCount); }},
      {"give-up-after",
       [](const Json& v, RunRequest& r) {
         return Whole(v, 0, kLargestGiveUpSeconds, r.GiveUpAfterSeconds);
       }},
  };
  return keys;
}

std::string KeyList() {
  std::string list;
  for (const auto& [key, reader] : Keys()) list += (list.empty() ? "" : ", ") + key;
  return list;
}

// A path in a profile is taken from the profile's folder, so that a line's folder can move.
std::string FromFolder(const std::filesystem::path& Folder, const std::string& Path) {
  return Path.empty() ? Path : (Folder / std::filesystem::path(Path)).string();
}

// The profile's object, or why there is none; a key given twice is refused, not overwritten.
Json ParseObject(const std::string& Text, std::string& Error) {
  std::set<std::string> seen;
  std::string doubled;
  const Json::parser_callback_t noteKeys = [&](int Depth, Json::parse_event_t Event, Json& Parsed) {
    if (Event == Json::parse_event_t::key && Depth == 1 && !seen.insert(Parsed).second &&
        doubled.empty()) {
      doubled = Parsed.get<std::string>();
    }
    return true;
  };
  Json object;
  try {
    object = Json::parse(Text, noteKeys);
  } catch (const Json::parse_error& Failure) {
    const std::string message = Failure.what();
    Error = "not JSON: " + message.substr(message.find("] ") + 2);
    return {};
  }
  if (!object.is_object()) {
    Error = "expected a JSON object of keys and values";
  } else if (!doubled.empty()) {
    Error = "'" + doubled + "' is given twice";
  }
  return object;
}

}  // namespace

RunRequest ReadProfile(const std::string& Path, std::string& Error) {
  RunRequest request;
  request.Station = true;
  const auto fail = [&](const std::string& Why) {
    Error = "profile " + Path + ": " + Why;
    return RunRequest{};
  };
  std::ifstream in(Path, std::ios::binary);
  std::stringstream text;
  if (!in || !(text << in.rdbuf())) {
    return fail(std::string("cannot read: ") +
                (std::filesystem::is_directory(Path) ? "is a folder" : std::strerror(errno)));
  }
  std::string why;
  const Json object = ParseObject(text.str(), why);
  if (!why.empty()) return fail(why);
  for (const auto& [key, value] : object.items()) {
    const auto reader = Keys().find(key);
    if (reader == Keys().end()) {
      return fail("unknown key '" + key + "'; the keys are " + KeyList());
    }
    if (why = reader->second(value, request); !why.empty()) {
      return fail("'" + key + "': " + why);
    }
  }
  for (const char* required : {"file", "port"}) {
    if (!object.contains(required)) return fail("'" + std::string(required) + "' is missing");
  }
  if (object.value("verify", false) && object.value("skip-same", false)) {
    return fail("'skip-same' and 'verify' exclude each other: a check writes nothing");
  }
  const std::filesystem::path folder = std::filesystem::path(Path).parent_path();
  request.File = FromFolder(folder, request.File);
  request.RecordFile = FromFolder(folder, request.RecordFile);
  request.TraceFile = FromFolder(folder, request.TraceFile);
  if (why = RequestProblem(request, ""); !why.empty()) return fail(why);
  return request;
}

}  // namespace palimbo
