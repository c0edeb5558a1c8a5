// Text helpers against their edge cases, round trips and real files; the Cyrillic
// behaviours run in a child started under a Russian ANSI code page.
#include <gtest/gtest.h>

#include <windows.h>

#include <map>
#include <random>

#include "KlTest.h"
#include "diagnostics/UTextEx.h"
#include "rtl/Classes.h"

using namespace kl;
using namespace kl::UTextEx;

namespace {

std::string U8(const char8_t* S) { return reinterpret_cast<const char*>(S); }

// The ANSI bytes of one UTF-16 text under the current code page.
std::string Ansi(const std::wstring& W) {
  const int n = WideCharToMultiByte(CP_ACP, 0, W.data(), static_cast<int>(W.size()), nullptr, 0, nullptr, nullptr);
  std::string s(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_ACP, 0, W.data(), static_cast<int>(W.size()), s.data(), n, nullptr, nullptr);
  return s;
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

struct TNotice {
  std::string Old, New;
  int32_t Pos;
};

// Restores the process-wide separator whatever a test sets.
struct TSeparatorGuard {
  TFormatSettings Saved = FormatSettings();
  ~TSeparatorGuard() { FormatSettings() = Saved; }
};

}  // namespace

TEST(TextReplace, NotifiesEachReplacementAndHonoursFlags) {
  std::vector<TNotice> notes;
  auto on = [&](const std::string& o, const std::string& n, int32_t p) { notes.push_back({o, n, p}); };

  EXPECT_EQ(StringReplaceEx("aaa", "a", "bb", ReplaceAll, on), "bbbbbb");
  ASSERT_EQ(notes.size(), 3u);
  EXPECT_EQ(notes[0].Pos, 1);
  EXPECT_EQ(notes[2].Pos, 3);
  EXPECT_EQ(notes[1].Old, "a");
  EXPECT_EQ(notes[1].New, "bb");

  notes.clear();
  EXPECT_EQ(StringReplaceEx("aaa", "a", "bb", 0, on), "bbaa");
  EXPECT_EQ(notes.size(), 1u);

  notes.clear();
  EXPECT_EQ(StringReplaceEx("x-x", "x", "x", ReplaceAll, on), "x-x");
  EXPECT_EQ(StringReplaceEx("", "a", "b", ReplaceAll, on), "");
  EXPECT_EQ(StringReplaceEx("abc", "", "b", ReplaceAll, on), "abc");
  EXPECT_EQ(StringReplaceEx("abc", "zz", "b", ReplaceAll, on), "abc");
  EXPECT_TRUE(notes.empty());

  // Same length: in place; positions are where the occurrences start.
  EXPECT_EQ(StringReplaceEx("abcabc", "bc", "XY", ReplaceAll, on), "aXYaXY");
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[1].Pos, 5);
  EXPECT_EQ(StringReplaceEx("abcabc", "bc", "XY", 0), "aXYabc");

  // Case is ignored only for matching; the rest of the text keeps its case.
  EXPECT_EQ(StringReplaceEx("ABCabcAbC", "bc", "-", ReplaceAll | IgnoreCase), "A-a-A-");
  EXPECT_EQ(StringReplaceEx("ABCabc", "bc", "-", ReplaceAll), "ABCa-");
  EXPECT_EQ(StringReplaceEx("aXbXc", "X", "", ReplaceAll), "abc");
  // Occurrences do not overlap.
  EXPECT_EQ(StringReplaceEx("aaaa", "aa", "b", ReplaceAll), "bb");
}

TEST(TextReplace, MatchesAReferenceOnLargeRandomText) {
  std::mt19937 gen(7);
  std::string s(2'000'000, ' ');
  for (auto& c : s) c = "ab c"[gen() % 4];
  for (const auto& [o, n] : std::vector<std::pair<std::string, std::string>>{
           {"ab", "X"}, {"ab", "XYZW"}, {"a", "Q"}, {" c", ""}}) {
    EXPECT_EQ(StringReplaceEx(s, o, n, ReplaceAll), NaiveReplaceAll(s, o, n)) << o << " -> " << n;
  }
}

TEST(TextReplace, SubstituteMayChangeEachReplacement) {
  int k = 0;
  auto sub = [&](const std::string&, std::string& n, int32_t) { n += std::to_string(++k); };
  EXPECT_EQ(StringReplaceEx2("a.b.c", ".", "#", ReplaceAll, sub), "a#1b#2c");
  EXPECT_EQ(StringReplaceEx2("a.b.c", ".", "#", 0, sub), "a#3b.c");
  EXPECT_EQ(StringReplaceEx2("A.B", "a", "", ReplaceAll | IgnoreCase, nullptr), ".B");
}

