#include "diagnostics/UTextEx.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <memory>
#include <vector>

#include "diagnostics/klLog.h"

namespace kl::UTextEx {

namespace {

constexpr size_t npos = std::string::npos;

// Lower-cases in chunks: CharLowerBuffA takes a DWORD length.
void LowerInPlace(std::string& S) {
  size_t done = 0;
  while (done < S.size()) {
    const DWORD n = static_cast<DWORD>(std::min<size_t>(S.size() - done, 0x40000000));
    CharLowerBuffA(S.data() + done, n);
    done += n;
  }
}

void UpperInPlace(std::string& S) {
  size_t done = 0;
  while (done < S.size()) {
    const DWORD n = static_cast<DWORD>(std::min<size_t>(S.size() - done, 0x40000000));
    CharUpperBuffA(S.data() + done, n);
    done += n;
  }
}

int32_t ToPos(size_t Index) { return static_cast<int32_t>(Index + 1); }

// Case-insensitive find of What in Where from a 0-based index, on lowered copies made
// by the caller.
struct TLowered {
  std::string Where;
  std::string What;
  TLowered(const std::string& AWhere, const std::string& AWhat) : Where(AnsiLowerCase(AWhere)), What(AnsiLowerCase(AWhat)) {}
  size_t Find(size_t From) const { return What.empty() ? npos : Where.find(What, From); }
};

bool IsTrimmed(char C) { return static_cast<unsigned char>(C) <= ' '; }

std::string Trim(const std::string& S) {
  size_t b = 0, e = S.size();
  while (b < e && IsTrimmed(S[b])) ++b;
  while (e > b && IsTrimmed(S[e - 1])) --e;
  return S.substr(b, e - b);
}

std::wstring AnsiToWide(const std::string& S, UINT CodePage) {
  if (S.empty() || S.size() > 0x7FFFFFFF) return std::wstring();
  const int n = MultiByteToWideChar(CodePage, 0, S.data(), static_cast<int>(S.size()), nullptr, 0);
  if (n <= 0) return std::wstring();
  std::wstring w(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CodePage, 0, S.data(), static_cast<int>(S.size()), w.data(), n);
  return w;
}

std::string WideToAnsi(const wchar_t* W, size_t Len, UINT CodePage) {
  if (Len == 0 || Len > 0x7FFFFFFF) return std::string();
  const int n = WideCharToMultiByte(CodePage, 0, W, static_cast<int>(Len), nullptr, 0, nullptr, nullptr);
  if (n <= 0) return std::string();
  std::string s(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CodePage, 0, W, static_cast<int>(Len), s.data(), n, nullptr, nullptr);
  return s;
}

std::string WideToAnsi(const std::wstring& W, UINT CodePage) { return WideToAnsi(W.data(), W.size(), CodePage); }

// Writes Bytes to a file (created or appended); logs and returns false on failure.
bool WriteBytes(const std::string& FileName, const void* Data, size_t Size, bool Append, const char* Who) {
  try {
    std::unique_ptr<TFileStream> f;
    if (Append && FileExists(FileName)) {
      f = std::make_unique<TFileStream>(FileName, fmOpenWrite | fmShareDenyWrite);
      f->Seek(0, TSeekOrigin::soEnd);
    } else {
      f = std::make_unique<TFileStream>(FileName, fmCreate);
    }
    const char* p = static_cast<const char*>(Data);
    while (Size > 0) {
      const int32_t n = static_cast<int32_t>(std::min<size_t>(Size, 0x40000000));
      f->WriteBuffer(p, n);
      p += n;
      Size -= static_cast<size_t>(n);
    }
    return true;
  } catch (const Exception& e) {
    klLog::AddToEventLog(Format("%s: %s", Who, e.Message().c_str()), klLog::lkError);
    return false;
  }
}

std::string ReadAll(const std::string& FileName, const char* Who) {
  try {
    TFileStream f(FileName, fmOpenRead | fmShareDenyWrite);
    return StringFromStream(f);
  } catch (const Exception& e) {
    klLog::AddToEventLog(Format("%s: %s", Who, e.Message().c_str()), klLog::lkError);
    return std::string();
  }
}

bool WriteToStream(TStream& Stream, const void* Data, size_t Size, const char* Who) {
  try {
    const char* p = static_cast<const char*>(Data);
    while (Size > 0) {
      const int32_t n = static_cast<int32_t>(std::min<size_t>(Size, 0x40000000));
      Stream.WriteBuffer(p, n);
      p += n;
      Size -= static_cast<size_t>(n);
    }
    return true;
  } catch (const Exception& e) {
    klLog::AddToEventLog(Format("%s: %s", Who, e.Message().c_str()), klLog::lkError);
    return false;
  }
}

std::string Utf8ToAnsi(std::string Bytes) {
  if (Bytes.size() >= 3 && Bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) Bytes.erase(0, 3);
  return WideToAnsi(AnsiToWide(Bytes, CP_UTF8), CP_ACP);
}

std::wstring BytesToWide(const std::string& Bytes) {
  size_t start = 0;
  if (Bytes.size() >= 2 && static_cast<unsigned char>(Bytes[0]) == 0xFF && static_cast<unsigned char>(Bytes[1]) == 0xFE) {
    start = 2;
  }
  std::wstring w((Bytes.size() - start) / 2, L'\0');
  for (size_t i = 0; i < w.size(); ++i) {
    w[i] = static_cast<wchar_t>(static_cast<unsigned char>(Bytes[start + 2 * i]) |
                                (static_cast<unsigned char>(Bytes[start + 2 * i + 1]) << 8));
  }
  return w;
}

std::string WideToBytes(const std::wstring& W) {
  std::string b(W.size() * 2, '\0');
  for (size_t i = 0; i < W.size(); ++i) {
    const auto c = static_cast<uint16_t>(W[i]);
    b[2 * i] = static_cast<char>(c & 0xFF);
    b[2 * i + 1] = static_cast<char>(c >> 8);
  }
  return b;
}

// The phonetic table: Latin consonants that carry the sound, "w" folded into "v";
// everything else is a blank, removed later.
std::array<char, 256> BuildSoundExTable() {
  std::array<char, 256> t{};
  t.fill(' ');
  for (const char c : std::string("bdflmnprstvz")) t[static_cast<unsigned char>(c)] = c;
  t[static_cast<unsigned char>('w')] = 'v';
  return t;
}
const std::array<char, 256> g_SoundExTable = BuildSoundExTable();

// Windows-1251: 0xC0..0xDF are the capitals А..Я in alphabet order, 0xE0..0xFF the
// small letters; Ё is 0xA8, ё 0xB8.
const char* const kTranslitUpper[32] = {"A", "B", "V",  "G",  "D",  "E",   "ZH", "Z", "I",  "I",  "K",
                                        "L", "M", "N",  "O",  "P",  "R",   "S",  "T", "U",  "F",  "H",
                                        "TS", "CH", "SH", "SCH", "'", "Y", "",   "E", "YU", "YA"};
const char* const kTranslitLower[32] = {"a", "b", "v",  "g",  "d",  "e",   "zh", "z", "i",  "i",  "k",
                                        "l", "m", "n",  "o",  "p",  "r",   "s",  "t", "u",  "f",  "h",
                                        "ts", "ch", "sh", "sch", "'", "y", "",   "e", "yu", "ya"};

const char* TranslitOf(unsigned char C) {
  if (C >= 0xC0 && C <= 0xDF) return kTranslitUpper[C - 0xC0];
  if (C >= 0xE0) return kTranslitLower[C - 0xE0];
  if (C == 0xA8) return "E";
  if (C == 0xB8) return "e";
  return nullptr;
}

// The framework's text-to-float: optional sign, digits with at most one decimal
// separator, optional exponent; nothing else.
bool ParseFloat(const std::string& S, char Separator, double& Value) {
  std::string t;
  t.reserve(S.size());
  size_t i = 0;
  if (i < S.size() && (S[i] == '+' || S[i] == '-')) {
    if (S[i] == '-') t += '-';
    ++i;
  }
  bool digits = false, point = false;
  for (; i < S.size(); ++i) {
    const char c = S[i];
    if (c >= '0' && c <= '9') {
      digits = true;
      t += c;
    } else if (c == Separator && !point) {
      point = true;
      t += '.';
    } else {
      break;
    }
  }
  if (!digits) return false;
  if (i < S.size() && (S[i] == 'e' || S[i] == 'E')) {
    t += 'e';
    ++i;
    if (i < S.size() && (S[i] == '+' || S[i] == '-')) t += S[i++];
    bool expDigits = false;
    for (; i < S.size() && S[i] >= '0' && S[i] <= '9'; ++i) {
      expDigits = true;
      t += S[i];
    }
    if (!expDigits) return false;
  }
  if (i != S.size()) return false;
  double v = 0;
  const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
  if (r.ec != std::errc() || r.ptr != t.data() + t.size()) return false;
  Value = v;
  return true;
}

// Finds a pattern in a text, through lower-cased copies of both when case is ignored;
// the positions are those of the original text either way, as the replacing code
// copies from it.
class TPatternFinder {
 public:
  TPatternFinder(const std::string& S, const std::string& Pattern, TReplaceFlags Flags) {
    if ((Flags & IgnoreCase) != 0) {
      FLowS = S;
      LowerInPlace(FLowS);
      FLowPattern = Pattern;
      LowerInPlace(FLowPattern);
      FWhere = &FLowS;
      FWhat = &FLowPattern;
    } else {
      FWhere = &S;
      FWhat = &Pattern;
    }
  }
  TPatternFinder(const TPatternFinder&) = delete;
  TPatternFinder& operator=(const TPatternFinder&) = delete;
  size_t Find(size_t From) const { return FWhere->find(*FWhat, From); }

