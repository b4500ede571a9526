#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>

class QWidget;

namespace palimbo {

/// Modes of `ShowFileDialog`.
inline constexpr int16_t kDialogOpenExisting = 0;  ///< open a file that exists
inline constexpr int16_t kDialogSavePrompt = 1;    ///< save, asking before a file is overwritten
inline constexpr int16_t kDialogSave = 2;          ///< save without asking

/// The filter list in the dialog's own form: "||" appended, then every "|" turned into NUL,
/// so the list of descriptions and patterns always ends in two NUL characters.
QString PrepareDialogFilter(const QString& Filter);

/// A prepared filter list as the toolkit's name filters, one "Description (patterns)" entry
/// per pair, in order; the first entry is the active one.
QStringList ToNameFilters(const QString& Prepared);

/// Splits a full path at its last separator: `Path` receives the folder with its trailing
/// separator, and the file name is returned.
QString SplitFolderAndName(const QString& FullPath, QString& Path);

/// The folder and the name as one path, adding a separator only when `Path` lacks one.
QString JoinFolderAndName(const QString& Path, const QString& Name);

/// Asks for an existing file. Returns its name without the folder and sets `Path` to the
/// folder, or returns the empty text and leaves `Path` alone when the operator cancels.
QString ShowOpenDialog(QWidget* Owner, const QString& Title, QString& Path,
                       const QString& DefaultName, const QString& Filter,
                       const QString& DefaultExt);

/// The file dialog for opening (mode 0) and saving (modes 1 and 2); results as
/// `ShowOpenDialog`. `Path` is also the folder the dialog starts in; empty lets it choose.
QString ShowFileDialog(QWidget* Owner, const QString& Title, QString& Path,
                       const QString& DefaultName, const QString& Filter, const QString& DefaultExt,
                       int16_t Mode);

}  // namespace palimbo
