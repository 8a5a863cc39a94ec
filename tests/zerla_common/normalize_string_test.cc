// zerla_normalize_string: the canonical text of a process name.
#include "zerla_common/normalize_string.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(NormalizeString, LowerCasesAsciiLetters) {
  EXPECT_EQ(zerla_normalize_string("Chrome.EXE", true), "chrome.exe");
  EXPECT_EQ(zerla_normalize_string("ABCDEFGHIJKLMNOPQRSTUVWXYZ", true),
            "abcdefghijklmnopqrstuvwxyz");
}

TEST(NormalizeString, LeavesOtherCharactersAsTheyAre) {
  EXPECT_EQ(zerla_normalize_string("/usr/bin/python3.11_-+@[`{", true),
            "/usr/bin/python3.11_-+@[`{");
  // Bytes outside ASCII, such as UTF-8 "Ä" (0xC3 0x84), are not letters here.
  EXPECT_EQ(zerla_normalize_string("\xC3\x84XE", true), "\xC3\x84xe");
}

TEST(NormalizeString, TrimsLeadingAndTrailingWhiteSpace) {
  EXPECT_EQ(zerla_normalize_string("  bash  ", true), "bash");
  EXPECT_EQ(zerla_normalize_string("\t\n\v\f\r Bash\r\n\t\v\f ", true), "bash");
}

TEST(NormalizeString, KeepsInnerWhiteSpace) {
  EXPECT_EQ(zerla_normalize_string(" My  App\tName ", true), "my  app\tname");
}

TEST(NormalizeString, EmptyAndBlankGiveEmpty) {
  EXPECT_EQ(zerla_normalize_string("", true), "");
  EXPECT_EQ(zerla_normalize_string(" \t\r\n\v\f", true), "");
}

TEST(NormalizeString, LowerCasesAlsoWhenNotAsked) {
  EXPECT_EQ(zerla_normalize_string(" SSHD ", false), "sshd");
}

TEST(NormalizeString, KeepsEmbeddedNulBytes) {
  const std::string text("A\0B", 3);
  EXPECT_EQ(zerla_normalize_string(text, true), std::string("a\0b", 3));
}

TEST(NormalizeString, IsIdempotent) {
  const std::string once = zerla_normalize_string("  Some Process.Bin ", true);
  EXPECT_EQ(once, "some process.bin");
  EXPECT_EQ(zerla_normalize_string(once, true), once);
}

}  // namespace
