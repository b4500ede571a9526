#pragma once

#include <memory>
#include <optional>
#include <regex>
#include <string>

namespace palimbo {

/// A new record id: a UUID of version 4, its 122 random bits from the system's random source,
/// in the usual lower-case form "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx".
std::string NewRecordId();

/// What a unit's identity must look like: the label a barcode scanner types, as a whole line
/// matched by the station's pattern (ECMAScript syntax), if it has one.
class UnitRule {
 public:
  /// The rule of `Pattern` (empty: any line that is not blank); nothing, and why in `Error`, when
  /// the pattern is no regular expression.
  static std::optional<UnitRule> Make(const std::string& Pattern, std::string& Error);

  /// The unit a scanned line names (without the line's end and surrounding blanks), or nothing
  /// and why in `Why` ("unit 'X' does not match the pattern P").
  std::optional<std::string> Take(const std::string& Line, std::string& Why) const;

 private:
  std::string pattern_;
  std::shared_ptr<const std::regex> regex_;  // none for any line
};

}  // namespace palimbo
