// Text helpers against their edge cases, round trips and real files; the Cyrillic
// behaviours run in a child started under a Russian ANSI code page.
#include <gtest/gtest.h>

#include <windows.h>

#include <random>

#include "KlTest.h"
#include "diagnostics/UTextEx.h"
#include "rtl/Classes.h"

using namespace kl;
using namespace kl::UTextEx;

namespace {

using TStrings = std::vector<std::string>;

std::string U8(const char8_t* S) { return reinterpret_cast<const char*>(S); }

// The ANSI bytes of one UTF-16 text under the current code page.
std::string Ansi(const std::wstring& W) {
  const int n = WideCharToMultiByte(CP_ACP, 0, W.data(), static_cast<int>(W.size()), nullptr, 0, nullptr, nullptr);
  std::string s(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_ACP, 0, W.data(), static_cast<int>(W.size()), s.data(), n, nullptr, nullptr);
  return s;
}

// Each row's input through Fn against what it should give.
template <class F>
void ExpectEach(F Fn, std::initializer_list<std::pair<std::string, std::string>> Rows) {
  for (const auto& [in, want] : Rows) EXPECT_EQ(Fn(in), want) << "input \"" << in << "\"";
}

// A straightforward reference for StringReplaceEx (case-sensitive, all occurrences).
std::string NaiveReplaceAll(std::string S, const std::string& Old, const std::string& New) {
  std::string r;
  size_t from = 0;
  for (size_t p = S.find(Old); p != std::string::npos; p = S.find(Old, from)) {
    r += S.substr(from, p - from) + New;
    from = p + Old.size();
  }
  return r + S.substr(from);
}

// Restores the process-wide separator whatever a test sets.
struct TSeparatorGuard {
  TFormatSettings Saved = FormatSettings();
  ~TSeparatorGuard() { FormatSettings() = Saved; }
};

}  // namespace

TEST(TextReplace, NotifiesEachReplacementAndHonoursFlags) {
  std::string notes;
  auto on = [&](const std::string& o, const std::string& n, int32_t p) {
    notes += o + ">" + n + "@" + std::to_string(p) + " ";
  };
  // Same length goes in place; case is ignored only for matching; occurrences do not
  // overlap; an empty or identical pattern changes (and notifies) nothing.
  struct { const char *S, *Old, *New; TReplaceFlags Flags; const char *Want, *Notes; } rows[] = {
      {"aaa", "a", "bb", ReplaceAll, "bbbbbb", "a>bb@1 a>bb@2 a>bb@3 "}, {"aaa", "a", "bb", 0, "bbaa", "a>bb@1 "},
      {"x-x", "x", "x", ReplaceAll, "x-x", ""}, {"abc", "", "b", ReplaceAll, "abc", ""},
      {"ABCabcAbC", "bc", "-", ReplaceAll | IgnoreCase, "A-a-A-", "bc>-@2 bc>-@5 bc>-@8 "},
      {"aXbXc", "X", "", ReplaceAll, "abc", "X>@2 X>@4 "}, {"aaaa", "aa", "b", ReplaceAll, "bb", "aa>b@1 aa>b@3 "},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.S) + " / " + r.Old + " -> " + r.New);
    notes.clear();
    EXPECT_EQ(StringReplaceEx(r.S, r.Old, r.New, r.Flags, on), r.Want);
    EXPECT_EQ(notes, r.Notes);
  }

  int k = 0;
  auto sub = [&](const std::string&, std::string& n, int32_t) { n += std::to_string(++k); };
  EXPECT_EQ(StringReplaceEx2("a.b.c", ".", "#", ReplaceAll, sub), "a#1b#2c");
  EXPECT_EQ(StringReplaceEx2("a.b.c", ".", "#", 0, sub), "a#3b.c");
  EXPECT_EQ(StringReplaceEx2("A.B", "a", "", ReplaceAll | IgnoreCase, nullptr), ".B");
}

TEST(TextReplace, MatchesAReferenceOnLargeRandomText) {
  std::mt19937 gen(7);
  std::string s(2'000'000, ' ');
  for (auto& c : s) c = "ab c"[gen() % 4];
  for (const auto& [o, n] : std::vector<std::pair<std::string, std::string>>{
           {"ab", "XYZW"}, {" c", ""}}) {
    EXPECT_EQ(StringReplaceEx(s, o, n, ReplaceAll), NaiveReplaceAll(s, o, n)) << o << " -> " << n;
  }
}