TEST(TextReplace, SymbolsAndBlocks) {
  EXPECT_EQ(ReplaceSymbols("a:b/c", ":/", "_"), "a_b_c");
  EXPECT_EQ(ReplaceSymbols("abc", "", "_"), "abc");
  EXPECT_EQ(ReplaceSymbols("aA", "a", "b"), "bA");
  EXPECT_EQ(DeleteSymbolsFromText("a-b_c-", "-_"), "abc");
  EXPECT_EQ(DeleteTextBetweenText("a/*x*/b/*y*/c/*z", "/*", "*/"), "abc/*z");
  EXPECT_EQ(TwoBytesCharsToOneByteChars(std::wstring(L"abc")), "abc");
  EXPECT_EQ(TwoBytesCharsToOneByteChars(std::string("a\0b\0c", 6)), "abc");
  EXPECT_EQ(TwoBytesCharsToOneByteChars(std::string("a\0b", 3)), "a");
}

TEST(TextSplit, DelimitersAndEnclosures) {
  TStringList list;
  SplitText("a;b;", ";", &list);
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"a", "b"}));
  SplitText("a;;b", ";", &list);
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"a", "", "b"}));
  SplitText("oneANDtwoandthree", "and", &list);
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"one", "two", "three"}));
  SplitText("", ";", &list);
  EXPECT_EQ(list.Count(), 0);
  SplitText("a;b", "", &list);
  EXPECT_EQ(list.Count(), 0);
  SplitText("a;b", ";", nullptr);

  SplitText("[a] [b] [c", "[", "]", &list);
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"a", "b"}));
  SplitText("(a)(b)(c)", "(", ")", 2, &list);
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"b"}));
  SplitText("(a)(b)", "(", ")", 3, &list);
  EXPECT_EQ(list.Count(), 0);
}

TEST(TextSplit, FindBetweenCouplesNests) {
  TStringList list;
  EXPECT_TRUE(FindBetweenCouples("x(a(b)c)y", "(", ")", &list, 0));
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"a(b)c"}));
  EXPECT_TRUE(FindBetweenCouples("(1)(2)(3)", "(", ")", &list, 2));
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"1", "2"}));
  EXPECT_FALSE(FindBetweenCouples("((a)", "(", ")", &list, 0));
  EXPECT_EQ(list.Count(), 0);
  EXPECT_FALSE(FindBetweenCouples("", "(", ")", &list, 0));
  EXPECT_FALSE(FindBetweenCouples("(a)", "(", ")", nullptr, 0));
  // Multi-character delimiters, matched without regard to case.
  EXPECT_TRUE(FindBetweenCouples("<B>bold <b>in</B></b> tail", "<b>", "</b>", &list, 0));
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"bold <b>in</B>"}));
  EXPECT_EQ(FindBetweenCouple("f(x(y)) g(z)", "(", ")"), "x(y)");
  EXPECT_EQ(FindBetweenCouple("none", "(", ")"), "");
}