 private:
  std::string FLowS, FLowPattern;
  const std::string* FWhere;
  const std::string* FWhat;
};

std::string ReplaceAllExact(const std::string& S, const std::string& Old, const std::string& New) {
  return StringReplaceEx(S, Old, New, ReplaceAll);
}

}  // namespace

std::string AnsiLowerCase(const std::string& S) {
  std::string r = S;
  LowerInPlace(r);
  return r;
}

std::string AnsiUpperCase(const std::string& S) {
  std::string r = S;
  UpperInPlace(r);
  return r;
}

// --- replacing ------------------------------------------------------------------------

std::string StringReplaceEx(const std::string& S, const std::string& OldPattern, const std::string& NewPattern,
                            TReplaceFlags Flags, const TStringReplaceExEvent& OnReplace) {
  if (S.empty() || OldPattern.empty() || OldPattern == NewPattern) return S;
  const bool all = (Flags & ReplaceAll) != 0;
  const TPatternFinder finder(S, OldPattern, Flags);
  const size_t oldLen = OldPattern.size();
  const size_t newLen = NewPattern.size();

  if (oldLen == newLen) {
    std::string result = S;
    size_t p = finder.Find(0);
    while (p != npos) {
      std::memcpy(result.data() + p, NewPattern.data(), newLen);
      if (OnReplace) OnReplace(OldPattern, NewPattern, ToPos(p));
      if (!all) break;
      p = finder.Find(p + oldLen);
    }
    return result;
  }

  size_t count = 0;
  for (size_t p = finder.Find(0); p != npos; p = finder.Find(p + oldLen)) {
    ++count;
    if (!all) break;
  }
  if (count == 0) return S;
  std::string result;
  result.resize(S.size() - count * oldLen + count * newLen);
  char* out = result.data();
  size_t from = 0;
  size_t p = finder.Find(0);
  for (size_t k = 0; k < count; ++k) {
    std::memcpy(out, S.data() + from, p - from);
    out += p - from;
    std::memcpy(out, NewPattern.data(), newLen);
    out += newLen;
    if (OnReplace) OnReplace(OldPattern, NewPattern, ToPos(p));
    from = p + oldLen;
    if (k + 1 < count) p = finder.Find(from);
  }
  std::memcpy(out, S.data() + from, S.size() - from);
  return result;
}

std::string StringReplaceEx2(const std::string& S, const std::string& OldPattern, const std::string& NewPattern,
                             TReplaceFlags Flags, const TStringReplaceExSubstitute& OnSubstitute) {
  if (S.empty() || OldPattern.empty() || OldPattern == NewPattern) return S;
  const bool all = (Flags & ReplaceAll) != 0;
  const TPatternFinder finder(S, OldPattern, Flags);
  // The callback may change each replacement's length, so the result grows as it goes.
  std::string result;
  result.reserve(S.size());
  size_t from = 0;
  for (size_t p = finder.Find(0); p != npos; p = finder.Find(from)) {
    result.append(S, from, p - from);
    std::string repl = NewPattern;
    if (OnSubstitute) OnSubstitute(OldPattern, repl, ToPos(p));
    result += repl;
    from = p + OldPattern.size();
    if (!all) break;
  }
  result.append(S, from, npos);
  return result;
}

std::string ReplaceSymbols(const std::string& S, const std::string& Symbols, const std::string& Replacement) {
  std::string r = S;
  for (const char c : Symbols) r = StringReplaceEx(r, std::string(1, c), Replacement, ReplaceAll);
  return r;
}

std::string DeleteSymbolsFromText(const std::string& S, const std::string& Symbols) {
  std::string r;
  r.reserve(S.size());
  for (const char c : S) {
    if (Symbols.find(c) == npos) r += c;
  }
  return r;
}

std::string DeleteTextBetweenText(const std::string& S, const std::string& Left, const std::string& Right) {
  if (S.empty() || Left.empty() || Right.empty()) return S;
  const TLowered low(S, Left);
  const std::string lowRight = AnsiLowerCase(Right);
  std::string r;
  size_t from = 0;
  for (;;) {
    const size_t l = low.Find(from);
    if (l == npos) break;
    const size_t e = low.Where.find(lowRight, l + Left.size());
    if (e == npos) break;
    r.append(S, from, l - from);
    from = e + Right.size();
  }
  r.append(S, from, npos);
  return r;
}

std::string TwoBytesCharsToOneByteChars(const std::string& S) {
  std::wstring w(S.size() / 2, L'\0');
  for (size_t i = 0; i < w.size(); ++i) {
    w[i] = static_cast<wchar_t>(static_cast<unsigned char>(S[2 * i]) | (static_cast<unsigned char>(S[2 * i + 1]) << 8));
  }
  return WideToAnsi(w, CP_ACP);
}

std::string TwoBytesCharsToOneByteChars(const std::wstring& S) { return WideToAnsi(S, CP_ACP); }

// --- splitting, finding, cutting --------------------------------------------------------

void SplitText(const std::string& S, const std::string& Delimiter, TStringList* List) {
  if (List == nullptr) return;
  List->Clear();
  if (S.empty() || Delimiter.empty()) return;
  const TLowered low(S, Delimiter);
  size_t from = 0;
  for (;;) {
    const size_t p = low.Find(from);
    if (p == npos) break;
    List->Add(S.substr(from, p - from));
    from = p + Delimiter.size();
  }
  if (from < S.size()) List->Add(S.substr(from));
}

void SplitText(const std::string& S, const std::string& Open, const std::string& Close, TStringList* List) {
  if (List == nullptr) return;
  List->Clear();
  if (S.empty() || Open.empty() || Close.empty()) return;
  const TLowered low(S, Open);
  const std::string lowClose = AnsiLowerCase(Close);
  size_t from = 0;
  for (;;) {
    const size_t o = low.Find(from);
    if (o == npos) break;
    const size_t start = o + Open.size();
    const size_t c = low.Where.find(lowClose, start);
    if (c == npos) break;
    List->Add(S.substr(start, c - start));
    from = c + Close.size();
  }
}

void SplitText(const std::string& S, const std::string& Open, const std::string& Close, int32_t Index,
               TStringList* List) {
  if (List == nullptr) return;
  List->Clear();
  if (S.empty() || Open.empty() || Close.empty() || Index < 1) return;
  const TLowered low(S, Open);
  size_t o = npos;
  size_t from = 0;
  for (int32_t n = 0; n < Index; ++n) {
    o = low.Find(from);
    if (o == npos) return;
    from = o + Open.size();
  }
  const size_t c = low.Where.find(AnsiLowerCase(Close), from);
  if (c == npos) return;
  List->Add(S.substr(from, c - from));
}

bool FindBetweenCouples(const std::string& S, const std::string& Open, const std::string& Close, TStringList* List,
                        int32_t MaxCount) {
  if (S.empty() || Open.empty() || Close.empty() || List == nullptr) return false;
  const std::string low = AnsiLowerCase(S);
  const std::string lowOpen = AnsiLowerCase(Open);
  const std::string lowClose = AnsiLowerCase(Close);
  List->Clear();
  int depth = 0;
  size_t start = 0;
  for (size_t p = 0; p < low.size(); ++p) {
    if (low.compare(p, lowOpen.size(), lowOpen) == 0) {
      if (depth == 0) start = p + lowOpen.size();
      ++depth;
    } else if (depth >= 1 && low.compare(p, lowClose.size(), lowClose) == 0) {
      --depth;
      if (depth == 0) {
        // A close inside the open delimiter's own text would make p < start.
        List->Add(p >= start ? S.substr(start, p - start) : std::string());
        if (MaxCount > 0 && List->Count() >= MaxCount) break;
      }
    }
  }
  return List->Count() >= 1;
}

std::string FindBetweenCouple(const std::string& S, const std::string& Open, const std::string& Close) {
  TStringList list;
  if (!FindBetweenCouples(S, Open, Close, &list, 1)) return std::string();
  return list[0];
}

namespace {
// Finds Left from Pos and Right after it; 0-based bounds of the outer block.
bool CutBounds(const std::string& S, const std::string& Left, const std::string& Right, int32_t Pos,
               size_t& OuterStart, size_t& InnerStart, size_t& InnerEnd, size_t& OuterEnd) {
  if (S.empty()) return false;
  const size_t from = Pos < 1 ? 0 : static_cast<size_t>(Pos - 1);
  if (from >= S.size()) return false;
  const std::string low = AnsiLowerCase(S);
  const size_t l = Left.empty() ? from : low.find(AnsiLowerCase(Left), from);
  if (l == npos) return false;
  InnerStart = l + Left.size();
  if (Right.empty()) {
    InnerEnd = OuterEnd = S.size();
  } else {
    const size_t r = low.find(AnsiLowerCase(Right), InnerStart);
    if (r == npos) return false;
    InnerEnd = r;
    OuterEnd = r + Right.size();
  }
  OuterStart = l;
  return true;
}
}  // namespace

std::string CutInnerText(const std::string& S, const std::string& Left, const std::string& Right, int32_t& Pos) {
  size_t os, is, ie, oe;
  if (!CutBounds(S, Left, Right, Pos, os, is, ie, oe)) return std::string();
  Pos = ToPos(oe);
  return S.substr(is, ie - is);
}

std::string CutInnerText(const std::string& S, const std::string& Left, const std::string& Right) {
  int32_t pos = 1;
  return CutInnerText(S, Left, Right, pos);
}

std::string CutOuterText(const std::string& S, const std::string& Left, const std::string& Right, int32_t& Pos) {
  size_t os, is, ie, oe;
  if (!CutBounds(S, Left, Right, Pos, os, is, ie, oe)) return std::string();
  Pos = ToPos(oe);
  return S.substr(os, oe - os);
}

std::string CutOuterText(const std::string& S, const std::string& Left, const std::string& Right) {
  int32_t pos = 1;
  return CutOuterText(S, Left, Right, pos);
}

bool FindTextCaseSensitive(const std::string& Where, const std::string& What, int32_t& Pos) {
  if (What.empty()) return false;
  const size_t from = Pos < 1 ? 0 : static_cast<size_t>(Pos - 1);
  if (from >= Where.size()) return false;
  const size_t p = Where.find(What, from);
  if (p == npos) return false;
  Pos = ToPos(p);
  return true;
}

bool FindText(const std::string& Where, const std::string& What, int32_t& Pos) {
  return FindTextCaseSensitive(AnsiLowerCase(Where), AnsiLowerCase(What), Pos);
}

bool FindTextBackward(const std::string& Where, const std::string& What, int32_t& Pos) {
  if (What.empty() || Where.empty() || Pos < 1) return false;
  const size_t from = std::min(static_cast<size_t>(Pos - 1), Where.size() - 1);
  const size_t p = AnsiLowerCase(Where).rfind(AnsiLowerCase(What), from);
  if (p == npos) return false;
  Pos = ToPos(p);
  return true;
}

bool FindLineContainsText(const TStringList& Lines, const std::string& What, int32_t& LineIndex, int32_t& Pos) {
  if (What.empty()) return false;
  const std::string lowWhat = AnsiLowerCase(What);
  for (int32_t i = std::max<int32_t>(LineIndex, 0); i < Lines.Count(); ++i) {
    const size_t p = AnsiLowerCase(Lines[i]).find(lowWhat);
    if (p != npos) {
      LineIndex = i;
      Pos = ToPos(p);
      return true;
    }
  }
  return false;
}

bool FindLineContainsText(const std::string& Text, const std::string& What, int32_t& LineIndex, int32_t& Pos) {
  TStringList lines;
  lines.SetText(Text);
  return FindLineContainsText(lines, What, LineIndex, Pos);
}

int32_t GetCountOfSubtext(const std::string& S, const std::string& Sub) {
  if (S.empty() || Sub.empty()) return 0;
  const TLowered low(S, Sub);
  int32_t n = 0;
  for (size_t p = low.Find(0); p != npos; p = low.Find(p + Sub.size())) ++n;
  return n;
}

void DeleteDuplicates(TStringList& List, bool IgnoreCaseFlag) {
  std::vector<std::string> seen;
  std::vector<std::string> kept;
  for (const auto& item : List.Items()) {
    const std::string key = IgnoreCaseFlag ? AnsiLowerCase(item) : item;
    if (std::find(seen.begin(), seen.end(), key) != seen.end()) continue;
    seen.push_back(key);
    kept.push_back(item);
  }
  List.Items() = std::move(kept);
}

std::string DeleteDuplicates(const std::string& S, char Delimiter) {
  std::vector<std::string> items;
  size_t from = 0;
  for (;;) {
    const size_t p = S.find(Delimiter, from);
    const std::string item = S.substr(from, p == npos ? npos : p - from);
    if (std::find(items.begin(), items.end(), item) == items.end()) items.push_back(item);
    if (p == npos) break;
    from = p + 1;
  }
  std::string r;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) r += Delimiter;
    r += items[i];
  }
  return r;
}