TEST(TextReplace, SymbolsBlocksTagsAndEscapes) {
  EXPECT_EQ(ReplaceSymbols("a:b/cA", ":/a", "_"), "__b_cA");
  EXPECT_EQ(DeleteSymbolsFromText("a-b_c-", "-_"), "abc");
  EXPECT_EQ(DeleteTextBetweenText("a/*x*/b/*y*/c/*z", "/*", "*/"), "abc/*z");
  ExpectEach([](const std::string& s) { return TwoBytesCharsToOneByteChars(s); },
             {{std::string("a\0b\0c", 6), "abc"}, {std::string("a\0b", 3), "a"}});
  ExpectEach(GetTextWithoutTags, {{"<p>Hello&NBSP;</p>\r\n<p>  World </p><br>", "Hello World "},
                                  {"no tags < here", "no tags < here"}});

  const std::string s = "path C:\\new\\table\r\n\tindented \\n literal\\";
  const std::string packed = PackEscapeSymbols(s);
  EXPECT_EQ(packed, "path C:\\\\new\\\\table\\n\\tindented \\\\n literal\\\\");
  EXPECT_EQ(ExtractEscapeSymbols(packed), s);
  // Unknown escapes stay as they are; a lone CR or LF is not an escape.
  EXPECT_EQ(ExtractEscapeSymbols("\\x\\q\\"), "\\x\\q\\");
  EXPECT_EQ(PackEscapeSymbols("a\nb\r"), "a\nb\r");
  // The passes run one after another: in the second row the pair of backslashes becomes
  // one, which then escapes the slash for the last pass.
  ExpectEach(UnescapeText, {{"\\\"q\\\" \\'a\\' b\\\\c \\/d", "\"q\" 'a' b\\c /d"}, {"a\\\\/b", "a/b"}});
}

TEST(TextSplit, DelimitersEnclosuresAndCouples) {
  TStringList list;
  auto split = [&](auto&&... Args) {
    SplitText(Args..., &list);
    return list.Items();
  };
  EXPECT_EQ(split("a;;b;", ";"), (TStrings{"a", "", "b"}));
  EXPECT_EQ(split("oneANDtwoandthree", "and"), (TStrings{"one", "two", "three"}));
  EXPECT_EQ(split("a;b", ""), TStrings{});
  EXPECT_EQ(split("[a] [b] [c", "[", "]"), (TStrings{"a", "b"}));
  EXPECT_EQ(split("(a)(b)(c)", "(", ")", 2), (TStrings{"b"}));

  EXPECT_TRUE(FindBetweenCouples("x(a(b)c)y", "(", ")", &list, 0));
  EXPECT_EQ(list.Items(), (TStrings{"a(b)c"}));
  EXPECT_TRUE(FindBetweenCouples("(1)(2)(3)", "(", ")", &list, 2));
  EXPECT_EQ(list.Items(), (TStrings{"1", "2"}));
  EXPECT_FALSE(FindBetweenCouples("((a)", "(", ")", &list, 0));
  EXPECT_EQ(list.Count(), 0);
  EXPECT_FALSE(FindBetweenCouples("(a)", "(", ")", nullptr, 0));
  // Multi-character delimiters, matched without regard to case.
  EXPECT_TRUE(FindBetweenCouples("<B>bold <b>in</B></b> tail", "<b>", "</b>", &list, 0));
  EXPECT_EQ(list.Items(), (TStrings{"bold <b>in</B>"}));
  EXPECT_EQ(FindBetweenCouple("f(x(y)) g(z)", "(", ")"), "x(y)");
}

