#pragma once

#include <QIcon>
#include <QImage>

namespace palimbo {

/// One image of the window's icon, `Size` pixels square, drawn in the 16 standard colours.
QImage DrawWindowIconImage(int Size);

/// The window's icon with its two images, 32 and 16 pixels.
QIcon MakeWindowIcon();

}  // namespace palimbo
