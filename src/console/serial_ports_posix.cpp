#include <QDir>
#include <algorithm>

#include "console/serial_ports.h"

namespace palimbo {

QStringList ListSerialPorts() {
  return ListSerialPortsIn(QStringLiteral("/dev"));
}

QStringList ListSerialPortsIn(const QString& DeviceFolder) {
  const QDir Folder(DeviceFolder);
  QStringList Ports;
  // USB adapters first, since a controller hangs on one of those; built-in ports last.
  for (const char* Pattern : {"ttyUSB*", "ttyACM*", "ttyS*"}) {
    QStringList Names = Folder.entryList({QString::fromLatin1(Pattern)},
                                         QDir::System | QDir::Files | QDir::NoDotAndDotDot);
    // Same prefix, so the shorter number is the smaller one: ttyS2 before ttyS10.
    std::sort(Names.begin(), Names.end(), [](const QString& A, const QString& B) {
      return A.size() != B.size() ? A.size() < B.size() : A < B;
    });
    for (const QString& Name : Names) Ports << Folder.absoluteFilePath(Name);
  }
  return Ports;
}

}  // namespace palimbo
