#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace palimbo {

/// One JSON object on one line, its fields in the order they were set. Text that is not UTF-8,
/// such as a file name of other bytes, is shown with replacement characters instead of failing.
inline std::string JsonLine(const nlohmann::ordered_json& Object) {
  return Object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace palimbo
