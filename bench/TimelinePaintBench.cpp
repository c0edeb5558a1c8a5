// Paints the extended timeline (with a selection) 10 000 times into a memory DC, next to
// the same number of bare FillRect + Rectangle pairs on the same DC: the difference is
// what the control and its canvas cost per paint.
// Usage: klBench_TimelinePaint [paints]
#include <windows.h>

#include <cstdio>
#include <cstdlib>

#include "BenchClock.h"
#include "controls/UTimeLineControl.h"
#include "rtl/Graphics.h"

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
  if (count <= 0) return 1;
  kl::UTimeLineControl::TTimeLineControlEx timeline(nullptr);
  timeline.SetBounds(0, 0, 400, 20);
  timeline.SetSelectStart(20);
  timeline.SetSelectFinish(60);
  kl::TBitmap bitmap(400, 20);

  double t0 = Seconds();
  for (int i = 0; i < count; ++i) {
    timeline.SetValue(i % 101);
    timeline.PaintTo(bitmap.DC());
  }
  GdiFlush();
  const double tControl = Seconds() - t0;

  HBRUSH face = CreateSolidBrush(GetSysColor(COLOR_BTNFACE));
  HBRUSH marker = CreateSolidBrush(RGB(0xE0, 0xE0, 0xE0));
  HPEN pen = CreatePen(PS_SOLID, 1, RGB(0x80, 0x80, 0x80));
  HGDIOBJ oldBrush = SelectObject(bitmap.DC(), marker);
  HGDIOBJ oldPen = SelectObject(bitmap.DC(), pen);
  const RECT all{0, 0, 400, 20};
  t0 = Seconds();
  for (int i = 0; i < count; ++i) {
    FillRect(bitmap.DC(), &all, face);
    const int x = (i % 101) * 387 / 100;
    Rectangle(bitmap.DC(), x, 0, x + 13, 13);
  }
  GdiFlush();
  const double tBare = Seconds() - t0;
  SelectObject(bitmap.DC(), oldBrush);
  SelectObject(bitmap.DC(), oldPen);
  DeleteObject(face);
  DeleteObject(marker);
  DeleteObject(pen);

  std::printf("%d paints of TTimeLineControlEx 400x20: %.3f s, %.2f us per paint\n", count, tControl,
              tControl * 1e6 / count);
  std::printf("%d bare FillRect + Rectangle:          %.3f s, %.2f us per pair\n", count, tBare, tBare * 1e6 / count);
  std::printf("control / bare: %.2f (the control draws 5 rectangles, 2 triangles and a fill)\n",
              tBare > 0 ? tControl / tBare : 0.0);
  return 0;
}
