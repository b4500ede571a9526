#pragma once

// Lets the test framework show the toolkit's texts as text in its failure messages.

#include <QString>
#include <QStringList>
#include <ostream>

inline void PrintTo(const QString& Text, std::ostream* Out) {
  *Out << '"' << Text.toStdString() << '"';
}
