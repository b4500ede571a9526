#pragma once

#include <stdexcept>

namespace palimbo::cli {

/// Bad arguments on the command line; main prints it and exits with status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace palimbo::cli
