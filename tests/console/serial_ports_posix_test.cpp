// The port list of systems that name serial ports by device file.

#include <gtest/gtest.h>

#include "qt_printers.h"

#include <QFile>
#include <QTemporaryDir>

#include "console/serial_ports.h"

namespace palimbo {
namespace {

TEST(ListSerialPorts, UsbAdaptersFirstThenBuiltInPortsInNumberOrder) {
  QTemporaryDir Dev;
  for (const char* Name : {"ttyS10", "ttyS2", "ttyUSB1", "ttyACM0", "ttyUSB0", "tty0", "null"})
    QFile(Dev.filePath(Name)).open(QIODevice::WriteOnly);
  QStringList Expected;
  for (const char* Name : {"ttyUSB0", "ttyUSB1", "ttyACM0", "ttyS2", "ttyS10"})
    Expected << Dev.filePath(Name);
  EXPECT_EQ(ListSerialPortsIn(Dev.path()), Expected);
}

}  // namespace
}  // namespace palimbo
