// StringReplaceEx on a 10 MB text with 10^5 replacements against a naive loop that
// replaces occurrence by occurrence in place (each replacement moves the whole tail).
// Usage: bench_StringReplaceEx [megabytes] [replacements]
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "diagnostics/UTextEx.h"

namespace {

double Now() {
  LARGE_INTEGER f, c;
  QueryPerformanceFrequency(&f);
  QueryPerformanceCounter(&c);
  return static_cast<double>(c.QuadPart) / static_cast<double>(f.QuadPart);
}

std::string Naive(std::string S, const std::string& Old, const std::string& New) {
  size_t p = S.find(Old);
  while (p != std::string::npos) {
    S.replace(p, Old.size(), New);
    p = S.find(Old, p + New.size());
  }
  return S;
}

}  // namespace

int main(int argc, char** argv) {
  const size_t megabytes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10;
  const size_t count = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 100000;
  const std::string oldPattern = "needle", newPattern = "a longer pin";
  const size_t size = megabytes * 1024 * 1024;
  if (count == 0 || size / count <= oldPattern.size()) {
    std::printf("too many replacements for the size\n");
    return 1;
  }
  // Lower-case filler without the pattern's letters in a row, with the pattern spread evenly.
  std::mt19937 gen(1);
  std::string text(size, ' ');
  for (auto& c : text) c = "xyz qw"[gen() % 6];
  const size_t step = size / count;
  for (size_t i = 0; i < count; ++i) text.replace(i * step, oldPattern.size(), oldPattern);

  double t0 = Now();
  const std::string fast = kl::UTextEx::StringReplaceEx(text, oldPattern, newPattern, kl::UTextEx::ReplaceAll);
  const double tFast = Now() - t0;
  t0 = Now();
  const std::string fastCi = kl::UTextEx::StringReplaceEx(text, oldPattern, newPattern,
                                                         kl::UTextEx::ReplaceAll | kl::UTextEx::IgnoreCase);
  const double tFastCi = Now() - t0;
  t0 = Now();
  const std::string naive = Naive(text, oldPattern, newPattern);
  const double tNaive = Now() - t0;

  if (fast != naive || fastCi != naive) {
    std::printf("results differ\n");
    return 1;
  }
  std::printf("text %zu MB, %zu replacements\n", megabytes, count);
  std::printf("naive in-place loop      %9.3f s\n", tNaive);
  std::printf("StringReplaceEx          %9.3f s  ratio %.1fx\n", tFast, tNaive / tFast);
  std::printf("StringReplaceEx, no case %9.3f s  ratio %.1fx\n", tFastCi, tNaive / tFastCi);
  return 0;
}
