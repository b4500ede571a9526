#include "console/window_icon.h"

#include <QPainter>
#include <QPixmap>
#include <QPolygon>

namespace palimbo {

namespace {

// Colours of the 16-colour palette that the icon uses.
const QColor kBlack(0, 0, 0);
const QColor kTeal(0, 128, 128);
const QColor kAqua(0, 255, 255);
const QColor kSilver(192, 192, 192);
const QColor kGray(128, 128, 128);
const QColor kRed(255, 0, 0);
const QColor kYellow(255, 255, 0);

}  // namespace

QImage DrawWindowIconImage(int Size) {
  QImage Image(Size, Size, QImage::Format_ARGB32);
  Image.fill(Qt::transparent);
  QPainter Painter(&Image);
  // Hard edges only, so that every pixel keeps one of the palette's colours.
  Painter.setRenderHint(QPainter::Antialiasing, false);
  const double U = Size / 16.0;
  auto Box = [U](double X, double Y, double W, double H) {
    return QRect(qRound(X * U), qRound(Y * U), qMax(1, qRound(W * U)), qMax(1, qRound(H * U)));
  };

  // The module: a chip with pins on both sides.
  for (int Pin = 0; Pin < 4; ++Pin) {
    Painter.fillRect(Box(1, 7 + Pin * 2, 2, 1), kSilver);
    Painter.fillRect(Box(13, 7 + Pin * 2, 2, 1), kSilver);
  }
  Painter.fillRect(Box(3, 6, 10, 9), kBlack);
  Painter.fillRect(Box(4, 7, 8, 7), kTeal);
  Painter.fillRect(Box(5, 12, 6, 1), kAqua);
  Painter.fillRect(Box(4, 6, 1, 1), kGray);

  // The firmware going in: a red arrow from above with a yellow edge.
  Painter.setPen(Qt::NoPen);
  const QPolygon Arrow({Box(6, 0, 1, 1).topLeft(), Box(10, 0, 1, 1).topLeft(),
                        Box(10, 5, 1, 1).topLeft(), Box(13, 5, 1, 1).topLeft(),
                        Box(8, 11, 1, 1).topLeft(), Box(3, 5, 1, 1).topLeft(),
                        Box(6, 5, 1, 1).topLeft()});
  Painter.setBrush(kYellow);
  Painter.drawPolygon(Arrow.translated(qMax(1, qRound(U / 2)), 0));
  Painter.setBrush(kRed);
  Painter.drawPolygon(Arrow);
  Painter.end();
  return Image;
}

QIcon MakeWindowIcon() {
  QIcon Icon;
  Icon.addPixmap(QPixmap::fromImage(DrawWindowIconImage(32)));
  Icon.addPixmap(QPixmap::fromImage(DrawWindowIconImage(16)));
  return Icon;
}

}  // namespace palimbo