// --- tags, escapes, transliteration ---------------------------------------------------------

std::string GetTextWithoutTags(const std::string& S) {
  TStringList list;
  if (!FindBetweenCouples(S, ">", "<", &list, 0)) return S;
  for (int i = list.Count() - 1; i >= 0; --i) {
    const std::string t = Trim(StringReplaceEx(list[i], "&nbsp;", "", ReplaceAll | IgnoreCase));
    if (t.empty()) {
      list.Delete(i);
    } else {
      list[i] = t;
    }
  }
  return StringReplaceEx(list.GetText(), "\r\n", " ", ReplaceAll);
}

std::string UnescapeText(const std::string& S) {
  std::string r = ReplaceAllExact(S, "\\\"", "\"");
  r = ReplaceAllExact(r, "\\'", "'");
  r = ReplaceAllExact(r, "\\\\", "\\");
  return ReplaceAllExact(r, "\\/", "/");
}

std::string PackEscapeSymbols(const std::string& S) {
  std::string r = ReplaceAllExact(S, "\\", "\\\\");
  r = ReplaceAllExact(r, "\r\n", "\\n");
  return ReplaceAllExact(r, "\t", "\\t");
}

std::string ExtractEscapeSymbols(const std::string& S) {
  // Every escape is two bytes and yields at most two, so the text shrinks in place.
  std::string r = S;
  size_t out = 0;
  for (size_t i = 0; i < r.size(); ++i) {
    const char c = r[i];
    if (c == '\\' && i + 1 < r.size()) {
      const char n = r[i + 1];
      if (n == '\\') {
        r[out++] = '\\';
        ++i;
        continue;
      }
      if (n == 'n') {
        r[out++] = '\r';
        r[out++] = '\n';
        ++i;
        continue;
      }
      if (n == 't') {
        r[out++] = '\t';
        ++i;
        continue;
      }
    }
    r[out++] = c;
  }
  r.resize(out);
  return r;
}

