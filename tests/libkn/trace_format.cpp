// The trace format engine: conversions, qualifiers, widths, precisions and flags, the
// bounded output buffer, and KnFormatNumber on its own.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include <ntddk.h>

#include "kntrace.h"

namespace {

// Formats the way KnTrace does: into a 256-byte buffer.
std::string Format(const char* format, ...) {
  char buffer[256];
  va_list args;
  va_start(args, format);
  KnTraceVFormat(buffer, buffer + sizeof(buffer), format, args);
  va_end(args);
  return buffer;
}

char* FormatInto(char* buffer, char* end, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* result = KnTraceVFormat(buffer, end, format, args);
  va_end(args);
  return result;
}

// Formats into a buffer of `size` bytes that sits between sentinel bytes, and checks that
// nothing outside [buffer, buffer + size) was written.
std::string FormatBounded(size_t size, const char* format, ...) {
  const char kSentinel = '\x5A';
  char storage[600];
  memset(storage, kSentinel, sizeof(storage));
  char* buffer = storage + 16;
  va_list args;
  va_start(args, format);
  char* end = KnTraceVFormat(buffer, buffer + size, format, args);
  va_end(args);
  for (char* p = storage; p < buffer; p++) EXPECT_EQ(*p, kSentinel) << "written before the buffer";
  for (char* p = buffer + size; p < storage + sizeof(storage); p++) EXPECT_EQ(*p, kSentinel) << "written past End";
  EXPECT_EQ(*end, '\0');
  return std::string(buffer, end);
}

class PrefixGuard {
 public:
  PrefixGuard() { memcpy(mSaved, gKnTracePrefix, sizeof(mSaved)); }
  ~PrefixGuard() { memcpy(gKnTracePrefix, mSaved, sizeof(mSaved)); }

