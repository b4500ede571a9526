// The whole road as an operator walks it: the real window, the real serial layer and a
// simulated module behind a pseudo-terminal, on the real clock.

#include <set>

#include "console_fixture.h"
#include "serial/serial_backend.h"
#include "sim/pty_host.h"

namespace palimbo::testing {
namespace {

TEST_F(WindowTest, UploadThroughPseudoTerminalCompletes) {
  sim::SimulatedModule Device;
  std::string Error;
  const std::unique_ptr<sim::PtyHost> Host = sim::PtyHost::Open(Device, Error);
  ASSERT_NE(Host, nullptr) << Error;
  const std::unique_ptr<SerialBackend> Serial = MakeSystemSerialBackend();
  SteadyClock Wall;
  frmPalimbo Real(ConsoleServices{Scanner, *Serial, Wall, Settings, Boxes});
  Real.show();

  // The operator picks manual mode and types the terminal's path.
  Real.findChild<QRadioButton*>("optSelectManually")->click();
  auto* Port = Real.findChild<QComboBox*>("cmbComPort");
  Port->lineEdit()->selectAll();
  Port->lineEdit()->insert(QString::fromStdString(Host->SlavePath()));
  const std::string Image = PatternImage(700);
  Real.findChild<QLineEdit*>("txtFirmwareFile")
      ->setText(QString::fromStdString(WriteHexFile(Dir, Image)));

  std::set<QRgb> BarColours;
  QTimer Watch;
  Watch.setInterval(0);
  QObject::connect(&Watch, &QTimer::timeout, [&] {
    BarColours.insert(Real.findChild<ProgressSurface*>("pctProgress")->Picture().pixel(1, 5) |
                      0xFF000000);
  });
  Watch.start();
  Real.findChild<QPushButton*>("cmdStart")->click();
  Watch.stop();
  Host->Stop();

  auto* List = Real.findChild<QListWidget*>("lstStatus");
  QStringList Lines;
  for (int Row = 0; Row < List->count(); ++Row) Lines << List->item(Row)->text().section('\t', 1);
  EXPECT_EQ(Lines.value(1), QString::fromStdString(Host->SlavePath()) + " opened.");
  EXPECT_EQ(Lines.last(), QStringLiteral("UPLOAD SUCCESSFULLY COMPLETED."));
  EXPECT_EQ(Device.Flash().substr(0, Image.size()), Image);
  EXPECT_TRUE(BarColours.count(0xFFFF0000));
  EXPECT_TRUE(BarColours.count(0xFF0000FF));
  EXPECT_EQ(Real.Job().PortHandle, -1);
  EXPECT_EQ(Stored("Port"), QString::fromStdString(Host->SlavePath()));
  Real.hide();
}

}  // namespace
}  // namespace palimbo::testing
