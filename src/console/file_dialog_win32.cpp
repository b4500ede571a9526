// The file dialog on Windows: the system's common dialog, with the record filled as the
// operators know it from every other program there.

#include <windows.h>
// The dialog header needs the types of windows.h before it.
#include <commdlg.h>

#include <QByteArray>
#include <QWidget>

#include "console/modStDialog.h"

namespace palimbo {

namespace {

// The file buffer is short on purpose: a longer path is a failure of the dialog, as it always was.
constexpr DWORD kFileBufferSize = 128;

constexpr DWORD kOpenFlags = OFN_HIDEREADONLY | OFN_PATHMUSTEXIST | OFN_FILEMUSTEXIST;
constexpr DWORD kSavePromptFlags = OFN_OVERWRITEPROMPT | OFN_HIDEREADONLY | OFN_PATHMUSTEXIST;
constexpr DWORD kSaveFlags = OFN_HIDEREADONLY | OFN_PATHMUSTEXIST;

}  // namespace

QString ShowFileDialog(QWidget* Owner, const QString& Title, QString& Path,
                       const QString& DefaultName, const QString& Filter, const QString& DefaultExt,
                       int16_t Mode) {
  QByteArray File = DefaultName.toLocal8Bit().left(kFileBufferSize - 1);
  File.append(QByteArray(kFileBufferSize - File.size(), '\0'));
  const QByteArray Filters = PrepareDialogFilter(Filter).toLocal8Bit();
  const QByteArray InitialDir = Path.toLocal8Bit();
  const QByteArray TitleText = Title.toLocal8Bit();
  const QByteArray Extension = DefaultExt.toLocal8Bit();

  OPENFILENAMEA Record{};
  Record.lStructSize = sizeof(Record);
  Record.hwndOwner = Owner != nullptr ? reinterpret_cast<HWND>(Owner->window()->winId()) : nullptr;
  Record.lpstrFilter = Filters.constData();
  Record.nFilterIndex = 1;
  Record.lpstrFile = File.data();
  Record.nMaxFile = kFileBufferSize;
  Record.lpstrInitialDir = InitialDir.isEmpty() ? nullptr : InitialDir.constData();
  Record.lpstrTitle = TitleText.constData();
  Record.lpstrDefExt = Extension.isEmpty() ? nullptr : Extension.constData();
  Record.Flags = Mode == kDialogOpenExisting ? kOpenFlags
                 : Mode == kDialogSavePrompt ? kSavePromptFlags
                                             : kSaveFlags;

  const BOOL Chosen =
      Mode == kDialogOpenExisting ? ::GetOpenFileNameA(&Record) : ::GetSaveFileNameA(&Record);
  if (Chosen == 0) return {};
  const QString FullPath = QString::fromLocal8Bit(File.constData());
  Path = FullPath.left(Record.nFileOffset);
  return FullPath.mid(Record.nFileOffset);
}

}  // namespace palimbo
