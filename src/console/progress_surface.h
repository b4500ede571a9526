#pragma once

#include <QColor>
#include <QFrame>
#include <QImage>
#include <QString>
#include <cstdint>

namespace palimbo {

/// A colour value of the form 0xBBGGRR as the toolkit's colour: 255 is red, 0xFF0000 blue.
QColor FromColorValue(uint32_t Color);

/// The bar's width for `Val` of `Max` on a surface `ScaleWidth` wide: rounded to the nearest
/// whole number, a half going to the even neighbour. 0 when `Max` is not above 0.
int32_t BarWidth(int32_t Val, int32_t Max, int32_t ScaleWidth);

/// The drawing surface of `pctProgress`: keeps the picture of the last drawing until the next.
///
/// Drawing happens on an image behind the surface, so that the not-xor pen works on the
/// pixels themselves; painting the widget only shows that image.
class ProgressSurface final : public QFrame {
  Q_OBJECT

 public:
  explicit ProgressSurface(QWidget* Parent = nullptr);

  /// Width and height of the drawing area in scale units (pixels).
  int32_t ScaleWidth() const { return image_.width() / Ratio(); }
  int32_t ScaleHeight() const { return image_.height() / Ratio(); }

  QColor BackColor() const { return back_color_; }
  QColor ForeColor() const { return fore_color_; }
  /// Changes the colours for later drawings; the surface is wiped to the new background.
  void SetColors(const QColor& Back, const QColor& Fore);

  /// Wipes the surface, prints `Text` in its middle and lays the bar over it with the
  /// not-xor pen, then shows the result at once. Pumps no events.
  void DrawProgress(int32_t Val, int32_t Max, uint32_t Color, const QString& Text);

  /// What the surface shows, one device pixel a pixel.
  const QImage& Picture() const { return image_; }

 protected:
  void paintEvent(QPaintEvent* Event) override;
  void resizeEvent(QResizeEvent* Event) override;

 private:
  int Ratio() const;
  void Blank();

  QImage image_;
  QColor back_color_;
  QColor fore_color_;
};

}  // namespace palimbo
