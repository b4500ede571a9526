// What differs on Windows: the system's common file dialog, driven from a second thread as an
// operator's clicks would, since its modal loop is the system's and not the toolkit's.

#include <windows.h>
// The dialog's control numbers need the types of windows.h before them.
#include <dlgs.h>

#include <atomic>
#include <thread>

#include "window_fixture.h"

namespace palimbo::testing {
namespace {

struct DialogSeen {
  QString Title;
  QStringList Filters;
  int Selected = -1;
};

// Waits for the dialog titled `Title`, notes what it shows, then types `File` into its name
// field and presses Open, or presses Cancel when `File` is empty.
class DialogOperator {
 public:
  DialogOperator(const char* Title, QString File) {
    Worker = std::thread([this, Title, File] {
      for (int Try = 0; Try < 1000 && !Stop; ++Try) {
        const HWND Dialog = ::FindWindowA(nullptr, Title);
        if (Dialog == nullptr || !::IsWindowVisible(Dialog)) {
          ::Sleep(20);
          continue;
        }
        Read(Dialog);
        if (File.isEmpty()) {
          ::PostMessageA(Dialog, WM_COMMAND, IDCANCEL, 0);
        } else {
          const QByteArray Name = QDir::toNativeSeparators(File).toLocal8Bit();
          if (::SetDlgItemTextA(Dialog, cmb13, Name.constData()) == 0)
            ::SetDlgItemTextA(Dialog, edt1, Name.constData());
          ::PostMessageA(Dialog, WM_COMMAND, IDOK, 0);
        }
        return;
      }
    });
  }
  ~DialogOperator() {
    Stop = true;
    Worker.join();
  }
  DialogSeen Seen;

 private:
  void Read(HWND Dialog) {
    char Text[256] = {};
    ::GetWindowTextA(Dialog, Text, sizeof Text);
    Seen.Title = QString::fromLocal8Bit(Text);
    const HWND Types = ::GetDlgItem(Dialog, cmb1);
    const auto Count = ::SendMessageA(Types, CB_GETCOUNT, 0, 0);
    for (LRESULT Item = 0; Item < Count; ++Item) {
      ::SendMessageA(Types, CB_GETLBTEXT, Item, reinterpret_cast<LPARAM>(Text));
      Seen.Filters << QString::fromLocal8Bit(Text);
    }
    Seen.Selected = static_cast<int>(::SendMessageA(Types, CB_GETCURSEL, 0, 0));
  }
  std::atomic<bool> Stop{false};
  std::thread Worker;
};

TEST_F(WindowTest, BrowseCancelledKeepsTheFileAndChosenGivesItsFullPath) {
  Open();
  auto* File = Find<QLineEdit>("txtFirmwareFile");
  File->setText("kept.hex");
  DialogSeen Cancelled;
  {
    DialogOperator Operator("Select HEX file", QString());
    Button("cmdBrowse")->click();
    Cancelled = Operator.Seen;
  }
  EXPECT_EQ(Cancelled.Title, "Select HEX file");
  EXPECT_EQ(Cancelled.Filters, QStringList({"Intel HEX files (*.hex)", "All files (*.*)"}));
  EXPECT_EQ(Cancelled.Selected, 0);
  EXPECT_EQ(File->text(), "kept.hex");

  const QString Chosen = Dir.filePath("module.txt");  // shown under "All files" only
  ASSERT_TRUE(QFile(Chosen).open(QIODevice::WriteOnly));
  {
    DialogOperator Operator("Select HEX file", Chosen);
    Button("cmdBrowse")->click();
  }
  EXPECT_EQ(File->text().toLower(), QDir::toNativeSeparators(Chosen).toLower());
}

}  // namespace
}  // namespace palimbo::testing
