#include "console/modStDialog.h"

#include <QDir>

namespace palimbo {

QString PrepareDialogFilter(const QString& Filter) {
  QString Prepared = Filter + QStringLiteral("||");
  Prepared.replace(QLatin1Char('|'), QChar(0));
  return Prepared;
}

QStringList ToNameFilters(const QString& Prepared) {
  const QStringList Parts = Prepared.split(QChar(0));
  QStringList Filters;
  // The list ends at the first empty description, as the system dialog reads it.
  for (qsizetype I = 0; I + 1 < Parts.size() && !Parts[I].isEmpty(); I += 2) {
    const QString& Description = Parts[I];
    QString Patterns = Parts[I + 1];
    if (Patterns.isEmpty()) continue;
    Patterns.replace(QLatin1Char(';'), QLatin1Char(' '));
    const QString Shown = QStringLiteral("(") + Patterns + QStringLiteral(")");
    // The toolkit takes the patterns from the parentheses at the end of each entry.
    Filters << (Description.endsWith(Shown) ? Description : Description + QLatin1Char(' ') + Shown);
  }
  return Filters;
}

QString SplitFolderAndName(const QString& FullPath, QString& Path) {
  const qsizetype NameStart = FullPath.lastIndexOf(QDir::separator()) + 1;
  Path = FullPath.left(NameStart);
  return FullPath.mid(NameStart);
}

QString JoinFolderAndName(const QString& Path, const QString& Name) {
  if (Path.endsWith(QDir::separator())) return Path + Name;
  return Path + QDir::separator() + Name;
}

QString ShowOpenDialog(QWidget* Owner, const QString& Title, QString& Path,
                       const QString& DefaultName, const QString& Filter,
                       const QString& DefaultExt) {
  return ShowFileDialog(Owner, Title, Path, DefaultName, Filter, DefaultExt, kDialogOpenExisting);
}

}  // namespace palimbo
