#include "console/message_boxes.h"

#include <QMessageBox>

namespace palimbo {

bool QtMessageBoxes::AskYesNo(QWidget* Owner, const QString& Title, const QString& Text) {
  QMessageBox Box(QMessageBox::NoIcon, Title, Text, QMessageBox::Yes | QMessageBox::No, Owner);
  Box.setDefaultButton(QMessageBox::No);
  Box.setEscapeButton(QMessageBox::No);
  return Box.exec() == QMessageBox::Yes;
}

void QtMessageBoxes::Show(QWidget* Owner, const QString& Title, const QString& Text, BoxIcon Icon) {
  QMessageBox::Icon Shown = QMessageBox::NoIcon;
  switch (Icon) {
    case BoxIcon::None:
      Shown = QMessageBox::NoIcon;
      break;
    case BoxIcon::Information:
      Shown = QMessageBox::Information;
      break;
    case BoxIcon::Critical:
      Shown = QMessageBox::Critical;
      break;
  }
  QMessageBox Box(Shown, Title, Text, QMessageBox::Ok, Owner);
  Box.exec();
}

}  // namespace palimbo