std::string Translit(const std::string& S) {
  size_t len = 0;
  for (const char c : S) {
    const char* t = TranslitOf(static_cast<unsigned char>(c));
    len += t != nullptr ? std::strlen(t) : 1;
  }
  std::string r(len, '\0');
  char* out = r.data();
  for (const char c : S) {
    const char* t = TranslitOf(static_cast<unsigned char>(c));
    if (t == nullptr) {
      *out++ = c;
    } else {
      while (*t != 0) *out++ = *t++;
    }
  }
  return r;
}

std::string MySoundEx(const std::string& S) {
  if (S.empty()) return std::string();
  std::string r;
  r.reserve(S.size());
  for (const char c : AnsiLowerCase(S)) {
    const char m = g_SoundExTable[static_cast<unsigned char>(c)];
    if (m != ' ') r += m;
  }
  // A run of one letter keeps its last member.
  for (size_t i = 0; i + 1 < r.size(); ++i) {
    if (r[i] == r[i + 1]) r[i] = ' ';
  }
  r.erase(std::remove(r.begin(), r.end(), ' '), r.end());
  return r;
}

// --- numbers ------------------------------------------------------------------------------

bool TryStrToFloatEx(const std::string& S, double& Value) {
  const char sep = FormatSettings().DecimalSeparator;
  std::string t = S;
  if (t.find(',') != npos && t.find('.') != npos) t.erase(t.find(','), 1);
  const char foreign = sep == '.' ? ',' : '.';
  const size_t f = t.find(foreign);
  if (f != npos) t[f] = sep;
  t.erase(std::remove_if(t.begin(), t.end(), [](char c) { return c == ' ' || static_cast<unsigned char>(c) == 0xA0; }),
          t.end());
  return ParseFloat(t, sep, Value);
}

