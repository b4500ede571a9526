#include <QApplication>
#include <QSettings>

#include "adapter/port_selection.h"
#include "console/frmPalimbo.h"
#include "console/message_boxes.h"
#include "serial/clock.h"
#include "serial/serial_backend.h"

int main(int argc, char* argv[]) {
  QApplication App(argc, argv);
  QApplication::setApplicationName(QString::fromLatin1(palimbo::kAppTitle));
  QApplication::setApplicationVersion(QStringLiteral(PALIMBO_VERSION));

  // One store per user, named by the application title, with the section "Settings".
  QSettings Settings(QSettings::IniFormat, QSettings::UserScope,
                     QString::fromLatin1(palimbo::kAppTitle));
  const std::unique_ptr<palimbo::AdapterScanner> Scanner = palimbo::MakeSystemAdapterScanner();
  const std::unique_ptr<palimbo::SerialBackend> Port = palimbo::MakeSystemSerialBackend();
  palimbo::SteadyClock Clock;
  palimbo::QtMessageBoxes Boxes;

  palimbo::frmPalimbo Window({*Scanner, *Port, Clock, Settings, Boxes});
  Window.show();
  return App.exec();
}
