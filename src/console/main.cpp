#include <QApplication>
#include <QCommandLineParser>
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

  // `--profile FILE` opens the window as the production station that FILE describes.
  QCommandLineParser Parser;
  Parser.setApplicationDescription(QStringLiteral("Writes firmware into a module"));
  Parser.addHelpOption();
  Parser.addVersionOption();
  Parser.addOption({QStringLiteral("profile"),
                    QStringLiteral("Run the production station that the JSON file describes"),
                    QStringLiteral("FILE")});
  Parser.process(App);

  // One store per user, named by the application title, with the section "Settings".
  QSettings Settings(QSettings::IniFormat, QSettings::UserScope,
                     QString::fromLatin1(palimbo::kAppTitle));
  const std::unique_ptr<palimbo::AdapterScanner> Scanner = palimbo::MakeSystemAdapterScanner();
  const std::unique_ptr<palimbo::SerialBackend> Port = palimbo::MakeSystemSerialBackend();
  palimbo::SteadyClock Clock;
  palimbo::QtMessageBoxes Boxes;

  palimbo::frmPalimbo Window(
      {*Scanner, *Port, Clock, Settings, Boxes, Parser.value(QStringLiteral("profile"))});
  Window.show();
  return App.exec();
}