double StrToFloatEx(const std::string& S) {
  double v = 0;
  if (!TryStrToFloatEx(S, v)) throw EConvertError(Format("'%s' is not a valid floating point value", S.c_str()));
  return v;
}

double StrToFloatDefEx(const std::string& S, double Default) {
  double v = 0;
  return TryStrToFloatEx(S, v) ? v : Default;
}

std::string CorrectDecimalSeparator(const std::string& S) {
  const char sep = FormatSettings().DecimalSeparator;
  std::string r = S;
  const size_t f = r.find(sep == ',' ? '.' : ',');
  if (f != npos) r[f] = sep;
  return r;
}

// --- files and streams --------------------------------------------------------------------

bool SaveStrToFile(const std::string& S, const std::string& FileName) {
  return WriteBytes(FileName, S.data(), S.size(), false, "SaveStrToFile");
}

bool AddStrToFile(const std::string& S, const std::string& FileName) {
  return WriteBytes(FileName, S.data(), S.size(), true, "AddStrToFile");
}

std::string LoadStrFromFile(const std::string& FileName) { return ReadAll(FileName, "LoadStrFromFile"); }

bool SaveUtf8StringToStream(const std::string& S, TStream& Stream) {
  const std::string u = WideToAnsi(AnsiToWide(S, CP_ACP), CP_UTF8);
  return WriteToStream(Stream, u.data(), u.size(), "SaveUtf8StringToStream");
}

