// What differs off Windows: the toolkit's file dialog, and an upload through the real serial
// layer to a module behind a pseudo-terminal.

#include "sim/pty_host.h"
#include "window_fixture.h"

namespace palimbo::testing {
namespace {

TEST_F(WindowTest, BrowseCancelledKeepsTheFileAndChosenGivesItsFullPath) {
  Open();
  auto* File = Find<QLineEdit>("txtFirmwareFile");
  File->setText("kept.hex");
  QStringList Seen;
  AnswerNextModal<QFileDialog>([&](QFileDialog* Dialog) {
    Seen << Dialog->windowTitle() << Dialog->nameFilters() << Dialog->selectedNameFilter();
    Dialog->reject();
  });
  Button("cmdBrowse")->click();
  EXPECT_EQ(Seen, QStringList({"Select HEX file", "Intel HEX files (*.hex)", "All files (*.*)",
                               "Intel HEX files (*.hex)"}));
  EXPECT_EQ(File->text(), "kept.hex");
  const QString Chosen = Dir.filePath("module.txt");  // shown under "All files" only
  ASSERT_TRUE(QFile(Chosen).open(QIODevice::WriteOnly));
  AnswerNextModal<QFileDialog>([&](QFileDialog* Dialog) {
    Dialog->selectNameFilter("All files (*.*)");
    Dialog->selectFile(Chosen);
    static_cast<QDialog*>(Dialog)->accept();
  });
  Button("cmdBrowse")->click();
  EXPECT_EQ(File->text(), QDir::toNativeSeparators(Chosen));
}

TEST_F(WindowTest, UploadThroughPseudoTerminalCompletes) {
  sim::SimulatedModule Device;
  std::string Error;
  const std::unique_ptr<sim::PtyHost> Host = sim::PtyHost::Open(Device, Error);
  ASSERT_NE(Host, nullptr) << Error;
  OpenWith(*System, Wall, Boxes);
  // By a stable name with colons in it, as /dev/serial/by-path gives one.
  const QString Path = Dir.filePath("pci-0000:00:14.0-usb-0:1.4:1.0-port0");
  ASSERT_TRUE(QFile::link(QString::fromStdString(Host->SlavePath()), Path));
  PrepareUpload(Path);
  const std::set<QRgb> Bar = ClickWatchingBar("cmdStart");
  Host->Stop();
  EXPECT_EQ(LogTexts().value(1), Path + " opened.");
  EXPECT_EQ(LogTexts().last(), kSuccess);
  EXPECT_EQ(Device.Flash().substr(0, Image.size()), Image);
  EXPECT_TRUE(Bar.count(kRed) && Bar.count(kBlue));
  EXPECT_EQ(Window->Job().PortHandle, -1);
}

}  // namespace
}  // namespace palimbo::testing
