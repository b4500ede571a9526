#include "console_fixture.h"

#include <QFile>

#include "../support/temp_file.h"

namespace palimbo::testing {

std::string WriteHexFile(const QTemporaryDir& Dir, const std::string& Image) {
  const QString Path = Dir.filePath(QStringLiteral("firmware.hex"));
  QFile File(Path);
  EXPECT_TRUE(File.open(QIODevice::WriteOnly));
  File.write(QByteArray::fromStdString(HexOf(Image)));
  return Path.toStdString();
}

std::string PatternImage(size_t Size) {
  std::string Image(Size, '\0');
  for (size_t I = 0; I < Size; ++I) Image[I] = static_cast<char>(I * 7 + 3);
  return Image;
}

WindowTest::WindowTest()
    : Settings(Dir.filePath(QStringLiteral("store.ini")), QSettings::IniFormat) {}

WindowTest::~WindowTest() {
  // A test may leave the window open; closing it here keeps the next test's state clean.
  if (window_ && window_->isVisible()) window_->hide();
}

void WindowTest::Open(MessageBoxes* Real) {
  MessageBoxes& Shown = Real != nullptr ? *Real : Boxes;
  window_ = std::make_unique<frmPalimbo>(ConsoleServices{Scanner, Line, JobClock, Settings, Shown});
  window_->show();
}

QStringList WindowTest::LogTexts() {
  QStringList Texts;
  auto* List = Find<QListWidget>("lstStatus");
  for (int Row = 0; Row < List->count(); ++Row)
    Texts << List->item(Row)->text().section(QLatin1Char('\t'), 1);
  return Texts;
}

void WindowTest::PrepareUpload(const std::string& Image) {
  Find<QRadioButton>("optSelectManually")->click();
  Find<QComboBox>("cmbComPort")->setEditText(QString::fromLatin1(kSimPort));
  Find<QLineEdit>("txtFirmwareFile")->setText(QString::fromStdString(WriteHexFile(Dir, Image)));
}

}  // namespace palimbo::testing