std::string LoadUtf8StringFromStream(TStream& Stream) { return Utf8ToAnsi(StringFromStream(Stream)); }

bool SaveUtf8StringToFile(const std::string& S, const std::string& FileName) {
  const std::string u = WideToAnsi(AnsiToWide(S, CP_ACP), CP_UTF8);
  return WriteBytes(FileName, u.data(), u.size(), false, "SaveUtf8StringToFile");
}

std::string LoadUtf8StringFromFile(const std::string& FileName) {
  return Utf8ToAnsi(ReadAll(FileName, "LoadUtf8StringFromFile"));
}

bool SaveWideStringToFile(const std::wstring& W, const std::string& FileName) {
  const std::string b = WideToBytes(W);
  return WriteBytes(FileName, b.data(), b.size(), false, "SaveWideStringToFile");
}

std::wstring LoadWideStringFromFile(const std::string& FileName) {
  return BytesToWide(ReadAll(FileName, "LoadWideStringFromFile"));
}

bool SaveWideStringToStream(const std::wstring& W, TStream& Stream) {
  const std::string b = WideToBytes(W);
  return WriteToStream(Stream, b.data(), b.size(), "SaveWideStringToStream");
}

std::wstring LoadWideStringFromStream(TStream& Stream) { return BytesToWide(StringFromStream(Stream)); }

