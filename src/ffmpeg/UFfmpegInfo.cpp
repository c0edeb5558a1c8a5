// TVideoFileInfo: what "ffmpeg -i <file>" prints, read with regular expressions.
#include <charconv>
#include <exception>
#include <limits>
#include <regex>

#include "channels/klChildProcess.h"
#include "diagnostics/UTextEx.h"
#include "diagnostics/klFiles.h"
#include "diagnostics/klLog.h"
#include "ffmpeg/UFfmpeg.h"
#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

namespace kl::UFfmpeg {

namespace {

// ffmpeg's lines are a few hundred characters at most. The patterns are searched one
// line at a time (none of them can match across a line break, so the first match in
// the text is the first match in the first line that has one) and in the first
// kMaxLine characters of a line only: the backtracking engine's work and stack depth
// grow with the length of what a repeat consumes, and a megabyte-long line of garbage
// must not exhaust either.
constexpr size_t kMaxLine = 1024;

// Compiled once, on first use; ECMAScript grammar: leftmost-first, greedy.
struct TPatterns {
  const std::regex Duration{R"(Duration: ([0-9:\.]+),)"};
  const std::regex Video{R"(Stream #\d:\d[\w\)\(]*: Video: ([^\r\n]+))"};
  const std::regex Size{R"((\d{2,5})x(\d{2,5}))"};
  const std::regex Fps{R"(([\d\.]+) fps)"};
  const std::regex Tbr{R"(([\d\.]+) tbr)"};
  const std::regex Tbc{R"(([\d\.]+) tbc)"};
  const std::regex Time{R"((\d{2}):(\d{2}):(\d{2})(\.\d+)?)"};
  const std::regex Kbs{R"((\d+) kb\/s)"};
  const std::regex Audio{R"(Stream #[^\r\n]+Audio: ([^\r\n]+))"};
  const std::regex Word{R"(\w+)"};
  const std::regex Hz{R"((\d+) Hz)"};
};

const TPatterns& Patterns() {
  static const TPatterns patterns;
  return patterns;
}

// The lines of Text, each cut to kMaxLine characters.
std::vector<std::string> Lines(const std::string& Text) {
  std::vector<std::string> lines;
  size_t from = 0;
  while (from <= Text.size()) {
    size_t to = Text.find_first_of("\r\n", from);
    if (to == std::string::npos) to = Text.size();
    if (to > from) lines.push_back(Text.substr(from, std::min(to - from, kMaxLine)));
    from = to + 1;
  }
  return lines;
}

// Group 1 of the first match in the first line that holds Literal and matches; false
// when there is none. Literal is a piece of text every match contains: lines without it
// are not searched at all.
bool FindInLines(const std::vector<std::string>& Lines, const char* Literal, const std::regex& Re, std::smatch& M) {
  for (const std::string& line : Lines) {
    if (line.find(Literal) != std::string::npos && std::regex_search(line, M, Re)) return true;
  }
  return false;
}

// Group N of the first match in S; empty without a match or when the group took no part.
std::string Group(const std::string& S, const std::regex& Re, size_t N) {
  std::smatch m;
  return std::regex_search(S, m, Re) && m.size() > N && m[N].matched ? m[N].str() : std::string();
}

// The framework's StrToIntDef: optional blanks before, an optional sign, decimal digits.
int32_t StrToIntDef(const std::string& S, int32_t Default) {
  size_t from = S.find_first_not_of(' ');
  if (from == std::string::npos) return Default;
  if (S[from] == '+') ++from;
  int32_t v = 0;
  const char* end = S.data() + S.size();
  const auto r = std::from_chars(S.data() + from, end, v);
  return r.ec == std::errc() && r.ptr == end ? v : Default;
}

std::string TrimBlanks(const std::string& S) {
  size_t from = 0, to = S.size();
  while (from < to && static_cast<unsigned char>(S[from]) <= ' ') ++from;
  while (to > from && static_cast<unsigned char>(S[to - 1]) <= ' ') --to;
  return S.substr(from, to - from);
}

bool ContainsText(const std::string& Where, const std::string& What) {
  return UTextEx::AnsiLowerCase(Where).find(What) != std::string::npos;
}

}  // namespace

int32_t TimeAsMilliseconds(const std::string& S) {
  if (S.empty()) return 0;
  TStringList parts;
  UTextEx::SplitText(S, ":", &parts);
  const int n = parts.Count();
  if (n == 0) return 0;
  std::string secondsText = parts[n - 1];
  for (char& c : secondsText) {
    if (c == '.') c = FormatSettings().DecimalSeparator;
  }
  const double seconds = DecimalStrToFloat(secondsText, 0.0);
  const int32_t minutes = n >= 2 ? StrToIntDef(parts[n - 2], 0) : 0;
  const int32_t hours = n >= 3 ? StrToIntDef(parts[n - 3], 0) : 0;
  const double ms = (hours * 3600.0 + minutes * 60.0 + seconds) * 1000.0;
  if (!(ms < 2147483647.5 && ms > -2147483648.5)) return 0;
  return static_cast<int32_t>(Round(ms));
}

TVideoFileInfo::TVideoFileInfo(const std::string& AFileName) {
  Init();
  SetFileName(AFileName);
}

ComPtr<IVideoFileInfo2> TVideoFileInfo::Create(const std::string& AFileName) {
  return ComPtr<IVideoFileInfo2>(new TVideoFileInfo(AFileName));
}

void STDMETHODCALLTYPE TVideoFileInfo::Init() {
  Width = 0;
  Frames = 0;
  Height = 0;
  FPS = 0;
  Duration.clear();
  VideoCodec.clear();
  FileName.clear();
  VideoBitrate = 0;
  Audio.clear();
  VideoPresent = false;
}

void STDMETHODCALLTYPE TVideoFileInfo::SetFileName(const std::string& AFileName) {
  Init();
  if (!klFiles::IsWebFile(AFileName) && !FileExists(AFileName)) {
    klLog::AddToEventLog(Format("TVideoFileInfo.SetFileName: file \"%s\" not found", AFileName.c_str()),
                         klLog::lkError);
    return;
  }
  FileName = AFileName;
  std::string text;
  try {
    const std::string cmd = Format("\"%s\" -i \"%s\"", FFmpegExePath().c_str(), AFileName.c_str());
    ComPtr<klChildProcess::IChildProcess3> child = klChildProcess::TChildProcess::Create(cmd);
    if (!child) {
      klLog::AddToEventLog("TVideoFileInfo.SetFileName: TChildProccess.Create failed", klLog::lkError);
      return;
    }
    // ffmpeg prints what it found and exits by itself (no output file is given); the
    // read ends when it closes the pipe, or after 5 s of silence.
    text = child->ReadFromChildStderr(5000);
  } catch (...) {
    klLog::AddToEventLog("TVideoFileInfo.SetFileName: " + ExceptionText(std::current_exception()), klLog::lkError);
    return;
  }
  if (text.empty()) {
    klLog::AddToEventLog("TVideoFileInfo.SetFileName: Не удалось прочитать информацию о файле", klLog::lkError);
    return;
  }
  ParseText(text);
}

void TVideoFileInfo::ParseText(const std::string& Text) {
  const std::string name = FileName;
  Init();
  FileName = name;
  try {
    Parse(Text);
  } catch (...) {
    // The regular-expression engine may give up on a pathological text.
    klLog::AddToEventLog("TVideoFileInfo.ParseText: " + ExceptionText(std::current_exception()), klLog::lkError);
  }
}

void TVideoFileInfo::Parse(const std::string& Text) {
  const TPatterns& re = Patterns();
  const std::vector<std::string> lines = Lines(Text);
  std::smatch m;

  if (FindInLines(lines, "Duration: ", re.Duration, m)) Duration = m[1].str();

  if (FindInLines(lines, ": Video: ", re.Video, m)) {
    VideoPresent = true;
    const std::string video = m[1].str();
    // The first four characters only: "mpeg4" reads as "mpeg". Callers compare with that.
    VideoCodec = TrimBlanks(video.substr(0, 4));
    std::smatch size;
    if (std::regex_search(video, size, re.Size)) {
      Width = StrToIntDef(size[1].str(), 0);
      Height = StrToIntDef(size[2].str(), 0);
    }
    for (const std::regex* rate : {&re.Fps, &re.Tbr, &re.Tbc}) {
      std::smatch r;
      if (std::regex_search(video, r, *rate)) {
        const double fps = LenientStrToFloat(r[1].str());
        FPS = fps <= std::numeric_limits<float>::max() ? static_cast<float>(fps) : std::numeric_limits<float>::infinity();
        break;
      }
    }
    // A still picture, or a stream without a rate, is not counted as video.
    if (FPS == 0) VideoPresent = false;
    std::smatch t;
    if (std::regex_search(Duration, t, re.Time)) {
      float seconds = static_cast<float>(StrToIntDef(t[1].str(), 0) * 3600 + StrToIntDef(t[2].str(), 0) * 60 +
                                         StrToIntDef(t[3].str(), 0));
      if (t[4].matched && t[4].length() > 0) seconds += static_cast<float>(LenientStrToFloat(t[4].str()));
      const double frames = static_cast<double>(FPS) * static_cast<double>(seconds);
      Frames = frames < 2147483647.5 ? static_cast<int32_t>(Round(frames)) : 0;
    }
    VideoBitrate = StrToIntDef(Group(video, re.Kbs, 1), 0);
  }

  for (const std::string& line : lines) {
    if (line.find("Audio: ") == std::string::npos) continue;
    for (std::sregex_iterator it(line.begin(), line.end(), re.Audio), end; it != end; ++it) {
      const std::string audio = (*it)[1].str();
      TAudioInfo track;
      track.Codec = Group(audio, re.Word, 0);
      track.SamplesPerSec = StrToIntDef(Group(audio, re.Hz, 1), 0);
      track.Bitrate = StrToIntDef(Group(audio, re.Kbs, 1), 0);
      if (ContainsText(audio, " mono,")) {
        track.Channels = 1;
      } else if (ContainsText(audio, " stereo,")) {
        track.Channels = 2;
      } else if (ContainsText(audio, " 5.1")) {
        track.Channels = 5;  // the layout's name, not its six channels
      }
      Audio.push_back(track);
    }
  }
}

TAudioInfo STDMETHODCALLTYPE TVideoFileInfo::GetAudio(int32_t /*Index*/) { return TAudioInfo(); }

std::string STDMETHODCALLTYPE TVideoFileInfo::ToString(bool Multiline) {
  TStringList list;
  list.Add(Format("File name: %s", FileName.c_str()));
  list.Add(Format("Duration: %s", Duration.c_str()));
  if (VideoPresent) {
    list.Add("Video");
    list.Add(Format("  Width: %d", Width));
    list.Add(Format("  Height: %d", Height));
    list.Add(Format("  FPS: %s", FormatFloatDecimals(FPS, 3).c_str()));
    list.Add(Format("  Frames: %d", Frames));
    list.Add(Format("  Video codec: %s", VideoCodec.c_str()));
    list.Add(Format("  Video bitrate: %d kb/s", VideoBitrate));
  }
  list.Add(Format("Audio tracks: %d", static_cast<int>(Audio.size())));
  for (size_t i = 0; i < Audio.size(); ++i) {
    list.Add(Format("Audio %d", static_cast<int>(i + 1)));
    list.Add(Format("  Codec: %s", Audio[i].Codec.c_str()));
    list.Add(Format("  Bitrate: %d kb/s", Audio[i].Bitrate));
    list.Add(Format("  Samples per second: %d Hz", Audio[i].SamplesPerSec));
    list.Add(Format("  Channels: %d", Audio[i].Channels));
  }
  const std::string text = list.GetText();
  return Multiline ? text : UTextEx::StringReplaceEx(text, "\r\n", ", ", UTextEx::ReplaceAll);
}

}  // namespace kl::UFfmpeg