 private:
  char mSaved[kKnTracePrefixSize];
};

TEST(TraceFormat, SignedAndUnsignedDecimal) {
  EXPECT_EQ(Format("%d", -5), "-5");
  EXPECT_EQ(Format("%i", 0), "0");
  EXPECT_EQ(Format("%d", 2147483647), "2147483647");
  EXPECT_EQ(Format("%d", (int)0x80000000), "-2147483648");
  EXPECT_EQ(Format("%u", -5), "4294967291");
  EXPECT_EQ(Format("%u", 0xFFFFFFFFu), "4294967295");
  EXPECT_EQ(Format("a%db%uc", 12, 34), "a12b34c");
}

TEST(TraceFormat, OctalAndHexadecimal) {
  EXPECT_EQ(Format("%o", 8), "10");
  EXPECT_EQ(Format("%#o", 8), "010");
  EXPECT_EQ(Format("%x", 255), "ff");
  EXPECT_EQ(Format("%X", 255), "FF");
  EXPECT_EQ(Format("%#x", 255), "0xff");
  EXPECT_EQ(Format("%#X", 255), "0XFF");
  EXPECT_EQ(Format("%x", 0xDEADBEEF), "deadbeef");
  EXPECT_EQ(Format("%#d", 255), "255");  // no prefix in base 10
}

TEST(TraceFormat, LengthQualifiers) {
  // h: the low 16 bits, sign-extended only for d and i.
  EXPECT_EQ(Format("%hd", 0x18000), "-32768");
  EXPECT_EQ(Format("%hu", 0x18000), "32768");
  EXPECT_EQ(Format("%hx", 0x12345), "2345");
  EXPECT_EQ(Format("%hd", 0x17FFF), "32767");
  // l and L: 32 bits, as on the platform.
  EXPECT_EQ(Format("%lx", 0xFFFFFFFFu), "ffffffff");
  EXPECT_EQ(Format("%Ld", -7), "-7");
  EXPECT_EQ(Format("%ld", -7), "-7");
  // I and ll: 64 bits.
  EXPECT_EQ(Format("%Ix", 0x123456789ABCDEF0ull), "123456789abcdef0");
  EXPECT_EQ(Format("%llx", 0x123456789ABCDEF0ull), "123456789abcdef0");
  EXPECT_EQ(Format("%Id", -1ll), "-1");
  EXPECT_EQ(Format("%llu", 18446744073709551615ull), "18446744073709551615");
  EXPECT_EQ(Format("%lld", (long long)INT64_MIN), "-9223372036854775808");
  // The 64-bit argument must be consumed whole: the next conversion sees its own argument.
  EXPECT_EQ(Format("%Ix %d", 0x100000002ull, 9), "100000002 9");
  // "I64" is not understood: "6" ends the conversion, and no argument is taken by it.
  EXPECT_EQ(Format("%I64x %d", 7), "%64x 7");
}

TEST(TraceFormat, WidthPrecisionAndFlags) {
  EXPECT_EQ(Format("%5d|", 42), "   42|");
  EXPECT_EQ(Format("%-5d|", 42), "42   |");
  EXPECT_EQ(Format("%05d", 42), "00042");
  EXPECT_EQ(Format("%-05d|", 42), "42   |");  // left-justify cancels zero pad
  EXPECT_EQ(Format("%05d", -42), "-0042");    // the sign takes a position of the width
  EXPECT_EQ(Format("%5d", -42), "  -42");
  EXPECT_EQ(Format("%+d", 5), "+5");
  EXPECT_EQ(Format("%+d", -5), "-5");
  EXPECT_EQ(Format("% d", 5), " 5");
  EXPECT_EQ(Format("%+ d", 5), "+5");  // plus wins over space
  EXPECT_EQ(Format("%+u", 5), "5");    // signs only for signed conversions
  EXPECT_EQ(Format("%.3d", 7), "007");
  EXPECT_EQ(Format("%5.3d|", 7), "  007|");
  EXPECT_EQ(Format("%.2d", 12345), "12345");  // precision never cuts a number
  EXPECT_EQ(Format("%.0d", 0), "0");
  EXPECT_EQ(Format("%.d", 3), "3");  // "." alone: precision 0
  EXPECT_EQ(Format("%*d|", 5, 42), "   42|");
  EXPECT_EQ(Format("%*d|", -5, 42), "42   |");  // negative width: left-justify
  EXPECT_EQ(Format("%.*d", 3, 7), "007");
  EXPECT_EQ(Format("%.*d", -2, 7), "7");  // negative precision becomes 0
  EXPECT_EQ(Format("%#08x", 255), "0x0000ff");
  EXPECT_EQ(Format("%#8x|", 255), "    0xff|");
  EXPECT_EQ(Format("%-#8x|", 255), "0xff    |");
  EXPECT_EQ(Format("%#5o", 8), "  010");
  EXPECT_EQ(Format("%*.*d|", 6, 4, -3), " -0003|");
}

TEST(TraceFormat, FixedWidthHexadecimal) {
  EXPECT_EQ(Format("%B", 0x1B), "1B");
  EXPECT_EQ(Format("%B", 7), "07");
  EXPECT_EQ(Format("%B", 0x1234), "1234");  // never cut
  EXPECT_EQ(Format("%W", 0xAB), "00AB");
  EXPECT_EQ(Format("%D", 0xC0000001), "C0000001");
  EXPECT_EQ(Format("%D", 1), "00000001");
  EXPECT_EQ(Format("%Q", 0x1234ull), "0000000000001234");
  EXPECT_EQ(Format("%Q", 0xFEDCBA9876543210ull), "FEDCBA9876543210");
  // The format's own width and flags are replaced ...
  EXPECT_EQ(Format("%-6B|", 7), "07|");
  EXPECT_EQ(Format("%#+10W|", 0xAB), "00AB|");
  // ... but its qualifier still applies.
  EXPECT_EQ(Format("%hB", 0x12345), "2345");
  EXPECT_EQ(Format("%IB %d", 0x123456789ull, 4), "123456789 4");
  EXPECT_EQ(Format("%D %d", -1, 4), "FFFFFFFF 4");
}

TEST(TraceFormat, Pointers) {
  EXPECT_EQ(Format("%p", (void*)0x1234), "0000000000001234");
  EXPECT_EQ(Format("%p", (void*)nullptr), "0000000000000000");
  EXPECT_EQ(Format("%p", (void*)0xFFFF800012345678ull), "ffff800012345678");
  EXPECT_EQ(Format("%8p|", (void*)0x1234), "    1234|");  // a given width: no zero pad
  EXPECT_EQ(Format("%p %d", (void*)0x1, 5), "0000000000000001 5");
}

TEST(TraceFormat, CharactersAndStrings) {
  EXPECT_EQ(Format("%c", 'A'), "A");
  EXPECT_EQ(Format("%c", 0x141), "A");  // the low byte
  EXPECT_EQ(Format("%3c|", 'A'), "  A|");
  EXPECT_EQ(Format("%-3c|", 'A'), "A  |");
  EXPECT_EQ(Format("%C", (int)L'Z'), "Z");
  EXPECT_EQ(Format("%C", 0x263A), ":");  // the low byte of the 16-bit character

  EXPECT_EQ(Format("%s", "abc"), "abc");
  EXPECT_EQ(Format("%5s|", "ab"), "   ab|");
  EXPECT_EQ(Format("%-5s|", "ab"), "ab   |");
  EXPECT_EQ(Format("%.2s|", "abcdef"), "ab|");
  EXPECT_EQ(Format("%4.2s|", "abcdef"), "  ab|");
  EXPECT_EQ(Format("%s", (const char*)nullptr), "<NULL>");
  EXPECT_EQ(Format("%s", ""), "");

  const WCHAR wide[] = {L'w', L'i', 0x0144, L'e', 0};  // U+0144: low byte 0x44 'D'
  EXPECT_EQ(Format("%S", wide), "wiDe");
  EXPECT_EQ(Format("%.2S|", wide), "wi|");
  EXPECT_EQ(Format("%6S|", wide), "  wiDe|");
  EXPECT_EQ(Format("%-6S|", wide), "wiDe  |");
  EXPECT_EQ(Format("%S", (const WCHAR*)nullptr), "<NULL>");
}

TEST(TraceFormat, CountedUnicodeStrings) {
  WCHAR text[] = L"abcdef";
  UNICODE_STRING counted;
  counted.Buffer = text;
  counted.Length = 3 * sizeof(WCHAR);  // stops at Length, not at the terminator
  counted.MaximumLength = sizeof(text);
  EXPECT_EQ(Format("[%U]", &counted), "[abc]");
  EXPECT_EQ(Format("[%10.1U]", &counted), "[abc]");  // width and precision ignored
  EXPECT_EQ(Format("[%U]", (UNICODE_STRING*)nullptr), "[<NULL>]");

  UNICODE_STRING empty;
  empty.Buffer = nullptr;
  empty.Length = 0;
  empty.MaximumLength = 0;
  EXPECT_EQ(Format("[%U]", &empty), "[]");
  empty.Buffer = text;
  EXPECT_EQ(Format("[%U]", &empty), "[]");
}

TEST(TraceFormat, StatusNames) {
  EXPECT_EQ(Format("stat=%N", (NTSTATUS)0xC0000001), "stat=0xC0000001 (STATUS_UNSUCCESSFUL)");
  EXPECT_EQ(Format("%N", STATUS_SUCCESS), "0x00000000 (STATUS_SUCCESS)");
  EXPECT_EQ(Format("%N", STATUS_PENDING), "0x00000103 (STATUS_PENDING)");
  EXPECT_EQ(Format("%N", (NTSTATUS)0xE0001234), "0xE0001234 (unknown)");
  // Width and flags do not apply; the argument is 32 bits.
  EXPECT_EQ(Format("%-20N|%d", STATUS_CANCELLED, 3), "0xC0000120 (STATUS_CANCELLED)|3");
}

TEST(TraceFormat, PrefixConversionAndSetPrefix) {
  PrefixGuard guard;
  KnTraceSetPrefix("usbmi");
  EXPECT_EQ(Format("%P:KnFdo::OnDispatchPnp\n"), "usbmi:KnFdo::OnDispatchPnp\n");
  EXPECT_EQ(Format("%10P|"), "usbmi|");  // no width for the prefix

  // At most 31 characters, and the rest of the 32 bytes cleared.
  KnTraceSetPrefix("0123456789012345678901234567890123456789");
  EXPECT_EQ(std::string(gKnTracePrefix), "0123456789012345678901234567890");
  KnTraceSetPrefix("ab");
  EXPECT_EQ(std::string(gKnTracePrefix), "ab");
  for (ULONG i = 2; i < kKnTracePrefixSize; i++) EXPECT_EQ(gKnTracePrefix[i], '\0') << "byte " << i;
  KnTraceSetPrefix("");
  EXPECT_EQ(Format("%P:x"), ":x");
}

TEST(TraceFormat, PercentSignsAndUnknownConversions) {
  EXPECT_EQ(Format("100%%"), "100%");
  EXPECT_EQ(Format("%k"), "%k");
  EXPECT_EQ(Format("%-08.3k"), "%k");  // what was parsed in between is dropped
  EXPECT_EQ(Format("%5%"), "%");
  EXPECT_EQ(Format("%n %d", 6), "%n 6");  // no argument taken, nothing stored
  EXPECT_EQ(Format("end%"), "end%");
  EXPECT_EQ(Format("end%-5"), "end%");
  EXPECT_EQ(Format("%"), "%");
}

TEST(TraceFormat, MessagesKeepTheirFirst255Characters) {
  for (size_t length : {254u, 255u, 256u, 400u}) {
    std::string text(length, 'x');
    for (size_t i = 0; i < length; i++) text[i] = (char)('a' + i % 26);
    std::string out = FormatBounded(256, "%s", text.c_str());
    EXPECT_EQ(out, text.substr(0, 255)) << length;
  }
  // Literal text past the limit behaves the same way.
  std::string literal(300, 'q');
  EXPECT_EQ(FormatBounded(256, literal.c_str()), std::string(255, 'q'));
  // A conversion that crosses the limit is cut where the limit falls.
  std::string head(250, 'a');
  EXPECT_EQ(FormatBounded(256, "%s%d", head.c_str(), 1234567890), head + "12345");
  EXPECT_EQ(FormatBounded(256, "%s%N", head.c_str(), STATUS_SUCCESS), head + "0x000");
}

TEST(TraceFormat, TinyBuffers) {
  EXPECT_EQ(FormatBounded(1, "abc%d", 5), "");  // room for the terminator only
  EXPECT_EQ(FormatBounded(2, "abc"), "a");
  EXPECT_EQ(FormatBounded(4, "%d", 123456), "123");

  char buffer[4] = {'s', 's', 's', 's'};
  EXPECT_EQ(FormatInto(buffer, buffer, "abc%d", 1), buffer);  // empty buffer: no write at all
  EXPECT_EQ(buffer[0], 's');
}

TEST(TraceFormat, FormatNumberBounds) {
  char buffer[80];
  memset(buffer, 's', sizeof(buffer));

  // Out + 1 not below End: nothing at all is written.
  EXPECT_EQ(KnFormatNumber(buffer, buffer + 1, 123, 10, -1, -1, 0), buffer);
  EXPECT_EQ(buffer[0], 's');
  EXPECT_EQ(KnFormatNumber(buffer + 5, buffer + 5, 123, 10, -1, -1, 0), buffer + 5);
  EXPECT_EQ(buffer[5], 's');
  // One free slot before End: the first character stays, later ones land in the last slot.
  EXPECT_EQ(KnFormatNumber(buffer, buffer + 2, 123, 10, -1, -1, 0), buffer + 1);
  EXPECT_EQ(buffer[0], '1');
  EXPECT_EQ(buffer[1], '3');
  EXPECT_EQ(buffer[2], 's');

  auto number = [&](ULONGLONG value, int base, int width, int precision, ULONG flags) {
    memset(buffer, 's', sizeof(buffer));
    char* end = KnFormatNumber(buffer, buffer + sizeof(buffer), value, base, width, precision, flags);
    EXPECT_EQ(*end, 's') << "KnFormatNumber does not terminate";
    return std::string(buffer, end);
  };
  // Bases: 2 and 36 are the limits; 1 and 37 write nothing.
  EXPECT_EQ(number(5, 2, -1, -1, 0), "101");
  EXPECT_EQ(number(35, 36, -1, -1, 0), "z");
  EXPECT_EQ(number(35, 36, -1, -1, KnFormatUpper), "Z");
  EXPECT_EQ(number(36, 36, -1, -1, 0), "10");
  EXPECT_EQ(number(5, 1, 8, -1, 0), "");
  EXPECT_EQ(number(5, 37, 8, -1, 0), "");
  EXPECT_EQ(number(~0ull, 2, -1, -1, 0), std::string(64, '1'));
  EXPECT_EQ(number(~0ull, 16, -1, -1, KnFormatUpper), "FFFFFFFFFFFFFFFF");
  EXPECT_EQ(number(0, 10, -1, -1, 0), "0");
  // Sign only with the signed flag.
  EXPECT_EQ(number((ULONGLONG)-5, 10, -1, -1, KnFormatSigned), "-5");
  EXPECT_EQ(number((ULONGLONG)-5, 10, -1, -1, 0), "18446744073709551611");
  EXPECT_EQ(number(5, 10, 4, -1, KnFormatSigned | KnFormatPlus), "  +5");
  EXPECT_EQ(number(5, 10, 4, -1, KnFormatSigned | KnFormatSpace | KnFormatZeroPad), " 005");
  EXPECT_EQ(number(5, 10, 4, -1, KnFormatPlus), "   5");
  // Width boundaries: digits exactly filling, one short of, and beyond the width.
  EXPECT_EQ(number(123, 10, 3, -1, 0), "123");
  EXPECT_EQ(number(123, 10, 4, -1, 0), " 123");
  EXPECT_EQ(number(1234, 10, 3, -1, 0), "1234");
  EXPECT_EQ(number(123, 10, 6, 5, KnFormatLeft), "00123 ");
  EXPECT_EQ(number(123, 10, 6, -1, KnFormatLeft | KnFormatZeroPad), "123   ");
  // Alternate forms take their positions of the width.
  EXPECT_EQ(number(0xAB, 16, 6, -1, KnFormatAlternate), "  0xab");
  EXPECT_EQ(number(0xAB, 16, 6, -1, KnFormatAlternate | KnFormatZeroPad | KnFormatUpper), "0X00AB");
  EXPECT_EQ(number(8, 8, 4, -1, KnFormatAlternate | KnFormatZeroPad), "0010");
  EXPECT_EQ(number(0, 8, -1, -1, KnFormatAlternate), "00");
  EXPECT_EQ(number(10, 10, -1, -1, KnFormatAlternate), "10");
}

}  // namespace
