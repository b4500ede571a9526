#pragma once

#include <QString>

namespace palimbo {

/// Title of the English manual's box.
QString EnglishManualTitle();
/// The English operating instructions, with the safety sentence behind an empty line.
QString EnglishManualText();

/// Title of the first German box.
QString GermanManualTitle();
/// The German operating instructions.
QString GermanManualText();

/// Title of the second German box.
QString GermanSafetyTitle();
/// The German safety note, shown under a critical icon after the manual box is closed.
QString GermanSafetyNote();

}  // namespace palimbo
