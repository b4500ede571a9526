// Writes the window's icon as PNG files of the usual theme sizes, for the desktop's icon theme.
// Usage: render_icon DIR  (writes DIR/16.png, DIR/32.png, ...)
#include <QImage>
#include <QString>
#include <cstdio>

#include "console/window_icon.h"

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: render_icon DIR\n");
    return 2;
  }
  for (const int Size : {16, 32, 48, 64, 128, 256}) {
    const QString File = QString::fromLocal8Bit(argv[1]) + QStringLiteral("/%1.png").arg(Size);
    if (!palimbo::DrawWindowIconImage(Size).save(File, "PNG")) {
      std::fprintf(stderr, "render_icon: cannot write %s\n", qPrintable(File));
      return 1;
    }
  }
  return 0;
}