TEST(TextSplit, CutFindCountAndDeduplicate) {
  EXPECT_EQ(CutInnerText("a<B>c</b>d", "<b>", "</b>"), "c");
  EXPECT_EQ(CutOuterText("a<B>c</b>d", "<b>", "</b>"), "<B>c</b>");
  EXPECT_EQ(CutInnerText("key=value", "=", ""), "value");
  int32_t pos = 1;
  TStrings got;
  for (std::string s; !(s = CutInnerText("[1][22][333]", "[", "]", pos)).empty();) got.push_back(s);
  EXPECT_EQ(got, (TStrings{"1", "22", "333"}));
  EXPECT_EQ(pos, 13);

  // Where each search starts, whether it finds, and where it leaves the position.
  using TFind = bool (*)(const std::string&, const std::string&, int32_t&);
  struct { TFind Fn; const char *Where, *What; int32_t From; bool Found; int32_t At; } finds[] = {
      {FindText, "Hello World hello", "HELLO", 2, true, 13},
      {FindTextCaseSensitive, "Hello World hello", "Hello", 2, false, 2},
      {FindTextBackward, "abcABCabc", "ABC", 100, true, 7},
      {FindTextBackward, "abc", "a", 0, false, 0},
  };
  for (const auto& f : finds) {
    SCOPED_TRACE(std::string(f.Where) + " / " + f.What + " from " + std::to_string(f.From));
    pos = f.From;
    EXPECT_EQ(f.Fn(f.Where, f.What, pos), f.Found);
    EXPECT_EQ(pos, f.At);
  }

  int32_t line = 0;
  pos = 0;
  EXPECT_TRUE(FindLineContainsText("first\r\nsecond LINE\nthird line", "line", line, pos));
  EXPECT_EQ(std::make_pair(line, pos), std::make_pair(1, 8));
  EXPECT_FALSE(FindLineContainsText("first", "", line, pos));
  EXPECT_EQ(GetCountOfSubtext("aAaA", "aa"), 2);
  EXPECT_EQ(GetCountOfSubtext("abc", ""), 0);

  TStringList list;
  list.SetText("b\na\nB\nb\na");
  DeleteDuplicates(list);
  EXPECT_EQ(list.Items(), (TStrings{"b", "a", "B"}));
  DeleteDuplicates(list, true);
  EXPECT_EQ(list.Items(), (TStrings{"b", "a"}));
  EXPECT_EQ(DeleteDuplicates("x,y,x,,z,", ','), "x,y,,z");
}

TEST(TextPhonetic, TranslitAndSoundEx) {
  ExpectEach(Translit, {{"Щука, 5 ёжиков!", "SCHuka, 5 ezhikov!"}});
  ExpectEach(MySoundEx, {{"Robert", "rbrt"}, {"Hammer", "mr"}, {"Tot 2 Tat", "t"}, {"Привет", ""}});
}

TEST(TextNumbers, BothSeparators) {
  TSeparatorGuard guard;
  struct { char Sep; std::string S; bool Ok; double V; } rows[] = {
      {'.', "1 234,5", true, 1234.5}, {'.', "1,234,567.5", false, 0}, {'.', "\xA0" "7\xA0", true, 7},
      {',', "1.5", true, 1.5},        {',', "1,234.5", true, 1234.5},  {',', "1.234.5", false, 0}};
  for (const auto& r : rows) {
    FormatSettings().DecimalSeparator = r.Sep;
    double v = 42;
    EXPECT_EQ(TryStrToFloatEx(r.S, v), r.Ok) << r.S << " with " << r.Sep;
    EXPECT_DOUBLE_EQ(v, r.Ok ? r.V : 42) << r.S << " with " << r.Sep;  // a failure leaves the value
  }
  FormatSettings().DecimalSeparator = '.';
  double v = 42;
  for (const char* bad : {"", "abc", "1.2.3", "1e", "0x10", "nan"}) {
    EXPECT_FALSE(TryStrToFloatEx(bad, v)) << bad;
  }
  EXPECT_DOUBLE_EQ(v, 42);
  EXPECT_EQ(CorrectDecimalSeparator("1,5,6"), "1.5,6");
  FormatSettings().DecimalSeparator = ',';
  EXPECT_EQ(CorrectDecimalSeparator("1.5.6"), "1,5.6");
  EXPECT_DOUBLE_EQ(StrToFloatEx(" 3.75 "), 3.75);
  EXPECT_THROW(StrToFloatEx("x"), EConvertError);
}

