// The kernel's wide C runtime on 16-bit WCHAR: swprintf conversions with Microsoft
// semantics, _snwprintf at and around the buffer limit, and the wcs* functions.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include <wdm.h>

namespace {

std::u16string Wide(const wchar_t* text) { return std::u16string(reinterpret_cast<const char16_t*>(text)); }

template <typename... Args>
std::u16string Format(const wchar_t* format, Args... args) {
  wchar_t buffer[256];
  int count = swprintf(buffer, format, args...);
  std::u16string text = Wide(buffer);
  EXPECT_EQ(count, static_cast<int>(text.size()));
  return text;
}

TEST(WideFormat, StringAndCharacterConversionsFollowTheMicrosoftRuntime) {
  const wchar_t* wide = L"W\x00FCrde";  // a character above 0x7F survives the 16-bit path
  const char* narrow = "narrow";
  EXPECT_EQ(Format(L"[%s]", wide), u"[W\u00FCrde]");
  EXPECT_EQ(Format(L"[%ls|%ws]", wide, wide), u"[W\u00FCrde|W\u00FCrde]");
  EXPECT_EQ(Format(L"[%S|%hs]", narrow, narrow), u"[narrow|narrow]");
  EXPECT_EQ(Format(L"[%lS]", wide), u"[W\u00FCrde]");
  EXPECT_EQ(Format(L"[%c%C%hc%lc]", L'\x0416', 'n', 'h', L'w'), u"[\u0416nhw]");
  EXPECT_EQ(Format(L"[%s|%S]", static_cast<wchar_t*>(nullptr), static_cast<char*>(nullptr)), u"[(null)|(null)]");
  EXPECT_EQ(Format(L"[%-6s|%6S|%.3s]", L"ab", "cd", L"abcdef"), u"[ab    |    cd|abc]");

  UNICODE_STRING counted = {6, 10, const_cast<wchar_t*>(L"abcdef")};  // only "abc" counts
  ANSI_STRING ansi = {2, 4, const_cast<char*>("xyz")};
  EXPECT_EQ(Format(L"[%wZ|%Z]", &counted, &ansi), u"[abc|xy]");
}

TEST(WideFormat, IntegerConversions) {
  struct Case {
    const wchar_t* format;
    uint64_t value;
    bool wide64;  // pass the value as 64 bits
    std::u16string expected;
  } cases[] = {
      {L"%d", static_cast<uint32_t>(-42), false, u"-42"},
      {L"%u", 4294967295u, false, u"4294967295"},
      {L"%x", 0xBEEF, false, u"beef"},
      {L"%X", 0xBEEF, false, u"BEEF"},
      {L"%04X", 0xA, false, u"000A"},
      {L"%08lx", 0x1234, false, u"00001234"},  // "l" is 32 bits, as on Windows
      {L"%#x", 0x1f, false, u"0x1f"},
      {L"%#o", 8, false, u"010"},
      {L"%+d", 7, false, u"+7"},
      {L"% d", 7, false, u" 7"},
      {L"%-5d|", 42, false, u"42   |"},
      {L"%5.3d", 7, false, u"  007"},
      {L"%.0d", 0, false, u""},
      {L"%hd", 0x12345, false, u"9029"},  // cut to 16 bits
      {L"%I64x", 0x123456789ABCDEF0ull, true, u"123456789abcdef0"},
      {L"%I64d", static_cast<uint64_t>(-5000000000LL), true, u"-5000000000"},
      {L"%llu", 18446744073709551615ull, true, u"18446744073709551615"},
      {L"%Ix", 0xFFFFFFFFFull, true, u"fffffffff"},
      {L"%I32u", 4000000000u, false, u"4000000000"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    if (c.wide64) {
      EXPECT_EQ(Format(c.format, static_cast<unsigned long long>(c.value)), c.expected);
    } else {
      EXPECT_EQ(Format(c.format, static_cast<unsigned int>(c.value)), c.expected);
    }
  }
  EXPECT_EQ(Format(L"%p", reinterpret_cast<void*>(0xABCDEF)), u"0000000000ABCDEF");
  EXPECT_EQ(Format(L"%*d|%-*d|", 4, 1, 3, 2), u"   1|2  |");
  EXPECT_EQ(Format(L"100%% %y"), u"100% y");  // an unknown conversion is copied as it is
  EXPECT_EQ(Format(L"%d %S %d", 1, "two", 3), u"1 two 3");  // arguments stay in step
}

// _snwprintf: terminated when the text is shorter than the count, not terminated when it
// fills the count exactly, -1 (and cut) when it is longer.
TEST(WideFormat, SnwprintfAtTheLimit) {
  struct Case {
    size_t count;
    int result;
    std::u16string stored;  // what the buffer holds from its start
    bool terminated;
  } cases[] = {
      {6, 5, u"hello", true},
      {5, 5, u"hello", false},
      {4, -1, u"hell", false},
      {0, -1, u"", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.count);
    wchar_t buffer[8];
    for (wchar_t& ch : buffer) ch = L'#';
    EXPECT_EQ(_snwprintf(buffer, c.count, L"%s", L"hello"), c.result);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(buffer), c.stored.size()), c.stored);
    EXPECT_EQ(buffer[c.stored.size()], c.terminated ? 0 : L'#');
    for (size_t i = c.stored.size() + 1; i < 8; ++i) EXPECT_EQ(buffer[i], L'#') << i;
  }
}

TEST(WideStrings, CopyConcatenateCompareAndSearch) {
  wchar_t buffer[16];
  EXPECT_EQ(wcscpy(buffer, L"USB"), buffer);
  EXPECT_EQ(wcscat(buffer, L"\\VID"), buffer);
  EXPECT_EQ(Wide(buffer), u"USB\\VID");
  EXPECT_EQ(wcslen(buffer), 7u);
  EXPECT_EQ(wcslen(L""), 0u);

  EXPECT_EQ(wcscmp(L"abc", L"abc"), 0);
  EXPECT_LT(wcscmp(L"abc", L"abd"), 0);
  EXPECT_GT(wcscmp(L"abc", L"ab"), 0);
  EXPECT_GT(wcscmp(L"\x00E9", L"e"), 0);  // compared as unsigned 16-bit
  EXPECT_EQ(_wcsicmp(L"Usb\\Class_02", L"USB\\CLASS_02"), 0);
  EXPECT_GT(_wcsicmp(L"A", L"_"), 0);  // folded to lower case, as the C runtime does: "a" after "_"
  EXPECT_NE(_wcsicmp(L"\x00E9", L"\x00C9"), 0);  // ASCII letters only

  wchar_t padded[6];
  for (wchar_t& ch : padded) ch = L'#';
  wcsncpy(padded, L"ab", 5);
  EXPECT_EQ(padded[1], L'b');
  EXPECT_EQ(padded[2], 0);
  EXPECT_EQ(padded[4], 0);  // padded to the count
  EXPECT_EQ(padded[5], L'#');
  wcsncpy(padded, L"abcdefgh", 3);
  EXPECT_EQ(padded[2], L'c');
  EXPECT_EQ(padded[3], 0);  // left from before: no terminator added

  const wchar_t* path = L"\\Registry\\Machine\\usbmi";
  EXPECT_EQ(wcschr(path, L'\\'), path);
  EXPECT_EQ(wcsrchr(path, L'\\'), path + 17);
  EXPECT_EQ(wcschr(path, L'#'), nullptr);
  EXPECT_EQ(wcsrchr(path, L'#'), nullptr);
  EXPECT_EQ(wcschr(path, 0), path + wcslen(path));
}

}  // namespace
