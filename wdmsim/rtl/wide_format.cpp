// swprintf, vswprintf and _snwprintf of the kernel's C runtime, for 16-bit WCHAR.
//
// The conversions follow the Microsoft runtime, not C99: in these wide functions "%s" and
// "%c" take a wide string and character, "%S" and "%C" the narrow ones, and the size
// prefixes "h" (narrow) and "l"/"w" (wide) choose explicitly. "l" is 32 bits as on
// Windows (LLP64); "I64", "ll" and "q" are 64 bits, "I", "z", "t" and "j" pointer-sized,
// "I32" 32 bits. "%Z" prints an ANSI_STRING, "%wZ" a UNICODE_STRING. "%p" prints 16
// upper-case hex digits. A null string prints "(null)". An unknown conversion character
// is copied as it is; "%n" is not supported and writes nothing.
#include <climits>
#include <cstdint>
#include <cstdio>

#include <wdm.h>

namespace {

// Collects the output; stores what fits and counts everything.
class Output {
 public:
  Output(wchar_t* buffer, size_t capacity) : mBuffer(buffer), mCapacity(capacity) {}

  void Put(wchar_t c) {
    if (mCount < mCapacity) mBuffer[mCount] = c;
    ++mCount;
  }
  void Repeat(wchar_t c, int times) {
    for (int i = 0; i < times; ++i) Put(c);
  }
  size_t Count() const { return mCount; }

 private:
  wchar_t* mBuffer;
  size_t mCapacity;
  size_t mCount = 0;
};

enum class Size { Default, Char, Short, Long, LongLong, Pointer, LongDouble, Wide };

struct Conversion {
  bool left = false;
  bool plus = false;
  bool space = false;
  bool alternate = false;
  bool zero = false;
  int width = 0;
  int precision = -1;  // -1: none given
  Size size = Size::Default;
};

// A text to print: wide or narrow characters, with a known count.
struct Text {
  const wchar_t* wide = nullptr;
  const char* narrow = nullptr;
  size_t count = 0;

