#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace palimbo::cli {

/// One JSON object on one line. Text that is not UTF-8, such as a file name of other bytes, is
/// shown with replacement characters instead of failing the output.
inline std::string JsonLine(const nlohmann::json& Object) {
  return Object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace palimbo::cli