TEST(TextFiles, AnsiUtf8AndUtf16FilesAndStreamsRoundTrip) {
  kltest::TTempDir dir;
  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes += static_cast<char>(c);
  ASSERT_TRUE(SaveStrToFile(bytes, dir / "raw.bin"));
  EXPECT_EQ(LoadStrFromFile(dir / "raw.bin"), bytes);
  ASSERT_TRUE(AddStrToFile("tail", dir / "raw.bin"));
  EXPECT_EQ(LoadStrFromFile(dir / "raw.bin"), bytes + "tail");
  EXPECT_EQ(LoadStrFromFile(dir / "missing.txt"), "");
  EXPECT_FALSE(SaveStrToFile("x", dir / "no\\such\\dir.txt"));

  // Characters every Windows-1251 and -1252 code page has: printable ASCII and 0xA0..0xFF.
  std::string text = "line\r\n";
  for (int c = 0x20; c < 0x7F; ++c) text += static_cast<char>(c);
  for (int c = 0xA0; c < 0x100; ++c) text += static_cast<char>(c);
  ASSERT_TRUE(SaveUtf8StringToFile(text, dir / "u8.txt"));
  const std::string u8 = kltest::ReadFileBytes(dir / "u8.txt");
  EXPECT_EQ(u8.compare(0, 6, "line\r\n"), 0);  // no byte order mark
  EXPECT_GT(u8.size(), text.size());           // every byte from 0xA0 takes two in UTF-8
  EXPECT_EQ(LoadUtf8StringFromFile(dir / "u8.txt"), text);
  kltest::WriteFileBytes(dir / "bom.txt", "\xEF\xBB\xBF" "abc");
  EXPECT_EQ(LoadUtf8StringFromFile(dir / "bom.txt"), "abc");

  const std::wstring w = L"Wide \x0416\x00E9 \xD83D\xDE00 end";
  ASSERT_TRUE(SaveWideStringToFile(w, dir / "u16.txt"));
  EXPECT_EQ(kltest::ReadFileBytes(dir / "u16.txt"), std::string(reinterpret_cast<const char*>(w.data()), w.size() * 2));
  EXPECT_EQ(LoadWideStringFromFile(dir / "u16.txt"), w);
  kltest::WriteFileBytes(dir / "bom16.txt", std::string("\xFF\xFE" "a\0b\0c", 7));
  EXPECT_EQ(LoadWideStringFromFile(dir / "bom16.txt"), L"ab");  // the odd last byte is dropped

  TMemoryStream m;
  ASSERT_TRUE(SaveUtf8StringToStream("abc\xE9", m));
  m.SetPosition(0);
  EXPECT_EQ(LoadUtf8StringFromStream(m), "abc\xE9");
  m.Clear();
  ASSERT_TRUE(SaveWideStringToStream(L"x\x0444y", m));
  EXPECT_EQ(m.GetSize(), 6);
  m.SetPosition(0);
  EXPECT_EQ(LoadWideStringFromStream(m), L"x\x0444y");
}

TEST(TextUtf8, SmartDecoding) {
  // Stray continuation bytes are copied (8-bit text that is not UTF-8 passes); an
  // incomplete sequence at the end is dropped.
  ExpectEach(UTF8ToStrSmart, {{"plain", "plain"}, {U8(u8"caf\u00e9"), "caf" + Ansi(L"\x00E9")},
                              {U8(u8"\u0416"), Ansi(L"\x0416")}, {"a\x80\xBF" "b", "a\x80\xBF" "b"},
                              {"abc\xE2\x82", "abc"}, {"\xFC", ""}, {"", ""}});
  // Invalid runs give something, never a crash.
  std::string junk;
  for (int i = 0; i < 1000; ++i) junk += static_cast<char>(0xC0 + i % 64);
  EXPECT_NO_THROW(UTF8ToStrSmart(junk));
}

TEST(TextLayout, JoinPadIndentSplitHex) {
  TStringList list;
  list.SetText("a\nb\nc");
  EXPECT_EQ(JoinStrings(list, ", "), "a, b, c");
  EXPECT_EQ(PadString("ab", 5, '.') + "|" + PadString("abcdef", 3, '.'), "ab...|abcdef");
  EXPECT_EQ(MoveTextToRight("a\r\nb", 2), "  a\r\n  b");
  ExpectEach(SplitTextToTwoLines, {{"one two three four", "one two\r\nthree four"}});

  EXPECT_EQ(StrToHex(std::string("\0\xFF" "ab", 4)), "00FF6162");
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(HexToStr(StrToHex(all)), all);
  // An odd length ignores the last digit; a bad digit gives a zero byte.
  ExpectEach(HexToStr, {{"6a6B", "jk"}, {"414", "A"}, {"41G142", std::string("A\0\0", 3)}, {"", ""}, {"4", ""}});
}

TEST(TextBadInput, HugeAndEmptyStrings) {
  const std::string huge(16 * 1024 * 1024, 'a');
  EXPECT_EQ(StringReplaceEx(huge, "aaaa", "bb", ReplaceAll | IgnoreCase).size(), huge.size() / 2);
  EXPECT_EQ(GetCountOfSubtext(huge, "A"), static_cast<int32_t>(huge.size()));
  for (const std::string& s : {std::string(), std::string("\0", 1)}) {
    TStringList list;  // whatever comes out, nothing throws or reads outside the text
    (void)GetTextWithoutTags(s);
    (void)ExtractEscapeSymbols(s);
    (void)Translit(s);
    (void)CutInnerText(s, "", "");
    (void)SplitTextToTwoLines(s);
    (void)DeleteDuplicates(s, ',');
    (void)DeleteTextBetweenText(s, "", "");
    SplitText(s, s, &list);
  }
}

