#include "console/serial_ports.h"

namespace palimbo {

QStringList ListSerialPorts() {
  return ListSerialPortsIn(QString());
}

QStringList ListSerialPortsIn(const QString& /*DeviceFolder*/) {
  QStringList Ports;
  for (int Number = 1; Number <= 9; ++Number) Ports << QStringLiteral("COM%1").arg(Number);
  return Ports;
}

}  // namespace palimbo