std::string StringFromStream(TStream& Stream) {
  std::string r;
  try {
    const int64_t pos = Stream.GetPosition();
    const int64_t size = Stream.GetSize();
    if (pos >= 0 && size > pos) r.reserve(static_cast<size_t>(size - pos));
    char buf[65536];
    for (;;) {
      const int32_t n = Stream.Read(buf, sizeof buf);
      if (n <= 0) break;
      r.append(buf, static_cast<size_t>(n));
    }
  } catch (const std::exception& e) {
    klLog::AddToEventLog(Format("StringFromStream: %s", e.what()), klLog::lkError);
  }
  return r;
}

std::string UTF8ToStrSmart(const std::string& S) {
  std::string r;
  r.reserve(S.size());
  size_t i = 0;
  while (i < S.size()) {
    const auto b = static_cast<unsigned char>(S[i]);
    if (b < 0xC0) {
      // ASCII, and stray continuation bytes: Windows-1251 text passes through.
      r += S[i++];
      continue;
    }
    const size_t len = b >= 0xFC ? 6 : b >= 0xF8 ? 5 : b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : 2;
    if (i + len > S.size()) break;  // an incomplete sequence at the end is dropped
    wchar_t w[8];
    const int n = MultiByteToWideChar(CP_UTF8, 0, S.data() + i, static_cast<int>(len), w, 8);
    if (n > 0) r += WideToAnsi(w, static_cast<size_t>(n), CP_ACP);
    i += len;
  }
  return r;
}

