// Free functions on 8-bit (ANSI) strings: replacing with notification, splitting,
// finding and cutting text between delimiters, tag stripping, escapes, Cyrillic
// transliteration, a phonetic key, tolerant number parsing, string files in ANSI,
// UTF-8 and UTF-16, and hex conversion. Positions are 1-based.
//
// Searches named without "CaseSensitive" lower-case both sides with the ANSI code
// page's rules (CharLowerBuffA) and cut their results from the unchanged input. The
// decimal separator is kl::FormatSettings().DecimalSeparator.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

namespace kl::UTextEx {

// Called once per replacement with the 1-based position of the occurrence in the input.
using TStringReplaceExEvent =
    std::function<void(const std::string& OldPattern, const std::string& NewPattern, int32_t Position)>;
// Receives the replacement text of one occurrence (1-based position in the input) and
// may change it before it is written.
using TStringReplaceExSubstitute =
    std::function<void(const std::string& OldPattern, std::string& NewPattern, int32_t Position)>;

using TReplaceFlags = uint8_t;
constexpr TReplaceFlags ReplaceAll = 1;
constexpr TReplaceFlags IgnoreCase = 2;

// Lower/upper case with the ANSI code page's rules.
std::string AnsiLowerCase(const std::string& S);
std::string AnsiUpperCase(const std::string& S);

// --- replacing and symbols ----------------------------------------------------------
// One allocation of the result per call, whatever the number of replacements.
std::string StringReplaceEx(const std::string& S, const std::string& OldPattern, const std::string& NewPattern,
                            TReplaceFlags Flags, const TStringReplaceExEvent& OnReplace = nullptr);
std::string StringReplaceEx2(const std::string& S, const std::string& OldPattern, const std::string& NewPattern,
                             TReplaceFlags Flags, const TStringReplaceExSubstitute& OnSubstitute);
std::string ReplaceSymbols(const std::string& S, const std::string& Symbols, const std::string& Replacement);
std::string DeleteSymbolsFromText(const std::string& S, const std::string& Symbols);
// Removes every Left ... Right block, delimiters included (case-insensitive). A Left
// without a closing Right is left alone.
std::string DeleteTextBetweenText(const std::string& S, const std::string& Left, const std::string& Right);
// S holds UTF-16LE code units (two bytes each; an odd last byte is ignored).
std::string TwoBytesCharsToOneByteChars(const std::string& S);
std::string TwoBytesCharsToOneByteChars(const std::wstring& S);

// --- splitting, finding, cutting ----------------------------------------------------
void SplitText(const std::string& S, const std::string& Delimiter, TStringList* List);
void SplitText(const std::string& S, const std::string& Open, const std::string& Close, TStringList* List);
// Only the enclosure after the Index-th (1-based) Open goes to List.
void SplitText(const std::string& S, const std::string& Open, const std::string& Close, int32_t Index,
               TStringList* List);
// Nesting-aware: nested pairs come back whole, as one item. MaxCount 0 = no limit.
bool FindBetweenCouples(const std::string& S, const std::string& Open, const std::string& Close, TStringList* List,
                        int32_t MaxCount);
std::string FindBetweenCouple(const std::string& S, const std::string& Open, const std::string& Close);
// The text between the first Left and the next Right (an empty Right means "to the
// end"); empty if either is missing. The Pos forms start at Pos and, on success, set
// Pos to the first position after Right; on failure Pos is unchanged.
std::string CutInnerText(const std::string& S, const std::string& Left, const std::string& Right);
std::string CutInnerText(const std::string& S, const std::string& Left, const std::string& Right, int32_t& Pos);
std::string CutOuterText(const std::string& S, const std::string& Left, const std::string& Right);
std::string CutOuterText(const std::string& S, const std::string& Left, const std::string& Right, int32_t& Pos);
// Search from Pos (values below 1 count as 1); on success Pos is where What starts.
bool FindTextCaseSensitive(const std::string& Where, const std::string& What, int32_t& Pos);
bool FindText(const std::string& Where, const std::string& What, int32_t& Pos);
// The last occurrence that starts at or before Pos (past the end counts as the end).
bool FindTextBackward(const std::string& Where, const std::string& What, int32_t& Pos);
// From line LineIndex (0-based, negative counts as 0); on success LineIndex is the
// line and Pos the 1-based position in it.
bool FindLineContainsText(const TStringList& Lines, const std::string& What, int32_t& LineIndex, int32_t& Pos);
bool FindLineContainsText(const std::string& Text, const std::string& What, int32_t& LineIndex, int32_t& Pos);
// Non-overlapping, case-insensitive.
int32_t GetCountOfSubtext(const std::string& S, const std::string& Sub);
// Keeps the first of equal lines/items.
void DeleteDuplicates(TStringList& List, bool IgnoreCaseFlag = false);
std::string DeleteDuplicates(const std::string& S, char Delimiter);

// --- tags, escapes, transliteration -------------------------------------------------
std::string GetTextWithoutTags(const std::string& S);
std::string UnescapeText(const std::string& S);
std::string PackEscapeSymbols(const std::string& S);
std::string ExtractEscapeSymbols(const std::string& S);
std::string Translit(const std::string& S);
std::string MySoundEx(const std::string& S);

// --- numbers ------------------------------------------------------------------------
bool TryStrToFloatEx(const std::string& S, double& Value);
// Raises EConvertError.
double StrToFloatEx(const std::string& S);
double StrToFloatDefEx(const std::string& S, double Default);
std::string CorrectDecimalSeparator(const std::string& S);

// --- files and streams --------------------------------------------------------------
// Failures are logged and reported by result (false, empty); nothing raises.
// UTF-8 and UTF-16 files are written without a byte order mark; one is skipped on reading.
bool SaveStrToFile(const std::string& S, const std::string& FileName);
bool AddStrToFile(const std::string& S, const std::string& FileName);
std::string LoadStrFromFile(const std::string& FileName);
bool SaveUtf8StringToStream(const std::string& S, TStream& Stream);
std::string LoadUtf8StringFromStream(TStream& Stream);
bool SaveUtf8StringToFile(const std::string& S, const std::string& FileName);
std::string LoadUtf8StringFromFile(const std::string& FileName);
bool SaveWideStringToFile(const std::wstring& W, const std::string& FileName);
std::wstring LoadWideStringFromFile(const std::string& FileName);
bool SaveWideStringToStream(const std::wstring& W, TStream& Stream);
std::wstring LoadWideStringFromStream(TStream& Stream);
// The bytes from the stream's position to its end.
std::string StringFromStream(TStream& Stream);
std::string UTF8ToStrSmart(const std::string& S);
// Items joined by CR LF (none after the last), by one blank, or by Separator.
std::string StringsToStr(const TStringList& List);
std::string StringsAsSingleLine(const TStringList& List);
std::string JoinStrings(const TStringList& List, const std::string& Separator);

// --- layout and hex -----------------------------------------------------------------
// Pads on the right up to Width characters; a longer S is returned as it is.
std::string PadString(const std::string& S, int32_t Width, char Ch);
std::string MoveTextToRight(const std::string& S, int32_t Count);
void MoveTextToRight(TStringList& List, int32_t Count);
// Replaces the blank nearest the middle by CR LF; a text without blanks is returned as it is.
std::string SplitTextToTwoLines(const std::string& S);
const std::string& Max(const std::string& A, const std::string& B);
const std::string& Min(const std::string& A, const std::string& B);
std::string StrToHex(const std::string& S);
// Length(S) div 2 bytes; from the first pair that is not hex on, the bytes are zero.
std::string HexToStr(const std::string& S);

}  // namespace kl::UTextEx
