#include "console/progress_surface.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QResizeEvent>
#include <cmath>

namespace palimbo {

QColor FromColorValue(uint32_t Color) {
  return QColor(static_cast<int>(Color & 0xFF), static_cast<int>((Color >> 8) & 0xFF),
                static_cast<int>((Color >> 16) & 0xFF));
}

int32_t BarWidth(int32_t Val, int32_t Max, int32_t ScaleWidth) {
  if (Max <= 0) return 0;
  const double Exact = static_cast<double>(Val) / static_cast<double>(Max) * ScaleWidth;
  // Rounds half to even without relying on the floating-point environment's mode.
  double Rounded = std::floor(Exact + 0.5);
  if (Rounded - Exact == 0.5 && std::fmod(Rounded, 2.0) != 0.0) Rounded -= 1.0;
  return static_cast<int32_t>(Rounded);
}

ProgressSurface::ProgressSurface(QWidget* Parent)
    : QFrame(Parent), back_color_(Qt::white), fore_color_(Qt::black) {
  setFrameStyle(QFrame::Panel | QFrame::Sunken);
  setLineWidth(2);
  QFont TextFont = font();
  // Plain pixels, so that the pen's draw mode gives the text exact colours inside the bar.
  TextFont.setStyleStrategy(QFont::NoAntialias);
  setFont(TextFont);
  Blank();
}

void ProgressSurface::SetColors(const QColor& Back, const QColor& Fore) {
  back_color_ = Back;
  fore_color_ = Fore;
  Blank();
  update();
}

void ProgressSurface::DrawProgress(int32_t Val, int32_t Max, uint32_t Color, const QString& Text) {
  const int32_t Width = ScaleWidth();
  const int32_t Height = ScaleHeight();
  const int32_t Bar = BarWidth(Val, Max, Width);

  QPainter Painter(&image_);
  Painter.setCompositionMode(QPainter::CompositionMode_Source);
  Painter.fillRect(QRect(0, 0, Width, Height), back_color_);

  Painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
  Painter.setFont(font());
  Painter.setPen(fore_color_);
  const QFontMetricsF Metrics(font(), &image_);
  const double X = Width / 2.0 - Metrics.horizontalAdvance(Text) / 2.0;
  const double Y = Height / 2.0 - Metrics.height() / 2.0;
  Painter.drawText(QPointF(X, Y + Metrics.ascent()), Text);

  // Each pixel of the bar becomes NOT (pen XOR old pixel), which keeps the text readable.
  if (Bar > 0) {
    Painter.setCompositionMode(QPainter::RasterOp_NotSourceXorDestination);
    Painter.fillRect(QRect(0, 0, std::min(Bar, Width), Height), FromColorValue(Color));
  }
  Painter.end();
  repaint();
}

void ProgressSurface::paintEvent(QPaintEvent* Event) {
  QFrame::paintEvent(Event);
  QPainter Painter(this);
  Painter.drawImage(contentsRect().topLeft(), image_);
}

void ProgressSurface::resizeEvent(QResizeEvent* Event) {
  QFrame::resizeEvent(Event);
  Blank();
}

int ProgressSurface::Ratio() const {
  return std::max(1, static_cast<int>(std::ceil(image_.devicePixelRatio())));
}

void ProgressSurface::Blank() {
  const qreal DevicePixels = std::max<qreal>(1.0, std::ceil(devicePixelRatioF()));
  const QSize Area = contentsRect().size().expandedTo(QSize(1, 1));
  image_ = QImage(Area * DevicePixels, QImage::Format_RGB32);
  image_.setDevicePixelRatio(DevicePixels);
  image_.fill(back_color_);
}

}  // namespace palimbo
