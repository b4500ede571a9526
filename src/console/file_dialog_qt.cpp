// The file dialog where the system has no common dialog of its own: the toolkit's.
#include <QDir>
#include <QFileDialog>

#include "console/modStDialog.h"

namespace palimbo {

QString ShowFileDialog(QWidget* Owner, const QString& Title, QString& Path,
                       const QString& DefaultName, const QString& Filter, const QString& DefaultExt,
                       int16_t Mode) {
  QFileDialog Dialog(Owner, Title, Path);
  // The toolkit's own dialog behaves alike on every platform, also without a desktop.
  Dialog.setOption(QFileDialog::DontUseNativeDialog);
  const QStringList Filters = ToNameFilters(PrepareDialogFilter(Filter));
  Dialog.setNameFilters(Filters);
  if (!Filters.isEmpty()) Dialog.selectNameFilter(Filters.first());
  Dialog.setDefaultSuffix(DefaultExt);
  if (!DefaultName.isEmpty()) Dialog.selectFile(DefaultName);
  if (Mode == kDialogOpenExisting) {
    Dialog.setAcceptMode(QFileDialog::AcceptOpen);
    Dialog.setFileMode(QFileDialog::ExistingFile);
  } else {
    Dialog.setAcceptMode(QFileDialog::AcceptSave);
    Dialog.setFileMode(QFileDialog::AnyFile);
    Dialog.setOption(QFileDialog::DontConfirmOverwrite, Mode != kDialogSavePrompt);
  }
  if (Dialog.exec() != QDialog::Accepted) return {};
  const QStringList Chosen = Dialog.selectedFiles();
  if (Chosen.isEmpty() || Chosen.first().isEmpty()) return {};
  return SplitFolderAndName(QDir::toNativeSeparators(Chosen.first()), Path);
}

}  // namespace palimbo
