#include "console/manuals.h"

namespace palimbo {

namespace {

// Pieces are joined with nothing between them; their trailing blanks are part of the text.
constexpr char kCrLf[] = "\r\n";

}  // namespace

QString EnglishManualTitle() {
  return QStringLiteral("English manual");
}

QString EnglishManualText() {
  QString Text;
  Text += QStringLiteral(
      "Please connect the module being updated to your Kestrolar (normal, Mini- or PC) and make "
      "sure the Kestrolar itself is connected to your USB port. ");
  Text += QStringLiteral(
      "On the Kestrolar or Mini-Kestrolar, enter USB mode (Kestrolar: last button in main menu, "
      "Mini-Kestrolar: entry called \"USB-Mode\" in main menu). ");
  Text += QStringLiteral(
      "Now, select the appropriate connection within this program using either automatic "
      "detection or manual select feature. Pick the right firmware file ");
  Text += QStringLiteral("in the field below (2).");
  Text += QLatin1String(kCrLf);
  Text += QStringLiteral(
      "Make sure the device to be updated is turned off completely. Hold the ON switch (usually "
      "magnetic) on the module and wait for at least 5 seconds. ");
  Text += QStringLiteral(
      "Without releasing the switch, press the START button in this tool. The update process will "
      "begin. As soon as the process is running (progress bar has turned RED)");
  Text += QStringLiteral("you can release the magnetic switch.");
  Text += QLatin1String(kCrLf);
  Text += QLatin1String(kCrLf);
  Text += QStringLiteral(
      "Please never interrupt the update process as this can render the module useless!");
  return Text;
}

QString GermanManualTitle() {
  return QStringLiteral("Deutsche Anleitung");
}

QString GermanManualText() {
  QString Text;
  Text += QString::fromUtf8(
      "Verbinden Sie das zu aktualisierende Modul mit Ihrem Kestrolar, Mini-Kestrolar oder "
      "PC-Kestrolar und verbinden Sie diesen per USB mit Ihrem Computer. ");
  Text += QString::fromUtf8(
      "Beim Kestrolar oder Mini-Kestrolar bringen Sie diesen in den USB-Modus (Kestrolar: "
      "unterster Knopf im Hauptmenü, beim Mini-Kestrolar Eintrag \"USB-Modus\" im Hauptmenü. ");
  Text += QString::fromUtf8(
      "Wählen Sie nun die entsprechenden Anschluss indem Sie entweder die automatische Erkennung "
      "benutzen oder den COM-Port manuell einstellen. Wählen Sie außerdem ");
  Text += QString::fromUtf8("die korrekte Firmware-Datei für das Gerät im Feld (2) aus.");
  Text += QLatin1String(kCrLf);
  Text += QString::fromUtf8(
      "Stellen Sie sicher, dass das zu aktualisierende Gerät komplett aus geschaltet ist. Halten "
      "Sie dann den Einschalter (Magnetschalter) am Modul gedrückt und ");
  Text += QString::fromUtf8(
      "warten Sie für mindestens 5 Sekunden. Ohne den Einschalter los zu lassen drücken Sie in "
      "diesem Programm auf den \"START\"-Knopf. Das Update beginnt nun. ");
  Text += QString::fromUtf8(
      "Sobald der Prozess läuft, und sich der Fortschrittsbalken unter (4) ROT verfärbt hat, "
      "können Sie den Einschalter des Geräts los lassen.");
  return Text;
}

QString GermanSafetyTitle() {
  return QStringLiteral("Sicherheitshinweis");
}

QString GermanSafetyNote() {
  return QString::fromUtf8(
      "ACHTUNG: Bitte unterbrechen Sie niemals den Update-Prozess, sobald sich der Balken rot "
      "verfärbt hat. Das Gerät könnte eventuell nur durch Unterbrechen der Betriebsspannung "
      "wiederhergestellt werden!");
}

}  // namespace palimbo