  wchar_t At(size_t i) const { return wide ? wide[i] : static_cast<wchar_t>(static_cast<unsigned char>(narrow[i])); }
};

void PutPadded(Output& out, const Conversion& conv, const Text& text) {
  size_t count = text.count;
  if (conv.precision >= 0 && static_cast<size_t>(conv.precision) < count) count = conv.precision;
  int pad = conv.width > static_cast<int>(count) ? conv.width - static_cast<int>(count) : 0;
  if (!conv.left) out.Repeat(conv.zero ? L'0' : L' ', pad);
  for (size_t i = 0; i < count; ++i) out.Put(text.At(i));
  if (conv.left) out.Repeat(L' ', pad);
}

Text WideText(const wchar_t* s, int precision) {
  Text t;
  t.wide = s;
  while ((precision < 0 || t.count < static_cast<size_t>(precision)) && s[t.count] != 0) ++t.count;
  return t;
}

Text NarrowText(const char* s, int precision) {
  Text t;
  t.narrow = s;
  while ((precision < 0 || t.count < static_cast<size_t>(precision)) && s[t.count] != 0) ++t.count;
  return t;
}

const char kNull[] = "(null)";

void PutString(Output& out, const Conversion& conv, bool wide, const void* s) {
  if (s == nullptr) {
    PutPadded(out, conv, NarrowText(kNull, conv.precision));
  } else if (wide) {
    PutPadded(out, conv, WideText(static_cast<const wchar_t*>(s), conv.precision));
  } else {
    PutPadded(out, conv, NarrowText(static_cast<const char*>(s), conv.precision));
  }
}

void PutCountedString(Output& out, const Conversion& conv, bool wide, const void* counted) {
  Text t;
  if (wide) {
    const UNICODE_STRING* u = static_cast<const UNICODE_STRING*>(counted);
    if (u == nullptr || u->Buffer == nullptr) return PutString(out, conv, false, nullptr);
    t.wide = u->Buffer;
    t.count = u->Length / sizeof(WCHAR);
  } else {
    const ANSI_STRING* a = static_cast<const ANSI_STRING*>(counted);
    if (a == nullptr || a->Buffer == nullptr) return PutString(out, conv, false, nullptr);
    t.narrow = a->Buffer;
    t.count = a->Length;
  }
  PutPadded(out, conv, t);
}

void PutInteger(Output& out, Conversion conv, uint64_t magnitude, bool negative, unsigned base, bool upper,
                const char* prefix) {
  char digits[72];
  int count = 0;
  const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  if (!(magnitude == 0 && conv.precision == 0)) {
    do {
      digits[count++] = set[magnitude % base];
      magnitude /= base;
    } while (magnitude != 0);
  }
  int leadingZeros = conv.precision > count ? conv.precision - count : 0;
  if (base == 8 && conv.alternate && leadingZeros == 0 && (count == 0 || digits[count - 1] != '0')) leadingZeros = 1;

  char sign = negative ? '-' : conv.plus ? '+' : conv.space ? ' ' : 0;
  int prefixLength = static_cast<int>(strlen(prefix)) + (sign ? 1 : 0);
  int length = prefixLength + leadingZeros + count;
  int pad = conv.width > length ? conv.width - length : 0;
  bool zeroPad = conv.zero && !conv.left && conv.precision < 0;

  if (!conv.left && !zeroPad) out.Repeat(L' ', pad);
  if (sign) out.Put(static_cast<wchar_t>(sign));
  for (const char* p = prefix; *p; ++p) out.Put(static_cast<wchar_t>(*p));
  if (zeroPad) out.Repeat(L'0', pad);
  out.Repeat(L'0', leadingZeros);
  while (count > 0) out.Put(static_cast<wchar_t>(digits[--count]));
  if (conv.left) out.Repeat(L' ', pad);
}

int64_t SignedArgument(Size size, va_list& args) {
  switch (size) {
    case Size::Char: return static_cast<signed char>(va_arg(args, int));
    case Size::Short: return static_cast<short>(va_arg(args, int));
    case Size::LongLong:
    case Size::Pointer: return va_arg(args, long long);
    default: return va_arg(args, int);
  }
}

uint64_t UnsignedArgument(Size size, va_list& args) {
  switch (size) {
    case Size::Char: return static_cast<unsigned char>(va_arg(args, unsigned int));
    case Size::Short: return static_cast<unsigned short>(va_arg(args, unsigned int));
    case Size::LongLong:
    case Size::Pointer: return va_arg(args, unsigned long long);
    default: return va_arg(args, unsigned int);
  }
}

// Floating point is rare in a kernel; the host's formatter does the digits.
void PutFloat(Output& out, const Conversion& conv, wchar_t conversion, va_list& args) {
  char format[32];
  int n = 0;
  format[n++] = '%';
  if (conv.left) format[n++] = '-';
  if (conv.plus) format[n++] = '+';
  if (conv.space) format[n++] = ' ';
  if (conv.alternate) format[n++] = '#';
  if (conv.zero) format[n++] = '0';
  format[n++] = '*';
  format[n++] = '.';
  format[n++] = '*';
  if (conv.size == Size::LongDouble) format[n++] = 'L';
  format[n++] = static_cast<char>(conversion);
  format[n] = 0;
  char text[512];
  int precision = conv.precision;
  if (conv.size == Size::LongDouble) {
    snprintf(text, sizeof text, format, conv.width, precision, va_arg(args, long double));
  } else {
    snprintf(text, sizeof text, format, conv.width, precision, va_arg(args, double));
  }
  for (const char* p = text; *p; ++p) out.Put(static_cast<wchar_t>(*p));
}

int ReadNumber(const wchar_t*& f) {
  int value = 0;
  while (*f >= L'0' && *f <= L'9') {
    if (value < INT_MAX / 10) value = value * 10 + (*f - L'0');
    ++f;
  }
  return value;
}

Size ReadSize(const wchar_t*& f) {
  switch (*f) {
    case L'h':
      ++f;
      if (*f == L'h') {
        ++f;
        return Size::Char;
      }
      return Size::Short;
    case L'l':
      ++f;
      if (*f == L'l') {
        ++f;
        return Size::LongLong;
      }
      return Size::Long;
    case L'w': ++f; return Size::Wide;
    case L'q': ++f; return Size::LongLong;
    case L'L': ++f; return Size::LongDouble;
    case L'z':
    case L'j':
    case L't': ++f; return Size::Pointer;
    case L'I':
      if (f[1] == L'6' && f[2] == L'4') {
        f += 3;
        return Size::LongLong;
      }
      if (f[1] == L'3' && f[2] == L'2') {
        f += 3;
        return Size::Default;
      }
      ++f;
      return Size::Pointer;
    default: return Size::Default;
  }
}

void FormatInto(Output& out, const wchar_t* f, va_list& args) {
  while (*f != 0) {
    if (*f != L'%') {
      out.Put(*f++);
      continue;
    }
    ++f;
    Conversion conv;
    for (;; ++f) {
      if (*f == L'-') conv.left = true;
      else if (*f == L'+') conv.plus = true;
      else if (*f == L' ') conv.space = true;
      else if (*f == L'#') conv.alternate = true;
      else if (*f == L'0') conv.zero = true;
      else break;
    }
    if (*f == L'*') {
      ++f;
      conv.width = va_arg(args, int);
      if (conv.width < 0) {
        conv.left = true;
        conv.width = conv.width == INT_MIN ? INT_MAX : -conv.width;
      }
    } else {
      conv.width = ReadNumber(f);
    }
    if (*f == L'.') {
      ++f;
      if (*f == L'*') {
        ++f;
        conv.precision = va_arg(args, int);
        if (conv.precision < 0) conv.precision = -1;
      } else {
        conv.precision = ReadNumber(f);
      }
    }
    conv.size = ReadSize(f);
    wchar_t conversion = *f;
    if (conversion == 0) break;
    ++f;

    bool wideByDefault = conversion == L's' || conversion == L'c';
    bool wide = conv.size == Size::Short ? false
                : (conv.size == Size::Long || conv.size == Size::Wide) ? true
                                                                      : wideByDefault;
    switch (conversion) {
      case L'%': out.Put(L'%'); break;
      case L'c':
      case L'C': {
        wchar_t c = wide ? static_cast<wchar_t>(va_arg(args, int))
                         : static_cast<wchar_t>(static_cast<unsigned char>(va_arg(args, int)));
        Text t;
        t.wide = &c;
        t.count = 1;
        Conversion charSpec = conv;
        charSpec.precision = -1;
        PutPadded(out, charSpec, t);
        break;
      }
      case L's':
      case L'S': PutString(out, conv, wide, va_arg(args, const void*)); break;
      case L'Z': PutCountedString(out, conv, conv.size == Size::Long || conv.size == Size::Wide, va_arg(args, const void*)); break;
      case L'd':
      case L'i': {
        int64_t value = SignedArgument(conv.size, args);
        uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
        PutInteger(out, conv, magnitude, value < 0, 10, false, "");
        break;
      }
      case L'u': PutInteger(out, conv, UnsignedArgument(conv.size, args), false, 10, false, ""); break;
      case L'o': PutInteger(out, conv, UnsignedArgument(conv.size, args), false, 8, false, ""); break;
      case L'x':
      case L'X': {
        uint64_t value = UnsignedArgument(conv.size, args);
        const char* prefix = (conv.alternate && value != 0) ? (conversion == L'x' ? "0x" : "0X") : "";
        PutInteger(out, conv, value, false, 16, conversion == L'X', prefix);
        break;
      }
      case L'p': {
        Conversion pointerSpec = conv;
        pointerSpec.precision = 16;
        pointerSpec.plus = pointerSpec.space = false;
        PutInteger(out, pointerSpec, reinterpret_cast<uintptr_t>(va_arg(args, void*)), false, 16, true, "");
        break;
      }
      case L'e':
      case L'E':
      case L'f':
      case L'F':
      case L'g':
      case L'G':
      case L'a':
      case L'A': PutFloat(out, conv, conversion, args); break;
      case L'n': (void)va_arg(args, void*); break;
      default: out.Put(conversion); break;
    }
  }
}

int FormatUnbounded(wchar_t* buffer, const wchar_t* format, va_list& args) {
  Output out(buffer, SIZE_MAX);
  FormatInto(out, format, args);
  out.Put(0);
  return static_cast<int>(out.Count() - 1);
}

}  // namespace

