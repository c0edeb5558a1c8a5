// The framework's streams and string list against real files.
#include <gtest/gtest.h>

#include <cstring>

#include "KlTest.h"
#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

using namespace kl;

TEST(Streams, MemoryAndFileStreamsReadWriteSeekAndSize) {
  kltest::TTempDir dir;
  TMemoryStream m;
  m.Seek(4, TSeekOrigin::soBeginning);
  m.WriteBuffer("abcd", 4);  // written past the end: the gap is zeros
  EXPECT_EQ(m.GetSize(), 8);
  EXPECT_EQ(std::memcmp(m.Memory(), "\0\0\0\0abcd", 8), 0);
  char buf[8] = {};
  EXPECT_EQ(m.Read(buf, 8), 0);  // at the end
  EXPECT_THROW(m.ReadBuffer(buf, 1), EReadError);
  m.SetSize(6);
  EXPECT_EQ(m.GetPosition(), 6);
  m.SaveToFile(dir / "m.bin");
  {
    TFileStream f(dir / "m.bin", fmOpenReadWrite | fmShareDenyWrite);
    EXPECT_THROW(TFileStream(dir / "m.bin", fmOpenWrite | fmShareDenyNone), EFOpenError);  // denied to writers
    TFileStream reader(dir / "m.bin", fmOpenRead | fmShareDenyNone);
    EXPECT_EQ(f.Seek(-2, TSeekOrigin::soEnd), 4);
    EXPECT_EQ(f.Read(buf, 8), 2);
    f.SetSize(5);
    EXPECT_EQ(reader.GetSize(), 5);
    TMemoryStream copy;
    EXPECT_EQ(copy.CopyFrom(f, 0), 5);  // 0: all of it from the start
    EXPECT_EQ(std::memcmp(copy.Memory(), "\0\0\0\0a", 5), 0);
  }
  m.LoadFromFile(dir / "m.bin");
  EXPECT_EQ(m.GetSize(), 5);
  EXPECT_THROW(TFileStream(dir / "missing.bin", fmOpenRead), EFOpenError);
  EXPECT_THROW(TFileStream(dir / "no\\such.bin", fmCreate), EFCreateError);
}

TEST(StringList, TextLinesNamesAndValuesAndFiles) {
  kltest::TTempDir dir;
  TStringList l;
  l.SetText("a=1\r\nB=2\nc\r\rd=");
  EXPECT_EQ(l.Items(), (std::vector<std::string>{"a=1", "B=2", "c", "", "d="}));
  EXPECT_EQ(l.GetText(), "a=1\r\nB=2\r\nc\r\n\r\nd=\r\n");
  EXPECT_EQ(l.IndexOf("C"), 2);
  EXPECT_EQ(l.Values("b"), "2");
  EXPECT_EQ(l.Names(2), "");
  l.SetValue("A", "9");
  l.SetValue("b", "");  // an empty value deletes the line
  l.SetValue("e", "5");
  EXPECT_EQ(l.Items(), (std::vector<std::string>{"A=9", "c", "", "d=", "e=5"}));
  l.Insert(99, "last");
  l.Delete(-1);
  l.Delete(99);
  EXPECT_EQ(l[l.Count() - 1], "last");
  l.SaveToFile(dir / "l.txt");
  TStringList back;
  back.LoadFromFile(dir / "l.txt");
  EXPECT_EQ(back.Items(), l.Items());
}
