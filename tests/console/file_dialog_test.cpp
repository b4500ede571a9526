// Choosing the firmware file: the filter, the split of the chosen path, and the dialog itself.

#include <QDir>
#include <QFileDialog>

#include "console/modStDialog.h"
#include "console_fixture.h"

namespace palimbo::testing {
namespace {

// A text with NUL characters in it, as a literal gives it.
template <size_t N>
QString Nul(const char (&Text)[N]) {
  return QString::fromLatin1(Text, N - 1);
}

TEST(PrepareDialogFilter, EveryBarBecomesNulAndTheListEndsInTwo) {
  const struct {
    QString Filter, Prepared;
  } kRows[] = {
      {"Intel HEX files (*.hex)|*.hex|All files (*.*)|*.*",
       Nul("Intel HEX files (*.hex)\0*.hex\0All files (*.*)\0*.*\0\0")},
      {"Hex", Nul("Hex\0\0")},
      {"", Nul("\0\0")},
      {"A||B", Nul("A\0\0B\0\0")},
  };
  for (const auto& Row : kRows) EXPECT_EQ(PrepareDialogFilter(Row.Filter), Row.Prepared);
}

TEST(ToNameFilters, PairsBecomeEntriesUpToTheEmptyDescription) {
  const struct {
    QString Filter;
    QStringList Filters;
  } kRows[] = {
      {"Intel HEX files (*.hex)|*.hex|All files (*.*)|*.*",
       {"Intel HEX files (*.hex)", "All files (*.*)"}},
      {"Firmware|*.hex;*.ihx", {"Firmware (*.hex *.ihx)"}},
      {"Hex", {}},
      {"A|*.a||B|*.b", {"A (*.a)"}},
  };
  for (const auto& Row : kRows)
    EXPECT_EQ(ToNameFilters(PrepareDialogFilter(Row.Filter)), Row.Filters)
        << Row.Filter.toStdString();
}

TEST(SplitAndJoin, FolderKeepsItsSeparatorAndJoinAddsOneOnlyWhenMissing) {
  const QString S = QDir::separator();
  const struct {
    QString Full, Folder, Name;
  } kRows[] = {
      {S + "fw" + S + "module.hex", S + "fw" + S, "module.hex"},
      {S + "module.hex", S, "module.hex"},
      {S + "a b" + S + "c" + S + QString(300, 'x') + ".hex", S + "a b" + S + "c" + S,
       QString(300, 'x') + ".hex"},
  };
  for (const auto& Row : kRows) {
    QString Path = "unchanged";
    EXPECT_EQ(SplitFolderAndName(Row.Full, Path), Row.Name);
    EXPECT_EQ(Path, Row.Folder);
    EXPECT_EQ(JoinFolderAndName(Path, Row.Name), Row.Full);
  }
  EXPECT_EQ(JoinFolderAndName(S + "fw", "module.hex"), S + "fw" + S + "module.hex");
}

TEST_F(WindowTest, BrowseCancelledKeepsTheFile) {
  Open();
  Find<QLineEdit>("txtFirmwareFile")->setText("kept.hex");
  QString Title;
  QStringList Filters;
  AnswerNextModal<QFileDialog>([&](QFileDialog* Dialog) {
    Title = Dialog->windowTitle();
    Filters = Dialog->nameFilters();
    EXPECT_EQ(Dialog->selectedNameFilter(), QStringLiteral("Intel HEX files (*.hex)"));
    EXPECT_EQ(Dialog->fileMode(), QFileDialog::ExistingFile);
    Dialog->reject();
  });
  Button("cmdBrowse")->click();
  EXPECT_EQ(Title, QStringLiteral("Select HEX file"));
  EXPECT_EQ(Filters, QStringList({"Intel HEX files (*.hex)", "All files (*.*)"}));
  EXPECT_EQ(Find<QLineEdit>("txtFirmwareFile")->text(), QStringLiteral("kept.hex"));
}

TEST_F(WindowTest, BrowseChosenFileGivesItsFullPath) {
  Open();
  // A deep folder, so the path is longer than any fixed-size buffer would hold.
  const QString Folder = Dir.filePath(QString(120, 'd') + "/" + QString(60, 'e'));
  ASSERT_TRUE(QDir().mkpath(Folder));
  const QString Chosen = Folder + "/module.txt";  // shown under "All files" only
  QFile(Chosen).open(QIODevice::WriteOnly);
  AnswerNextModal<QFileDialog>([&](QFileDialog* Dialog) {
    Dialog->selectNameFilter("All files (*.*)");
    Dialog->setDirectory(Folder);
    Dialog->selectFile(Chosen);
    static_cast<QDialog*>(Dialog)->accept();
  });
  Button("cmdBrowse")->click();
  EXPECT_EQ(Find<QLineEdit>("txtFirmwareFile")->text(), QDir::toNativeSeparators(Chosen));
  EXPECT_EQ(Stored("File"), QDir::toNativeSeparators(Chosen));
}

TEST_F(WindowTest, SaveLogAsWritesEveryLineAfterTheOverwriteQuestion) {
  Open();
  Window().Log("one");
  Window().Log("two");
  const QString Target = Dir.filePath("log.txt");
  QFile(Target).open(QIODevice::WriteOnly);  // exists already: the dialog asks first
  bool Asked = false;
  AnswerNextModal<QFileDialog>([&](QFileDialog* Dialog) {
    EXPECT_EQ(Dialog->acceptMode(), QFileDialog::AcceptSave);
    AnswerNextModal<QMessageBox>([&](QMessageBox* Box) {
      Asked = true;
      Box->button(QMessageBox::Yes)->click();
    });
    Dialog->setDirectory(Dir.path());
    Dialog->selectFile(Target);
    static_cast<QDialog*>(Dialog)->accept();
  });
  Find<QAction>("mnuSaveLog")->trigger();
  EXPECT_TRUE(Asked);
  QFile Saved(Target);
  ASSERT_TRUE(Saved.open(QIODevice::ReadOnly | QIODevice::Text));
  const QStringList Lines = QString::fromUtf8(Saved.readAll()).split('\n', Qt::SkipEmptyParts);
  ASSERT_EQ(Lines.size(), 2);
  EXPECT_TRUE(Lines[0].endsWith("\tone"));
  EXPECT_TRUE(Lines[1].endsWith("\ttwo"));
}

}  // namespace
}  // namespace palimbo::testing