extern "C" int wdmsim_vswprintf(wchar_t* Buffer, const wchar_t* Format, va_list Args) {
  va_list args;
  va_copy(args, Args);
  int count = FormatUnbounded(Buffer, Format, args);
  va_end(args);
  return count;
}

extern "C" int wdmsim_swprintf(wchar_t* Buffer, const wchar_t* Format, ...) {
  va_list args;
  va_start(args, Format);
  int count = FormatUnbounded(Buffer, Format, args);
  va_end(args);
  return count;
}

extern "C" int wdmsim__vsnwprintf(wchar_t* Buffer, size_t Count, const wchar_t* Format, va_list Args) {
  va_list args;
  va_copy(args, Args);
  Output out(Buffer, Count);
  FormatInto(out, Format, args);
  va_end(args);
  size_t length = out.Count();
  if (length > Count) return -1;  // cut, and not terminated
  if (length < Count) Buffer[length] = 0;  // an exact fit is not terminated either
  return static_cast<int>(length);
}

extern "C" int wdmsim__snwprintf(wchar_t* Buffer, size_t Count, const wchar_t* Format, ...) {
  va_list args;
  va_start(args, Format);
  int result = wdmsim__vsnwprintf(Buffer, Count, Format, args);
  va_end(args);
  return result;
}
