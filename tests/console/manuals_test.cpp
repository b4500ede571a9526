// The two manuals: their texts piece by piece, their boxes and the order of those boxes.

#include <QMessageBox>

#include "console/manuals.h"
#include "console_fixture.h"

namespace palimbo::testing {
namespace {

// Each entry is one piece of the text, CR LF as a piece of its own.

const char* const kEnglishPieces[] = {
    "Please connect the module being updated to your Kestrolar (normal, Mini- or PC) and make sure "
    "the Kestrolar itself is connected to your USB port. ",
    "On the Kestrolar or Mini-Kestrolar, enter USB mode (Kestrolar: last button in main menu, "
    "Mini-Kestrolar: entry called \"USB-Mode\" in main menu). ",
    "Now, select the appropriate connection within this program using either automatic detection "
    "or manual select feature. Pick the right firmware file ",
    "in the field below (2).",
    "\r\n",
    "Make sure the device to be updated is turned off completely. Hold the ON switch (usually "
    "magnetic) on the module and wait for at least 5 seconds. ",
    "Without releasing the switch, press the START button in this tool. The update process will "
    "begin. As soon as the process is running (progress bar has turned RED)",
    "you can release the magnetic switch.",
    "\r\n",
    "\r\n",
    "Please never interrupt the update process as this can render the module useless!",
};
const char* const kGermanPieces[] = {
    "Verbinden Sie das zu aktualisierende Modul mit Ihrem Kestrolar, Mini-Kestrolar oder "
    "PC-Kestrolar und verbinden Sie diesen per USB mit Ihrem Computer. ",
    "Beim Kestrolar oder Mini-Kestrolar bringen Sie diesen in den USB-Modus (Kestrolar: unterster "
    "Knopf im Hauptmenü, beim Mini-Kestrolar Eintrag \"USB-Modus\" im Hauptmenü. ",
    "Wählen Sie nun die entsprechenden Anschluss indem Sie entweder die automatische Erkennung "
    "benutzen oder den COM-Port manuell einstellen. Wählen Sie außerdem ",
    "die korrekte Firmware-Datei für das Gerät im Feld (2) aus.",
    "\r\n",
    "Stellen Sie sicher, dass das zu aktualisierende Gerät komplett aus geschaltet ist. Halten Sie "
    "dann den Einschalter (Magnetschalter) am Modul gedrückt und ",
    "warten Sie für mindestens 5 Sekunden. Ohne den Einschalter los zu lassen drücken Sie in "
    "diesem Programm auf den \"START\"-Knopf. Das Update beginnt nun. ",
    "Sobald der Prozess läuft, und sich der Fortschrittsbalken unter (4) ROT verfärbt hat, können "
    "Sie den Einschalter des Geräts los lassen.",
};
const char* const kGermanNote =
    "ACHTUNG: Bitte unterbrechen Sie niemals den Update-Prozess, sobald sich der Balken rot "
    "verfärbt hat. Das Gerät könnte eventuell nur durch Unterbrechen der Betriebsspannung "
    "wiederhergestellt werden!";

// Walks `Text` piece by piece, so that a failure names the first piece that differs.
template <size_t N>
void ExpectPieces(const QString& Text, const char* const (&Pieces)[N]) {
  qsizetype At = 0;
  for (size_t I = 0; I < N; ++I) {
    const QString Piece = QString::fromUtf8(Pieces[I]);
    ASSERT_EQ(Text.mid(At, Piece.size()), Piece) << "piece " << I + 1;
    At += Piece.size();
  }
  EXPECT_EQ(At, Text.size()) << "text goes on behind the last piece";
}

TEST(Manuals, TextsAreTheirPiecesJoinedWithNothingBetween) {
  ExpectPieces(EnglishManualText(), kEnglishPieces);
  ExpectPieces(GermanManualText(), kGermanPieces);
  EXPECT_EQ(GermanSafetyNote(), QString::fromUtf8(kGermanNote));
  EXPECT_TRUE(EnglishManualText().contains("turned RED)you can release"));
}

TEST_F(WindowTest, ManualButtonsShowTheirBoxesInOrder) {
  Open();
  Button("cmdEnglishManual")->click();
  ASSERT_EQ(Boxes.Shown.size(), 1u);
  EXPECT_EQ(Boxes.Shown[0].Title, QStringLiteral("English manual"));
  EXPECT_EQ(Boxes.Shown[0].Text, EnglishManualText());
  EXPECT_EQ(Boxes.Shown[0].Icon, BoxIcon::Information);
  EXPECT_FALSE(Boxes.Shown[0].Question);

  Boxes.Shown.clear();
  Button("cmdGermanManual")->click();
  ASSERT_EQ(Boxes.Shown.size(), 2u);
  EXPECT_EQ(Boxes.Shown[0].Title, QStringLiteral("Deutsche Anleitung"));
  EXPECT_EQ(Boxes.Shown[0].Text, GermanManualText());
  EXPECT_EQ(Boxes.Shown[0].Icon, BoxIcon::Information);
  EXPECT_EQ(Boxes.Shown[1].Title, QStringLiteral("Sicherheitshinweis"));
  EXPECT_EQ(Boxes.Shown[1].Text, GermanSafetyNote());
  EXPECT_EQ(Boxes.Shown[1].Icon, BoxIcon::Critical);
}

// The toolkit's boxes: the second German box opens only once the first is closed.
TEST_F(WindowTest, RealGermanBoxesOpenOneAfterTheOther) {
  Open(&RealBoxes);
  struct Seen {
    QString Title;
    QMessageBox::Icon Icon;
    QMessageBox::StandardButtons Buttons;
    int OpenBoxes;
  };
  std::vector<Seen> Boxes;
  std::function<void(QMessageBox*)> Answer = [&](QMessageBox* Box) {
    int Open = 0;
    for (QWidget* Top : QApplication::topLevelWidgets())
      if (qobject_cast<QMessageBox*>(Top) && Top->isVisible()) ++Open;
    Boxes.push_back({Box->windowTitle(), Box->icon(), Box->standardButtons(), Open});
    if (Boxes.size() < 2) AnswerNextModal(Answer);
    Box->button(QMessageBox::Ok)->click();
  };
  AnswerNextModal(Answer);
  Button("cmdGermanManual")->click();
  ASSERT_EQ(Boxes.size(), 2u);
  EXPECT_EQ(Boxes[0].Title, QStringLiteral("Deutsche Anleitung"));
  EXPECT_EQ(Boxes[0].Icon, QMessageBox::Information);
  EXPECT_EQ(Boxes[1].Title, QStringLiteral("Sicherheitshinweis"));
  EXPECT_EQ(Boxes[1].Icon, QMessageBox::Critical);
  for (const Seen& Box : Boxes) {
    EXPECT_EQ(Box.Buttons, QMessageBox::Ok);
    EXPECT_EQ(Box.OpenBoxes, 1);
  }
}

}  // namespace
}  // namespace palimbo::testing