std::string StringsToStr(const TStringList& List) { return JoinStrings(List, "\r\n"); }

std::string StringsAsSingleLine(const TStringList& List) { return JoinStrings(List, " "); }

std::string JoinStrings(const TStringList& List, const std::string& Separator) {
  std::string r;
  for (int i = 0; i < List.Count(); ++i) {
    if (i > 0) r += Separator;
    r += List[i];
  }
  return r;
}

// --- layout and hex -------------------------------------------------------------------------

std::string PadString(const std::string& S, int32_t Width, char Ch) {
  if (Width <= static_cast<int64_t>(S.size())) return S;
  return S + std::string(static_cast<size_t>(Width) - S.size(), Ch);
}

std::string MoveTextToRight(const std::string& S, int32_t Count) {
  if (Count <= 0 || S.empty()) return S;
  const std::string pad(static_cast<size_t>(Count), ' ');
  std::string r = pad;
  for (size_t i = 0; i < S.size(); ++i) {
    r += S[i];
    if (S[i] == '\n' && i + 1 < S.size()) r += pad;
  }
  return r;
}

void MoveTextToRight(TStringList& List, int32_t Count) {
  if (Count <= 0) return;
  const std::string pad(static_cast<size_t>(Count), ' ');
  for (auto& s : List.Items()) s = pad + s;
}

std::string SplitTextToTwoLines(const std::string& S) {
  const size_t mid = S.size() / 2;
  size_t best = npos;
  for (size_t i = 0; i < S.size(); ++i) {
    if (S[i] != ' ') continue;
    const size_t d = i > mid ? i - mid : mid - i;
    const size_t bd = best == npos ? npos : (best > mid ? best - mid : mid - best);
    if (d < bd) best = i;
  }
  if (best == npos) return S;
  return S.substr(0, best) + "\r\n" + S.substr(best + 1);
}

const std::string& Max(const std::string& A, const std::string& B) { return A < B ? B : A; }

const std::string& Min(const std::string& A, const std::string& B) { return B < A ? B : A; }

std::string StrToHex(const std::string& S) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string r(S.size() * 2, '\0');
  for (size_t i = 0; i < S.size(); ++i) {
    const auto b = static_cast<unsigned char>(S[i]);
    r[2 * i] = kDigits[b >> 4];
    r[2 * i + 1] = kDigits[b & 15];
  }
  return r;
}

std::string HexToStr(const std::string& S) {
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
  };
  std::string r(S.size() / 2, '\0');
  for (size_t i = 0; i < r.size(); ++i) {
    const int hi = digit(S[2 * i]);
    const int lo = digit(S[2 * i + 1]);
    if (hi < 0 || lo < 0) break;
    r[i] = static_cast<char>(hi * 16 + lo);
  }
  return r;
}

}  // namespace kl::UTextEx
