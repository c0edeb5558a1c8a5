#include "Mp3TestSupport.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <stdexcept>

#include "KlTest.h"

namespace mp3test {

const std::string& WorkDir() {
  static kltest::TTempDir dir;
  return dir.Path();
}

uint32_t Adler32(const void* Data, size_t Size) {
  const auto* p = static_cast<const uint8_t*>(Data);
  uint32_t a = 0, b = 0;
  for (size_t i = 0; i < Size; ++i) {
    a = (a + p[i]) % 65521;
    b = (b + a) % 65521;
  }
  return b << 16 | a;
}

const TSample& Sample(const std::string& Name) {
  struct TRecipe {
    const char* Name;
    int32_t Rate, Channels, CbrKbits;
    bool Id3;
  };
  static const TRecipe recipes[] = {
      {"m1_cbr_stereo", 44100, 2, 128, false}, {"m2_cbr_mono_id3", 22050, 1, 64, true},
      {"m25_vbr_stereo", 11025, 2, 0, false}};
  static std::map<std::string, TSample> cache;
  if (const auto it = cache.find(Name); it != cache.end()) return it->second;
  for (const auto& x : recipes) {
    if (Name != x.Name) continue;
    TSample s{WorkDir() + Name + ".mp3", "", x.Rate, x.Channels, x.CbrKbits, x.Id3, {}};
    // Half a second of tone, half a second of noise, three times: the noise makes the
    // VBR encoder change its bit rate. Only VBR files keep the Xing frame.
    const std::string args =
        "-f lavfi -i \"aevalsrc=0.5*sin(2*PI*440*t)*lt(mod(t\\,1)\\,0.5)+0.3*random(0)*gte(mod(t\\,1)\\,0.5)"
        ":s=44100:d=3\" -ar " + std::to_string(s.Rate) + " -ac " + std::to_string(s.Channels) +
        " -c:a libmp3lame " + (s.CbrKbits ? "-b:a " + std::to_string(s.CbrKbits) + "k -write_xing 0" : "-q:a 4") +
        (s.Id3 ? " -id3v2_version 3 -metadata title=Sample " : " -id3v2_version 0 ") + kltest::Quote(s.Path);
    const auto r = kltest::Ffmpeg(args);
    s.Bytes = kltest::ReadFileBytes(s.Path);
    s.Packets = FfmpegPackets(s.Path);
    if (r.ExitCode != 0 || s.Packets.empty()) throw std::runtime_error("ffmpeg failed: " + r.Err);
    return cache.emplace(Name, std::move(s)).first->second;
  }
  throw std::runtime_error("no such sample: " + Name);
}

TGuardedBuffer::TGuardedBuffer(const void* Data, size_t Size, bool AtEnd) : FSize(Size) {
  SYSTEM_INFO si;
  GetSystemInfo(&si);
  const size_t page = si.dwPageSize;
  const size_t body = (Size + page - 1) / page * page + page;
  // [guard][body][guard]: only the body is accessible.
  FBase = VirtualAlloc(nullptr, body + 2 * page, MEM_RESERVE, PAGE_NOACCESS);
  if (FBase == nullptr) throw std::bad_alloc();
  uint8_t* start = static_cast<uint8_t*>(FBase) + page;
  if (VirtualAlloc(start, body, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
    VirtualFree(FBase, 0, MEM_RELEASE);
    throw std::bad_alloc();
  }
  FData = AtEnd ? start + body - Size : start;
  if (Size > 0) std::memcpy(FData, Data, Size);
}

TGuardedBuffer::~TGuardedBuffer() { VirtualFree(FBase, 0, MEM_RELEASE); }

namespace {

LONG WINAPI ReportFault(EXCEPTION_POINTERS* Info) {
  const EXCEPTION_RECORD* r = Info->ExceptionRecord;
  std::fprintf(stderr, "unhandled fault 0x%08lx at %p (address %p)\n", static_cast<unsigned long>(r->ExceptionCode),
               r->ExceptionAddress,
               r->NumberParameters >= 2 ? reinterpret_cast<void*>(r->ExceptionInformation[1]) : nullptr);
  std::fflush(stdout);
  std::fflush(stderr);
  TerminateProcess(GetCurrentProcess(), r->ExceptionCode);
  return EXCEPTION_EXECUTE_HANDLER;
}

// For the whole executable, child roles included.
const LPTOP_LEVEL_EXCEPTION_FILTER kPreviousFilter = SetUnhandledExceptionFilter(&ReportFault);

}  // namespace

}  // namespace mp3test
