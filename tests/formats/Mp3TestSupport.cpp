#include "Mp3TestSupport.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "KlTest.h"

namespace mp3test {

namespace {

struct TRecipe {
  const char* Name;
  int32_t Rate;
  int32_t Channels;
  int32_t CbrKbits;  // 0: VBR
  int32_t VbrQuality;
  bool Id3;
};

constexpr TRecipe kRecipes[] = {
    {"m1_cbr_stereo", 44100, 2, 128, 0, false},    {"m1_vbr_stereo_id3", 44100, 2, 0, 2, true},
    {"m2_cbr_mono_id3", 22050, 1, 64, 0, true},    {"m2_vbr_stereo", 22050, 2, 0, 5, false},
    {"m25_cbr_mono", 11025, 1, 32, 0, false},      {"m25_vbr_stereo_id3", 11025, 2, 0, 4, true},
};

// Half a second of tone, half a second of noise, three times: the noise makes a VBR
// encoder change its bit rate.
const char* kSource =
    "-f lavfi -i \"aevalsrc=0.5*sin(2*PI*440*t)*lt(mod(t\\,1)\\,0.5)+0.3*random(0)*gte(mod(t\\,1)\\,0.5)"
    ":s=44100:d=3\"";

}  // namespace

const std::string& WorkDir() {
  static kltest::TTempDir dir;
  return dir.Path();
}

const std::vector<std::string>& SampleNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> r;
    for (const auto& x : kRecipes) r.push_back(x.Name);
    return r;
  }();
  return names;
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

std::vector<TPacket> FfmpegPackets(const std::string& Path, std::string* Log) {
  const auto r = kltest::Ffmpeg("-i " + kltest::Quote(Path) + " -c:a copy -f framecrc -");
  if (Log != nullptr) *Log = r.Err;
  std::vector<TPacket> packets;
  std::istringstream in(r.Out);
  std::string line;
  static const std::regex re(R"(^\s*0,\s*-?\d+,\s*-?\d+,\s*\d+,\s*(\d+),\s*0x([0-9a-fA-F]+))");
  while (std::getline(in, line)) {
    std::smatch m;
    if (std::regex_search(line, m, re)) {
      packets.push_back({std::stoi(m[1].str()), static_cast<uint32_t>(std::stoul(m[2].str(), nullptr, 16))});
    }
  }
  return packets;
}

const TSample& Sample(const std::string& Name) {
  static std::map<std::string, std::unique_ptr<TSample>> cache;
  static std::mutex lock;
  std::lock_guard<std::mutex> guard(lock);
  auto& slot = cache[Name];
  if (slot) return *slot;
  const TRecipe* recipe = nullptr;
  for (const auto& x : kRecipes) {
    if (Name == x.Name) recipe = &x;
  }
  if (recipe == nullptr) throw std::runtime_error("no such sample: " + Name);

  auto s = std::make_unique<TSample>();
  s->Name = Name;
  s->Path = WorkDir() + Name + ".mp3";
  s->Rate = recipe->Rate;
  s->Channels = recipe->Channels;
  s->Vbr = recipe->CbrKbits == 0;
  s->CbrKbits = recipe->CbrKbits;
  s->Id3 = recipe->Id3;
  // VBR files keep the encoder's Xing frame (ffmpeg needs it for their duration).
  s->Xing = s->Vbr;
  std::string args = std::string(kSource) + " -ar " + std::to_string(recipe->Rate) + " -ac " +
                     std::to_string(recipe->Channels) + " -c:a libmp3lame ";
  args += s->Vbr ? "-q:a " + std::to_string(recipe->VbrQuality) : "-b:a " + std::to_string(recipe->CbrKbits) + "k";
  args += s->Id3 ? " -id3v2_version 3 -metadata title=Sample -metadata artist=klComponents" : " -id3v2_version 0";
  args += s->Xing ? " -write_xing 1 " : " -write_xing 0 ";
  const auto r = kltest::Ffmpeg(args + kltest::Quote(s->Path));
  if (r.ExitCode != 0) throw std::runtime_error("ffmpeg failed: " + r.Err);
  s->Bytes = kltest::ReadFileBytes(s->Path);

  std::string log;
  s->Packets = FfmpegPackets(s->Path, &log);
  std::smatch m;
  static const std::regex duration(R"(Duration: (\d+):(\d+):(\d+\.\d+))");
  if (std::regex_search(log, m, duration)) {
    s->Duration = std::stoi(m[1].str()) * 3600.0 + std::stoi(m[2].str()) * 60.0 + std::stod(m[3].str());
  }
  static const std::regex audio(R"(Audio: mp3, (\d+) Hz, (mono|stereo))");
  if (!std::regex_search(log, m, audio) || std::stoi(m[1].str()) != recipe->Rate ||
      (m[2].str() == "stereo" ? 2 : 1) != recipe->Channels || s->Packets.empty()) {
    throw std::runtime_error("ffmpeg does not see the file as made: " + log);
  }
  slot = std::move(s);
  return *slot;
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
}  // namespace

TFaultReporter::TFaultReporter() : FPrevious(reinterpret_cast<void*>(SetUnhandledExceptionFilter(&ReportFault))) {}

TFaultReporter::~TFaultReporter() {
  SetUnhandledExceptionFilter(reinterpret_cast<LPTOP_LEVEL_EXCEPTION_FILTER>(FPrevious));
}

}  // namespace mp3test