// --- Cyrillic under the Russian ANSI code page -----------------------------------------
// Wine takes the ANSI code page from the Unix locale when a process starts, and a child
// started from inside Wine keeps its parent's. So the child is started from a Unix shell
// (Wine runs Unix programs given by a Unix path) with a Russian locale compiled on the spot.

// Checks the Cyrillic behaviours and writes the code page it ran under, then a line per
// mismatch (hex, as the bytes are Windows-1251), into Args[0].
KL_CHILD_ROLE(text_ru) {
  if (Args.empty()) return 2;
  GetLocaleFormatSettings();
  std::string out = "acp=" + std::to_string(GetACP()) + "\r\n";
  auto check = [&](const char* What, const std::string& Got, const std::string& Want) {
    if (Got != Want) out += std::string(What) + ": got " + StrToHex(Got) + ", want " + StrToHex(Want) + "\r\n";
  };
  check("separator", std::string(1, FormatSettings().DecimalSeparator), ",");  // the locale's, read at start-up
  check("lower", AnsiLowerCase("ЁЧЯ Ab"), "ёчя ab");
  check("upper", AnsiUpperCase("ёчя aB"), "ЁЧЯ AB");
  int32_t pos = 1;
  check("find", FindText("Привет, МИР", "мир", pos) ? std::to_string(pos) : "-", "9");
  check("replace", StringReplaceEx("Мама МАМА мАмА", "мама", "папа", ReplaceAll | IgnoreCase), "папа папа папа");
  check("count", std::to_string(GetCountOfSubtext("ЯяЯ", "я")), "3");
  check("couples", FindBetweenCouple("xЁabЯy", "ё", "я"), "ab");
  check("soundex", MySoundEx("Щука Robert"), "rbrt");
  double v = 0;
  check("float", TryStrToFloatEx("1 234.5", v) ? std::to_string(v) : "-", "1234.500000");
  check("utf8", UTF8ToStrSmart(U8(u8"Привет, мир")), "Привет, мир");
  const std::string file = Args[0] + ".u8";
  SaveUtf8StringToFile("Ёлка", file);
  check("u8file", kltest::ReadFileBytes(file), U8(u8"Ёлка"));
  check("u8back", LoadUtf8StringFromFile(file), "Ёлка");
  SaveStrToFile(out, Args[0] + ".tmp");
  return MoveFileA((Args[0] + ".tmp").c_str(), Args[0].c_str()) ? 0 : 3;
}

TEST(TextCyrillic, UnderRussianCodePage) {
  kltest::TTempDir dir;
  const std::string result = dir / "ru.txt";
  if (GetACP() == 1251) {
    ASSERT_EQ(kltest::RunChild("text_ru", {result}).ExitCode, 0u);
  } else {
    if (GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") == nullptr) GTEST_SKIP() << "no Russian code page and not under Wine";
    // The Unix side: compile the locale, start the child under it. Runs detached, so the
    // result file is awaited below.
    const std::string script =
        "d=$(mktemp -d) && localedef -i ru_RU -f CP1251 $d/ru_RU.CP1251 >/dev/null 2>&1; "
        "LOCPATH=$d LC_ALL=ru_RU.CP1251 wine '" + kltest::SelfExe() + "' --kl-child text_ru '" + result +
        "' >/dev/null 2>&1; rm -rf $d";
    std::string cmd = "Z:\\bin\\sh -c \"" + script + "\"";
    STARTUPINFOA si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
      GTEST_SKIP() << "cannot start a Unix shell from Wine: " << GetLastError();
    }
    if (pi.hThread != nullptr) CloseHandle(pi.hThread);
    if (pi.hProcess != nullptr) CloseHandle(pi.hProcess);
    for (int i = 0; i < 1200 && !FileExists(result); ++i) Sleep(100);
  }
  if (!FileExists(result)) GTEST_SKIP() << "the Russian locale child did not report (no ru_RU locale source?)";
  const std::string r = kltest::ReadFileBytes(result);
  if (r.rfind("acp=1251\r\n", 0) != 0) GTEST_SKIP() << "the child ran with " << r.substr(0, r.find('\r'));
  EXPECT_EQ(r.substr(10), "");
}
