#pragma once

#include <QString>
#include <QStringList>

namespace palimbo {

/// The port names that `cmbComPort` offers in its list: COM1 to COM9 on Windows, the serial
/// devices present elsewhere. Any other name can still be typed.
QStringList ListSerialPorts();

/// The same, looking for devices in `DeviceFolder` where the platform names ports by device
/// file; Windows ignores the folder.
QStringList ListSerialPortsIn(const QString& DeviceFolder);

}  // namespace palimbo
