// UNICODE_STRING and ANSI_STRING routines: lengths, termination only where there is room,
// buffer limits on both sides, case folding in compares, runtime-allocated buffers and
// integer conversions.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdm.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "expect_violation.h"

namespace {

constexpr ULONG kRuntimeStringTag = 0x67727453;  // "Strg"

std::u16string Text(PCUNICODE_STRING s) {
  return std::u16string(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / 2);
}

UNICODE_STRING Counted(const wchar_t* text) {
  UNICODE_STRING s;
  RtlInitUnicodeString(&s, text);
  return s;
}

TEST(UnicodeString, InitCountsBytesWithoutTheTerminator) {
  UNICODE_STRING s;
  ANSI_STRING a;
  for (const wchar_t* text : {L"usbmi", L"", static_cast<const wchar_t*>(nullptr)}) {
    RtlInitUnicodeString(&s, text);
    const USHORT chars = text ? static_cast<USHORT>(wcslen(text)) : 0;
    EXPECT_EQ(s.Length, 2 * chars);
    EXPECT_EQ(s.MaximumLength, text ? 2 * chars + 2 : 0);
    EXPECT_EQ(s.Buffer, text);
  }
  RtlInitAnsiString(&a, "usbmi");
  EXPECT_EQ(a.Length, 5);
  EXPECT_EQ(a.MaximumLength, 6);
  RtlInitAnsiString(&a, nullptr);
  EXPECT_EQ(a.MaximumLength, 0);
}

TEST(UnicodeString, CopyCutsToTheDestinationAndTerminatesWhereThereIsRoom) {
  UNICODE_STRING source = Counted(L"ABCDEF");
  struct Case {
    USHORT capacity;  // bytes
    std::u16string copied;
    bool terminated;
  } cases[] = {{14, u"ABCDEF", true}, {12, u"ABCDEF", false}, {10, u"ABCDE", false}, {0, u"", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.capacity);
    std::vector<WCHAR> buffer(8, L'#');
    UNICODE_STRING destination = {0, c.capacity, buffer.data()};
    RtlCopyUnicodeString(&destination, &source);
    EXPECT_EQ(Text(&destination), c.copied);
    EXPECT_EQ(buffer[c.copied.size()], c.terminated ? 0 : L'#');
  }
  std::vector<WCHAR> buffer(4, L'#');
  UNICODE_STRING destination = {6, 8, buffer.data()};
  RtlCopyUnicodeString(&destination, nullptr);
  EXPECT_EQ(destination.Length, 0);
}

TEST(UnicodeString, AppendFitsExactlyOrFailsUnchanged) {
  WCHAR buffer[6] = {L'a', L'b', L'#', L'#', L'#', L'#'};
  UNICODE_STRING destination = {4, 8, buffer};  // "ab", room for 4 characters
  UNICODE_STRING two = Counted(L"cd");
  UNICODE_STRING three = Counted(L"cde");

  EXPECT_EQ(RtlAppendUnicodeStringToString(&destination, &three), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(Text(&destination), u"ab");
  EXPECT_EQ(buffer[2], L'#');
  EXPECT_EQ(RtlAppendUnicodeStringToString(&destination, &two), STATUS_SUCCESS);  // exactly full: no terminator
  EXPECT_EQ(Text(&destination), u"abcd");
  EXPECT_EQ(buffer[4], L'#');

  destination.Length = 2;  // "a"
  destination.MaximumLength = 10;
  EXPECT_EQ(RtlAppendUnicodeToString(&destination, L"bcde"), STATUS_SUCCESS);
  EXPECT_EQ(Text(&destination), u"abcde");
  EXPECT_EQ(RtlAppendUnicodeToString(&destination, L"f"), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(RtlAppendUnicodeToString(&destination, nullptr), STATUS_SUCCESS);
  destination.Length = 2;
  EXPECT_EQ(RtlAppendUnicodeToString(&destination, L"bc"), STATUS_SUCCESS);
  EXPECT_EQ(buffer[3], 0);  // room left: terminated
}

TEST(UnicodeString, CompareFoldsCaseOnlyWhenAsked) {
  struct Case {
    const wchar_t* a;
    const wchar_t* b;
    int sensitive;    // sign of the case-sensitive result
    int insensitive;  // sign of the case-insensitive result
  } cases[] = {
      {L"USB\\VID_1234", L"usb\\vid_1234", -1, 0},
      {L"abc", L"abd", -1, -1},
      {L"abc", L"ab", 1, 1},
      {L"", L"", 0, 0},
      {L"\x00E9t\x00E9", L"\x00C9T\x00C9", 1, 0},  // Latin-1 letters fold too
      {L"_", L"a", -1, 1},                        // folding goes to upper case: '_' sorts after 'A'
  };
  auto sign = [](LONG v) { return (v > 0) - (v < 0); };
  for (const Case& c : cases) {
    UNICODE_STRING a = Counted(c.a), b = Counted(c.b);
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    EXPECT_EQ(sign(RtlCompareUnicodeString(&a, &b, FALSE)), c.sensitive);
    EXPECT_EQ(sign(RtlCompareUnicodeString(&a, &b, TRUE)), c.insensitive);
    EXPECT_EQ(sign(RtlCompareUnicodeString(&b, &a, TRUE)), -c.insensitive);
    EXPECT_EQ(RtlEqualUnicodeString(&a, &b, TRUE), c.insensitive == 0);
    EXPECT_EQ(RtlEqualUnicodeString(&a, &b, FALSE), c.sensitive == 0);
  }
  UNICODE_STRING longer = Counted(L"abc");
  UNICODE_STRING prefix = {4, 6, longer.Buffer};  // "ab" in the same buffer
  EXPECT_FALSE(RtlEqualUnicodeString(&longer, &prefix, TRUE));
}

TEST(UnicodeString, UpcaseChar) {
  const std::pair<WCHAR, WCHAR> pairs[] = {
      {L'a', L'A'},       {L'z', L'Z'},       {L'A', L'A'},       {L'0', L'0'},       {L'{', L'{'},
      {0x00E0, 0x00C0},   {0x00F7, 0x00F7},   {0x00FF, 0x0178},   {0x00DF, 0x00DF},   {0x0101, 0x0100},
      {0x017E, 0x017D},   {0x03B1, 0x0391},   {0x03C2, 0x03A3},   {0x0430, 0x0410},   {0x0451, 0x0401},
      {0xFF41, 0xFF21},
  };
  for (const auto& [in, out] : pairs) EXPECT_EQ(RtlUpcaseUnicodeChar(in), out) << std::hex << int(in);
}

class RuntimeStrings : public testing::Test {
 protected:
  wdmsim::Kernel mKernel;
};

TEST_F(RuntimeStrings, AnsiToUnicodeAllocatesFromThePoolAndFreeReleases) {
  ANSI_STRING ansi;
  RtlInitAnsiString(&ansi, "Caf\xE9");
  UNICODE_STRING unicode = {7, 7, reinterpret_cast<PWSTR>(0x1)};
  ASSERT_EQ(RtlAnsiStringToUnicodeString(&unicode, &ansi, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(Text(&unicode), u"Caf\u00E9");
  EXPECT_EQ(unicode.MaximumLength, 10);
  EXPECT_EQ(unicode.Buffer[4], 0);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kRuntimeStringTag), 1u);
  RtlFreeUnicodeString(&unicode);
  EXPECT_EQ(unicode.Buffer, nullptr);
  EXPECT_EQ(unicode.Length, 0);
  EXPECT_EQ(unicode.MaximumLength, 0);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kRuntimeStringTag), 0u);
  RtlFreeUnicodeString(&unicode);  // an empty string: nothing to free

  wdmsim::FailPoolAllocationsWithTag(kRuntimeStringTag);
  EXPECT_EQ(RtlAnsiStringToUnicodeString(&unicode, &ansi, TRUE), STATUS_NO_MEMORY);

  // Into the caller's buffer: the terminator must fit as well.
  RtlInitAnsiString(&ansi, "abc");
  WCHAR buffer[4] = {L'#', L'#', L'#', L'#'};
  unicode = {0, 6, buffer};
  EXPECT_EQ(RtlAnsiStringToUnicodeString(&unicode, &ansi, FALSE), STATUS_BUFFER_OVERFLOW);
  unicode.MaximumLength = 8;
  EXPECT_EQ(RtlAnsiStringToUnicodeString(&unicode, &ansi, FALSE), STATUS_SUCCESS);
  EXPECT_EQ(Text(&unicode), u"abc");
  EXPECT_EQ(buffer[3], 0);
}

TEST_F(RuntimeStrings, UnicodeToAnsiCutsWhatDoesNotFit) {
  UNICODE_STRING unicode = Counted(L"A\x00E9\x20AC");  // A, e-acute, euro sign
  ANSI_STRING ansi;
  ASSERT_EQ(RtlUnicodeStringToAnsiString(&ansi, &unicode, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(std::string(ansi.Buffer, ansi.Length), "A\xE9?");  // no euro sign in Latin-1
  EXPECT_EQ(ansi.MaximumLength, 4);
  EXPECT_EQ(ansi.Buffer[3], 0);
  RtlFreeAnsiString(&ansi);
  EXPECT_EQ(ansi.Buffer, nullptr);

  char buffer[3] = {'#', '#', '#'};
  ANSI_STRING small = {0, 3, buffer};
  EXPECT_EQ(RtlUnicodeStringToAnsiString(&small, &unicode, FALSE), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(small.Length, 2);
  EXPECT_EQ(std::string(buffer, 3), std::string("A\xE9\0", 3));
  EXPECT_EQ(wdmsim::LivePoolBlockCount(kRuntimeStringTag), 0u);
}

TEST_F(RuntimeStrings, FreeingABufferTheRuntimeDidNotAllocateIsReported) {
  wdmsim_test::ExpectViolations expect;
  PWSTR own = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, 8, 0x72745355));  // "UStr"
  UNICODE_STRING s = {0, 8, own};
  RtlFreeUnicodeString(&s);
  EXPECT_EQ(expect.Count("BAD_POOL_CALLER"), 1);
}

TEST(IntegerStrings, IntegerToUnicodeInEachBase) {
  struct Case {
    ULONG value;
    ULONG base;
    std::u16string text;
  } cases[] = {
      {0, 10, u"0"},        {123, 0, u"123"},          {4294967295u, 10, u"4294967295"},
      {255, 16, u"FF"},     {0xDEADBEEF, 16, u"DEADBEEF"}, {8, 8, u"10"},
      {5, 2, u"101"},       {0x80000000u, 2, u"10000000000000000000000000000000"},
  };
  for (const Case& c : cases) {
    WCHAR buffer[40];
    UNICODE_STRING s = {0, sizeof buffer, buffer};
    ASSERT_EQ(RtlIntegerToUnicodeString(c.value, c.base, &s), STATUS_SUCCESS);
    EXPECT_EQ(Text(&s), c.text);
    EXPECT_EQ(buffer[c.text.size()], 0);
  }
  WCHAR buffer[3];
  UNICODE_STRING s = {0, 6, buffer};
  EXPECT_EQ(RtlIntegerToUnicodeString(123, 10, &s), STATUS_BUFFER_OVERFLOW);  // no room for the terminator
  s.MaximumLength = 6;
  EXPECT_EQ(RtlIntegerToUnicodeString(12, 10, &s), STATUS_SUCCESS);
  EXPECT_EQ(RtlIntegerToUnicodeString(12, 7, &s), STATUS_INVALID_PARAMETER);
}

TEST(IntegerStrings, UnicodeToInteger) {
  struct Case {
    const wchar_t* text;
    ULONG base;
    NTSTATUS status;
    ULONG value;
  } cases[] = {
      {L"1234567", 0, STATUS_SUCCESS, 1234567},
      {L"-214", 0, STATUS_SUCCESS, static_cast<ULONG>(-214)},
      {L"+214", 0, STATUS_SUCCESS, 214},
      {L"--214", 0, STATUS_SUCCESS, 0},
      {L"\t 42", 0, STATUS_SUCCESS, 42},
      {L"0x1aF", 0, STATUS_SUCCESS, 0x1AF},
      {L"0o17", 0, STATUS_SUCCESS, 017},
      {L"0b101", 0, STATUS_SUCCESS, 5},
      {L"0x", 0, STATUS_SUCCESS, 0},
      {L"12ab", 10, STATUS_SUCCESS, 12},
      {L"0x10", 16, STATUS_SUCCESS, 0},  // the prefix is read with base 0 only
      {L"ff", 16, STATUS_SUCCESS, 255},
      {L"4294967296", 10, STATUS_SUCCESS, 0},  // wraps at 32 bits
      {L"1", 3, STATUS_INVALID_PARAMETER, 0xDEADBEEF},
      {L"", 10, STATUS_INVALID_PARAMETER, 0xDEADBEEF},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    UNICODE_STRING s = Counted(c.text);
    ULONG value = 0xDEADBEEF;
    EXPECT_EQ(RtlUnicodeStringToInteger(&s, c.base, &value), c.status);
    EXPECT_EQ(value, c.value);
  }
  UNICODE_STRING cut = Counted(L"12345");
  cut.Length = 4;  // only "12" counts
  ULONG value = 0;
  EXPECT_EQ(RtlUnicodeStringToInteger(&cut, 10, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 12u);
}

}  // namespace