TEST(TextSplit, CutAndFind) {
  EXPECT_EQ(CutInnerText("a<B>c</b>d", "<b>", "</b>"), "c");
  EXPECT_EQ(CutOuterText("a<B>c</b>d", "<b>", "</b>"), "<B>c</b>");
  EXPECT_EQ(CutInnerText("key=value", "=", ""), "value");
  EXPECT_EQ(CutInnerText("a<b>c", "<b>", "</b>"), "");
  int32_t pos = 1;
  std::vector<std::string> got;
  for (std::string s; !(s = CutInnerText("[1][22][333]", "[", "]", pos)).empty();) got.push_back(s);
  EXPECT_EQ(got, (std::vector<std::string>{"1", "22", "333"}));
  EXPECT_EQ(pos, 13);

  pos = 1;
  EXPECT_TRUE(FindText("Hello World hello", "HELLO", pos));
  EXPECT_EQ(pos, 1);
  pos = 2;
  EXPECT_TRUE(FindText("Hello World hello", "HELLO", pos));
  EXPECT_EQ(pos, 13);
  pos = 2;
  EXPECT_FALSE(FindTextCaseSensitive("Hello World hello", "Hello", pos));
  EXPECT_EQ(pos, 2);
  pos = 100;
  EXPECT_TRUE(FindTextBackward("abcABCabc", "ABC", pos));
  EXPECT_EQ(pos, 7);
  pos = 6;
  EXPECT_TRUE(FindTextBackward("abcABCabc", "abc", pos));
  EXPECT_EQ(pos, 4);
  pos = 0;
  EXPECT_FALSE(FindTextBackward("abc", "a", pos));

  int32_t line = 0;
  pos = 0;
  EXPECT_TRUE(FindLineContainsText("first\r\nsecond LINE\nthird line", "line", line, pos));
  EXPECT_EQ(line, 1);
  EXPECT_EQ(pos, 8);
  line = 2;
  EXPECT_TRUE(FindLineContainsText("first\r\nsecond LINE\nthird line", "line", line, pos));
  EXPECT_EQ(line, 2);
  EXPECT_FALSE(FindLineContainsText("first", "", line, pos));

  EXPECT_EQ(GetCountOfSubtext("aAaA", "aa"), 2);
  EXPECT_EQ(GetCountOfSubtext("abc", ""), 0);

  TStringList list;
  list.SetText("b\na\nB\nb\na");
  DeleteDuplicates(list);
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"b", "a", "B"}));
  DeleteDuplicates(list, true);
  EXPECT_EQ(list.Items(), (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(DeleteDuplicates("x,y,x,,z,", ','), "x,y,,z");
}

TEST(TextTags, StripsTagsAndEntities) {
  EXPECT_EQ(GetTextWithoutTags("<p>Hello&NBSP;</p>\r\n<p>  World </p><br>"), "Hello World ");
  EXPECT_EQ(GetTextWithoutTags("no tags < here"), "no tags < here");
  EXPECT_EQ(GetTextWithoutTags("<a></a>"), "");
  EXPECT_EQ(GetTextWithoutTags(""), "");
}

TEST(TextEscapes, PackAndExtractRoundTrip) {
  const std::string s = "path C:\\new\\table\r\n\tindented \\n literal\\";
  const std::string packed = PackEscapeSymbols(s);
  EXPECT_EQ(packed, "path C:\\\\new\\\\table\\n\\tindented \\\\n literal\\\\");
  EXPECT_EQ(ExtractEscapeSymbols(packed), s);
  // Unknown escapes stay as they are; a lone CR or LF is not an escape.
  EXPECT_EQ(ExtractEscapeSymbols("\\x\\q\\"), "\\x\\q\\");
  EXPECT_EQ(PackEscapeSymbols("a\nb\r"), "a\nb\r");
  EXPECT_EQ(UnescapeText("\\\"q\\\" \\'a\\' b\\\\c \\/d"), "\"q\" 'a' b\\c /d");
  // The passes run one after another: the pair of backslashes becomes one, which then
  // escapes the slash for the last pass.
  EXPECT_EQ(UnescapeText("a\\\\/b"), "a/b");
}

TEST(TextTranslit, WholeAlphabetBothCases) {
  EXPECT_EQ(Translit("АБВГДЕЁЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯ"), "ABVGDEEZHZIIKLMNOPRSTUFHTSCHSHSCH'YEYUYA");
  EXPECT_EQ(Translit("абвгдеёжзийклмнопрстуфхцчшщъыьэюя"), "abvgdeezhziiklmnoprstufhtschshsch'yeyuya");
  EXPECT_EQ(Translit("Щука, 5 ёжиков!"), "SCHuka, 5 ezhikov!");
  EXPECT_EQ(Translit(""), "");
}

TEST(TextSoundEx, PhoneticKeys) {
  EXPECT_EQ(MySoundEx("Robert"), "rbrt");
  EXPECT_EQ(MySoundEx("Hammer"), "mr");
  EXPECT_EQ(MySoundEx("WOW"), "v");
  EXPECT_EQ(MySoundEx("Tot 2 Tat"), "t");
  EXPECT_EQ(MySoundEx("Привет"), "");
  EXPECT_EQ(MySoundEx(""), "");
}

TEST(TextNumbers, BothSeparators) {
  TSeparatorGuard guard;
  double v = 0;
  FormatSettings().DecimalSeparator = '.';
  EXPECT_TRUE(TryStrToFloatEx("1 234,5", v));
  EXPECT_DOUBLE_EQ(v, 1234.5);
  EXPECT_FALSE(TryStrToFloatEx("1,234,567.5", v));
  EXPECT_TRUE(TryStrToFloatEx("1,234.5", v));
  EXPECT_DOUBLE_EQ(v, 1234.5);
  EXPECT_TRUE(TryStrToFloatEx("-2.5e3", v));
  EXPECT_DOUBLE_EQ(v, -2500);
  EXPECT_TRUE(TryStrToFloatEx("\xA0" "7\xA0", v));
  EXPECT_DOUBLE_EQ(v, 7);
  v = 42;
  for (const char* bad : {"", " ", "abc", "1.2.3", "1e", "--1", "0x10", "inf", "nan", "1,5,"}) {
    EXPECT_FALSE(TryStrToFloatEx(bad, v)) << bad;
  }
  EXPECT_DOUBLE_EQ(v, 42);
  EXPECT_EQ(CorrectDecimalSeparator("1,5,6"), "1.5,6");

  FormatSettings().DecimalSeparator = ',';
  EXPECT_TRUE(TryStrToFloatEx("1.5", v));
  EXPECT_DOUBLE_EQ(v, 1.5);
  EXPECT_TRUE(TryStrToFloatEx("1,25", v));
  EXPECT_DOUBLE_EQ(v, 1.25);
  EXPECT_TRUE(TryStrToFloatEx("1,234.5", v));
  EXPECT_DOUBLE_EQ(v, 1234.5);
  EXPECT_FALSE(TryStrToFloatEx("1.234.5", v));
  EXPECT_EQ(CorrectDecimalSeparator("1.5.6"), "1,5.6");
  EXPECT_DOUBLE_EQ(StrToFloatEx(" 3.75 "), 3.75);
  EXPECT_THROW(StrToFloatEx("x"), EConvertError);
  EXPECT_DOUBLE_EQ(StrToFloatDefEx("x", -1), -1);
}

TEST(TextFiles, AnsiUtf8AndUtf16FilesRoundTrip) {
  kltest::TTempDir dir;
  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes += static_cast<char>(c);
  ASSERT_TRUE(SaveStrToFile(bytes, dir / "raw.bin"));
  EXPECT_EQ(LoadStrFromFile(dir / "raw.bin"), bytes);
  ASSERT_TRUE(AddStrToFile("tail", dir / "raw.bin"));
  EXPECT_EQ(LoadStrFromFile(dir / "raw.bin"), bytes + "tail");
  ASSERT_TRUE(AddStrToFile("new", dir / "added.txt"));
  EXPECT_EQ(kltest::ReadFileBytes(dir / "added.txt"), "new");
  ASSERT_TRUE(SaveStrToFile("", dir / "raw.bin"));
  EXPECT_EQ(LoadStrFromFile(dir / "raw.bin"), "");
  EXPECT_EQ(LoadStrFromFile(dir / "missing.txt"), "");
  EXPECT_FALSE(SaveStrToFile("x", dir / "no\\such\\dir.txt"));

  // Characters every Windows-1251 and -1252 code page has: printable ASCII and 0xA0..0xFF.
  std::string text = "line\r\n";
  for (int c = 0x20; c < 0x7F; ++c) text += static_cast<char>(c);
  for (int c = 0xA0; c < 0x100; ++c) text += static_cast<char>(c);
  ASSERT_TRUE(SaveUtf8StringToFile(text, dir / "u8.txt"));
  const std::string u8 = kltest::ReadFileBytes(dir / "u8.txt");
  EXPECT_EQ(u8.compare(0, 6, "line\r\n"), 0);
  EXPECT_GT(u8.size(), text.size());  // every byte from 0xA0 takes two in UTF-8
  EXPECT_NE(u8.compare(0, 3, "\xEF\xBB\xBF"), 0);
  EXPECT_EQ(LoadUtf8StringFromFile(dir / "u8.txt"), text);
  kltest::WriteFileBytes(dir / "bom.txt", "\xEF\xBB\xBF" "abc");
  EXPECT_EQ(LoadUtf8StringFromFile(dir / "bom.txt"), "abc");
  EXPECT_EQ(LoadUtf8StringFromFile(dir / "missing.txt"), "");

  const std::wstring w = L"Wide \x0416\x00E9 \xD83D\xDE00 end";
  ASSERT_TRUE(SaveWideStringToFile(w, dir / "u16.txt"));
  EXPECT_EQ(kltest::ReadFileBytes(dir / "u16.txt").size(), w.size() * 2);
  EXPECT_EQ(kltest::ReadFileBytes(dir / "u16.txt").substr(0, 4), std::string("W\0i\0", 4));
  EXPECT_EQ(LoadWideStringFromFile(dir / "u16.txt"), w);
  kltest::WriteFileBytes(dir / "bom16.txt", std::string("\xFF\xFE" "a\0b\0c", 7));
  EXPECT_EQ(LoadWideStringFromFile(dir / "bom16.txt"), L"ab");  // the odd last byte is dropped
}

TEST(TextFiles, Streams) {
  TMemoryStream m;
  ASSERT_TRUE(SaveUtf8StringToStream("abc\xE9", m));
  m.SetPosition(0);
  EXPECT_EQ(LoadUtf8StringFromStream(m), "abc\xE9");
  m.Clear();
  ASSERT_TRUE(SaveWideStringToStream(L"x\x0444y", m));
  EXPECT_EQ(m.GetSize(), 6);
  m.SetPosition(0);
  EXPECT_EQ(LoadWideStringFromStream(m), L"x\x0444y");
  m.SetPosition(2);
  EXPECT_EQ(StringFromStream(m), std::string("\x44\x04y\0", 4));
  EXPECT_EQ(StringFromStream(m), "");
}

TEST(TextUtf8, SmartDecoding) {
  EXPECT_EQ(UTF8ToStrSmart("plain"), "plain");
  EXPECT_EQ(UTF8ToStrSmart(U8(u8"caf\u00e9")), "caf" + Ansi(L"\x00E9"));
  EXPECT_EQ(UTF8ToStrSmart(U8(u8"\u0416")), Ansi(L"\x0416"));
  // Stray continuation bytes are copied: 8-bit text that is not UTF-8 passes.
  EXPECT_EQ(UTF8ToStrSmart("a\x80\xBF" "b"), "a\x80\xBF" "b");
  // An incomplete sequence at the end is dropped.
  EXPECT_EQ(UTF8ToStrSmart("abc\xE2\x82"), "abc");
  EXPECT_EQ(UTF8ToStrSmart("\xFC"), "");
  // Invalid runs give something, never a crash.
  std::string junk;
  for (int i = 0; i < 1000; ++i) junk += static_cast<char>(0xC0 + i % 64);
  EXPECT_NO_THROW(UTF8ToStrSmart(junk));
  EXPECT_EQ(UTF8ToStrSmart(""), "");
}

TEST(TextLayout, JoinPadIndentSplitHex) {
  TStringList list;
  list.SetText("a\nb\nc");
  EXPECT_EQ(StringsToStr(list), "a\r\nb\r\nc");
  EXPECT_EQ(StringsAsSingleLine(list), "a b c");
  EXPECT_EQ(JoinStrings(list, ", "), "a, b, c");
  EXPECT_EQ(JoinStrings(TStringList(), ", "), "");
  EXPECT_EQ(PadString("ab", 5, '.'), "ab...");
  EXPECT_EQ(PadString("abcdef", 3, '.'), "abcdef");
  EXPECT_EQ(PadString("ab", -4, '.'), "ab");
  EXPECT_EQ(MoveTextToRight("a\r\nb", 2), "  a\r\n  b");
  EXPECT_EQ(MoveTextToRight("a", 0), "a");
  MoveTextToRight(list, 1);
  EXPECT_EQ(list[2], " c");
  EXPECT_EQ(SplitTextToTwoLines("one two three four"), "one two\r\nthree four");
  EXPECT_EQ(SplitTextToTwoLines("single"), "single");
  EXPECT_EQ(Max("abc", "abd"), "abd");
  EXPECT_EQ(Min("abc", "abd"), "abc");

  EXPECT_EQ(StrToHex(std::string("\0\xFF" "ab", 4)), "00FF6162");
  EXPECT_EQ(StrToHex(""), "");
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(HexToStr(StrToHex(all)), all);
  EXPECT_EQ(HexToStr("6a6B"), "jk");
  EXPECT_EQ(HexToStr("414"), "A");  // odd length: the last digit is ignored
  EXPECT_EQ(HexToStr("41G142"), std::string("A\0\0", 3));
  EXPECT_EQ(HexToStr(""), "");
  EXPECT_EQ(HexToStr("4"), "");
}

TEST(TextBadInput, HugeAndEmptyStrings) {
  const std::string huge(16 * 1024 * 1024, 'a');
  EXPECT_EQ(StringReplaceEx(huge, "a", "", ReplaceAll), "");
  EXPECT_EQ(StringReplaceEx(huge, "aaaa", "bb", ReplaceAll | IgnoreCase).size(), huge.size() / 2);
  EXPECT_EQ(GetCountOfSubtext(huge, "A"), static_cast<int32_t>(huge.size()));
  EXPECT_EQ(HexToStr(StrToHex(huge)).size(), huge.size());
  for (const std::string& s : {std::string(), std::string("\0", 1)}) {
    TStringList list;
    EXPECT_NO_THROW({
      (void)GetTextWithoutTags(s);
      (void)ExtractEscapeSymbols(s);
      (void)Translit(s);
      (void)CutInnerText(s, "", "");
      (void)SplitTextToTwoLines(s);
      (void)DeleteDuplicates(s, ',');
      (void)DeleteTextBetweenText(s, "", "");
      SplitText(s, s, &list);
    });
  }
}

// --- Cyrillic under the Russian ANSI code page -----------------------------------------
// Wine takes the ANSI code page from the Unix locale when a process starts, and a child
// started from inside Wine keeps its parent's. So the child is started from a Unix shell
// (Wine runs Unix programs given by a Unix path) with a Russian locale compiled on the spot.

namespace {

bool UnderWine() {
  return GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
}

// name=hex lines written by the child.
std::map<std::string, std::string> ReadResults(const std::string& FileName) {
  std::map<std::string, std::string> r;
  TStringList lines;
  lines.SetText(kltest::ReadFileBytes(FileName));
  for (int i = 0; i < lines.Count(); ++i) r[lines.Names(i)] = HexToStr(lines.ValueFromIndex(i));
  return r;
}

}  // namespace

KL_CHILD_ROLE(text_ru) {
  if (Args.empty()) return 2;
  GetLocaleFormatSettings();
  TStringList out;
  auto put = [&](const std::string& k, const std::string& v) { out.Add(k + "=" + StrToHex(v)); };
  put("acp", std::to_string(GetACP()));
  put("sep", std::string(1, FormatSettings().DecimalSeparator));
  put("lower", AnsiLowerCase("ЁЧЯ Ab"));
  put("upper", AnsiUpperCase("ёчя aB"));
  int32_t pos = 1;
  put("find", FindText("Привет, МИР", "мир", pos) ? std::to_string(pos) : "-");
  put("replace", StringReplaceEx("Мама МАМА мАмА", "мама", "папа", ReplaceAll | IgnoreCase));
  put("count", std::to_string(GetCountOfSubtext("ЯяЯ", "я")));
  put("couples", FindBetweenCouple("xЁabЯy", "ё", "я"));
  put("soundex", MySoundEx("Щука Robert"));
  double v = 0;
  put("float", TryStrToFloatEx("1 234.5", v) ? std::to_string(v) : "-");
  put("utf8", UTF8ToStrSmart(U8(u8"Привет, мир")));
  const std::string file = Args[0] + ".u8";
  SaveUtf8StringToFile("Ёлка", file);
  put("u8file", kltest::ReadFileBytes(file));
  put("u8back", LoadUtf8StringFromFile(file));
  SaveStrToFile(out.GetText(), Args[0] + ".tmp");
  return MoveFileA((Args[0] + ".tmp").c_str(), Args[0].c_str()) ? 0 : 3;
}

TEST(TextCyrillic, UnderRussianCodePage) {
  kltest::TTempDir dir;
  const std::string result = dir / "ru.txt";
  if (GetACP() == 1251) {
    ASSERT_EQ(kltest::RunChild("text_ru", {result}).ExitCode, 0u);
  } else {
    if (!UnderWine()) GTEST_SKIP() << "no Russian code page and not under Wine";
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
  auto r = ReadResults(result);
  if (r["acp"] != "1251") GTEST_SKIP() << "the child ran with code page " << r["acp"];
  EXPECT_EQ(r["sep"], ",");  // the Russian locale's separator, read at start-up
  EXPECT_EQ(r["lower"], "ёчя ab");
  EXPECT_EQ(r["upper"], "ЁЧЯ AB");
  EXPECT_EQ(r["find"], "9");
  EXPECT_EQ(r["replace"], "папа папа папа");
  EXPECT_EQ(r["count"], "3");
  EXPECT_EQ(r["couples"], "ab");
  EXPECT_EQ(r["soundex"], "rbrt");
  EXPECT_EQ(r["float"].substr(0, 6), "1234.5");  // written by std::to_string: "1234.500000"
  EXPECT_EQ(r["utf8"], "Привет, мир");
  EXPECT_EQ(r["u8file"], U8(u8"Ёлка"));
  EXPECT_EQ(r["u8back"], "Ёлка");
}
