#include "kntrace.h"

#include "knnametables.h"
#include "kntracelogbuffer.h"

ULONG gKnTraceMask = 3;
char gKnTracePrefix[kKnTracePrefixSize];

// A KnTrace message: at most 255 characters and the terminator.
static const ULONG kTraceBufferSize = 256;

void KnTraceSetPrefix(const char* Prefix) {
  ULONG i = 0;
  for (; Prefix != NULL && i < kKnTracePrefixSize - 1 && Prefix[i] != '\0'; i++) {
    gKnTracePrefix[i] = Prefix[i];
  }
  for (; i < kKnTracePrefixSize; i++) {
    gKnTracePrefix[i] = '\0';
  }
}

// Every writer stores at the current position and advances only while a slot stays free
// for the terminator; the caller guarantees Out < End.
static inline char* PutChar(char* Out, char* End, char Character) {
  *Out = Character;
  return (Out + 1 < End) ? Out + 1 : Out;
}

static char* PutRepeated(char* Out, char* End, char Character, int Count) {
  for (; Count > 0; Count--) {
    Out = PutChar(Out, End, Character);
  }
  return Out;
}

// Count characters of Text with the same result as Count calls of PutChar, copied at once
// (messages are mostly literal text).
static char* PutRun(char* Out, char* End, const char* Text, SIZE_T Count) {
  SIZE_T room = (SIZE_T)(End - 1 - Out);  // free slots before the last one
  if (Count <= room) {
    RtlCopyMemory(Out, Text, Count);
    return Out + Count;
  }
  RtlCopyMemory(Out, Text, room);
  Out += room;
  *Out = Text[Count - 1];
  return Out;
}

static char* PutText(char* Out, char* End, const char* Text) {
  for (; *Text != '\0'; Text++) {
    Out = PutChar(Out, End, *Text);
  }
  return Out;
}

// Text of 8-bit or 16-bit characters (the low byte of each is printed): at most Precision
// characters, padded with spaces to Width on the side that Flags chooses.
template <typename CharType>
static char* PutField(char* Out, char* End, const CharType* Text, int Width, int Precision, ULONG Flags) {
  int length = 0;
  while ((Precision < 0 || length < Precision) && Text[length] != 0) {
    length++;
  }
  if ((Flags & KnFormatLeft) == 0) {
    Out = PutRepeated(Out, End, ' ', Width - length);
  }
  if (sizeof(CharType) == 1) {
    Out = PutRun(Out, End, (const char*)Text, (SIZE_T)length);
  } else {
    for (int i = 0; i < length; i++) {
      Out = PutChar(Out, End, (char)(Text[i] & 0xFF));
    }
  }
  if ((Flags & KnFormatLeft) != 0) {
    Out = PutRepeated(Out, End, ' ', Width - length);
  }
  return Out;
}

char* KnFormatNumber(char* Out, char* End, ULONGLONG Value, int Base, int Width, int Precision, ULONG Flags) {
  static const char kLowerDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  static const char kUpperDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  if (Out + 1 >= End || Base < 2 || Base > 36) {
    return Out;
  }
  const char* digits = (Flags & KnFormatUpper) ? kUpperDigits : kLowerDigits;
  if (Flags & KnFormatLeft) {
    Flags &= ~(ULONG)KnFormatZeroPad;
  }
  char pad = (Flags & KnFormatZeroPad) ? '0' : ' ';

  char sign = 0;
  if (Flags & KnFormatSigned) {
    if ((LONGLONG)Value < 0) {
      sign = '-';
      Value = 0 - Value;  // unsigned negation: also right for the most negative value
    } else if (Flags & KnFormatPlus) {
      sign = '+';
    } else if (Flags & KnFormatSpace) {
      sign = ' ';
    }
    if (sign != 0) {
      Width--;
    }
  }
  if (Flags & KnFormatAlternate) {
    if (Base == 16) {
      Width -= 2;
    } else if (Base == 8) {
      Width--;
    }
  }

  char reversed[64];  // 64 binary digits at most
  int count = 0;
  do {
    reversed[count++] = digits[Value % (ULONG)Base];
    Value /= (ULONG)Base;
  } while (Value != 0);
  if (count > Precision) {
    Precision = count;
  }
  Width -= Precision;

  if ((Flags & (KnFormatZeroPad | KnFormatLeft)) == 0) {
    Out = PutRepeated(Out, End, ' ', Width);
    Width = 0;
  }
  if (sign != 0) {
    Out = PutChar(Out, End, sign);
  }
  if (Flags & KnFormatAlternate) {
    if (Base == 8) {
      Out = PutChar(Out, End, '0');
    } else if (Base == 16) {
      Out = PutChar(Out, End, '0');
      Out = PutChar(Out, End, (Flags & KnFormatUpper) ? 'X' : 'x');
    }
  }
  if ((Flags & KnFormatLeft) == 0) {
    Out = PutRepeated(Out, End, pad, Width);
    Width = 0;
  }
  Out = PutRepeated(Out, End, '0', Precision - count);
  while (count > 0) {
    Out = PutChar(Out, End, reversed[--count]);
  }
  return PutRepeated(Out, End, ' ', Width);
}

// The integer argument of "d", "i", "u", "o", "x", "X", "B", "W" and "D": 64 bits with "I" or
// "ll" (Qualifier 'q'), the low 16 bits with "h", else 32 bits; sign-extended when Signed.
static ULONGLONG FetchInteger(va_list* Args, char Qualifier, BOOLEAN Signed) {
  if (Qualifier == 'I' || Qualifier == 'q') {
    return (ULONGLONG)va_arg(*Args, LONGLONG);
  }
  int value = va_arg(*Args, int);
  if (Qualifier == 'h') {
    return Signed ? (ULONGLONG)(LONGLONG)(SHORT)value : (ULONGLONG)(USHORT)value;
  }
  return Signed ? (ULONGLONG)(LONGLONG)value : (ULONGLONG)(ULONG)value;
}

static int ParseDecimal(const char** Format) {
  int value = 0;
  while (**Format >= '0' && **Format <= '9') {
    value = value * 10 + (**Format - '0');
    (*Format)++;
  }
  return value;
}

char* KnTraceVFormat(char* Buffer, char* End, const char* Format, va_list Args) {
  if (Buffer >= End) {
    return Buffer;
  }
  va_list args;
  va_copy(args, Args);  // so that helpers can take the list by pointer on every ABI
  char* out = Buffer;
  const char* f = Format;

  while (*f != '\0') {
    if (*f != '%') {
      const char* run = f;
      while (*f != '\0' && *f != '%') {
        f++;
      }
      out = PutRun(out, End, run, (SIZE_T)(f - run));
      continue;
    }
    f++;

    ULONG flags = 0;
    for (;; f++) {
      if (*f == ' ') {
        flags |= KnFormatSpace;
      } else if (*f == '#') {
        flags |= KnFormatAlternate;
      } else if (*f == '+') {
        flags |= KnFormatPlus;
      } else if (*f == '-') {
        flags |= KnFormatLeft;
      } else if (*f == '0') {
        flags |= KnFormatZeroPad;
      } else {
        break;
      }
    }

    int width = -1;
    if (*f >= '0' && *f <= '9') {
      width = ParseDecimal(&f);
    } else if (*f == '*') {
      f++;
      width = va_arg(args, int);
      if (width < 0) {
        flags |= KnFormatLeft;
        width = (width == -0x7FFFFFFF - 1) ? 0x7FFFFFFF : -width;
      }
    }

    int precision = -1;
    if (*f == '.') {
      f++;
      if (*f >= '0' && *f <= '9') {
        precision = ParseDecimal(&f);
      } else if (*f == '*') {
        f++;
        precision = va_arg(args, int);
        if (precision < 0) {
          precision = 0;
        }
      } else {
        precision = 0;
      }
    }

    char qualifier = 0;
    if (*f == 'h' || *f == 'L' || *f == 'I') {
      qualifier = *f++;
    } else if (*f == 'l') {
      f++;
      qualifier = 'l';
      if (*f == 'l') {
        f++;
        qualifier = 'q';
      }
    }

    int base = 10;
    switch (*f) {
      case 'c':
      case 'C': {
        // "C" takes a 16-bit character, promoted to int like "c": both print the low byte.
        char character = (char)(va_arg(args, int) & 0xFF);
        if ((flags & KnFormatLeft) == 0) {
          out = PutRepeated(out, End, ' ', width - 1);
        }
        out = PutChar(out, End, character);
        if ((flags & KnFormatLeft) != 0) {
          out = PutRepeated(out, End, ' ', width - 1);
        }
        f++;
        continue;
      }
      case 's': {
        const char* text = va_arg(args, const char*);
        out = PutField(out, End, text != NULL ? text : "<NULL>", width, precision, flags);
        f++;
        continue;
      }
      case 'S': {
        const WCHAR* text = va_arg(args, const WCHAR*);
        if (text != NULL) {
          out = PutField(out, End, text, width, precision, flags);
        } else {
          out = PutField(out, End, "<NULL>", width, precision, flags);
        }
        f++;
        continue;
      }
      case 'U': {
        const UNICODE_STRING* string = va_arg(args, const UNICODE_STRING*);
        if (string == NULL) {
          out = PutText(out, End, "<NULL>");
        } else if (string->Buffer != NULL) {
          for (ULONG i = 0; i < string->Length / sizeof(WCHAR); i++) {
            out = PutChar(out, End, (char)(string->Buffer[i] & 0xFF));
          }
        }
        f++;
        continue;
      }
      case 'p':
        if (width == -1) {
          width = 16;
          flags |= KnFormatZeroPad;
        }
        out = KnFormatNumber(out, End, (ULONG_PTR)va_arg(args, void*), 16, width, precision, flags);
        f++;
        continue;
      case 'N': {
        NTSTATUS status = va_arg(args, NTSTATUS);
        out = PutText(out, End, "0x");
        out = KnFormatNumber(out, End, (ULONG)status, 16, 8, -1, KnFormatZeroPad | KnFormatUpper);
        out = PutText(out, End, " (");
        out = PutText(out, End, KnNtStatusName(status));
        out = PutChar(out, End, ')');
        f++;
        continue;
      }
      case 'P':
        out = PutText(out, End, gKnTracePrefix);
        f++;
        continue;
      case 'T': {
        ULONG unitsPerSecond = (precision < 0) ? 1000000 : (ULONG)precision;
        out = KnFormatNumber(out, End, KnTraceElapsedTime(unitsPerSecond), 10, width, -1, flags);
        f++;
        continue;
      }
      case 'Q':
        out = KnFormatNumber(out, End, va_arg(args, ULONGLONG), 16, 16, precision,
                             KnFormatZeroPad | KnFormatUpper);
        f++;
        continue;
      case 'B':
      case 'W':
      case 'D': {
        int fixedWidth = (*f == 'B') ? 2 : (*f == 'W') ? 4 : 8;
        ULONGLONG value = FetchInteger(&args, qualifier, FALSE);
        out = KnFormatNumber(out, End, value, 16, fixedWidth, precision, KnFormatZeroPad | KnFormatUpper);
        f++;
        continue;
      }
      case '%':
        out = PutChar(out, End, '%');
        f++;
        continue;
      case 'o':
        base = 8;
        break;
      case 'X':
        flags |= KnFormatUpper;
        base = 16;
        break;
      case 'x':
        base = 16;
        break;
      case 'd':
      case 'i':
        flags |= KnFormatSigned;
        break;
      case 'u':
        break;
      default:
        // Not a conversion: print it as it stood, without what was parsed in between.
        out = PutChar(out, End, '%');
        if (*f == '\0') {
          goto done;
        }
        out = PutChar(out, End, *f++);
        continue;
    }
    out = KnFormatNumber(out, End, FetchInteger(&args, qualifier, (flags & KnFormatSigned) != 0), base, width,
                         precision, flags);
    f++;
  }

done:
  *out = '\0';
  va_end(args);
  return out;
}

void __cdecl KnTrace(const char* Format, ...) {
  char buffer[kTraceBufferSize];
  va_list args;
  va_start(args, Format);
  KnTraceVFormat(buffer, buffer + sizeof(buffer), Format, args);
  va_end(args);
  KnTraceOutput(buffer);
}

void KnTraceOutput(const char* Text) {
  // The log buffer's lock is a spin lock taken at DISPATCH_LEVEL; above that level the
  // message goes to the debugger only. A buffer without memory (never installed as the
  // global one by KnTraceCreateLogBuffer) is skipped rather than asserted on from here.
  KnTraceLogBuffer* log = gKnTraceLogBuffer;
  if (log != NULL && log->GetSize() != 0 && KeGetCurrentIrql() <= DISPATCH_LEVEL) {
    // System time in milliseconds, low 32 bits, right-aligned to 8 columns, two spaces.
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    char stamp[16];
    char* end = stamp + sizeof(stamp);
    char* out = KnFormatNumber(stamp, end, (ULONG)(now.QuadPart / 10000), 10, 8, -1, 0);
    out = PutChar(out, end, ' ');
    out = PutChar(out, end, ' ');
    *out = '\0';
    log->WriteMessage(Text, stamp);
  }
  DbgPrint("%s", Text);
}

// Product / Divisor for Remainder < Divisor, through a 128-bit intermediate: the counter's
// frequency may exceed 32 bits, so Remainder * Units may not fit 64 bits.
static ULONGLONG MulDivBelowOne(ULONGLONG Remainder, ULONG Units, ULONGLONG Divisor) {
  ULONGLONG low = (Remainder & 0xFFFFFFFFull) * Units;
  ULONGLONG high = (Remainder >> 32) * Units;
  ULONGLONG productLow = low + (high << 32);
  ULONGLONG productHigh = (high >> 32) + (productLow < low ? 1 : 0);
  // Shift-subtract division; productHigh < Divisor keeps the quotient within 64 bits.
  ULONGLONG quotient = 0;
  for (int bit = 0; bit < 64; bit++) {
    ULONGLONG carry = productHigh >> 63;
    productHigh = (productHigh << 1) | (productLow >> 63);
    productLow <<= 1;
    quotient <<= 1;
    if (carry != 0 || productHigh >= Divisor) {
      productHigh -= Divisor;
      quotient |= 1;
    }
  }
  return quotient;
}

ULONG KnTraceElapsedTime(ULONG UnitsPerSecond) {
  LARGE_INTEGER frequency;
  LARGE_INTEGER counter = KeQueryPerformanceCounter(&frequency);
  if (frequency.QuadPart == 0) {
    return 0;
  }
  BOOLEAN negative = (counter.QuadPart < 0) != (frequency.QuadPart < 0);
  ULONGLONG ticks = (counter.QuadPart < 0) ? 0 - (ULONGLONG)counter.QuadPart : (ULONGLONG)counter.QuadPart;
  ULONGLONG perSecond =
      (frequency.QuadPart < 0) ? 0 - (ULONGLONG)frequency.QuadPart : (ULONGLONG)frequency.QuadPart;
  // counter * units / frequency = whole seconds * units + the fraction's share.
  ULONGLONG result = (ticks / perSecond) * UnitsPerSecond + MulDivBelowOne(ticks % perSecond, UnitsPerSecond, perSecond);
  return (ULONG)(negative ? 0 - result : result);
}

void KnTraceDump(const void* Address, ULONG Length) {
  static const char kHexDigits[] = "0123456789ABCDEF";
  static const ULONG kBytesPerLine = 16;
  static const ULONG kTextColumn = 59;
  if (Length == 0) {
    KnTraceOutput("<<NULL>>\n");
    return;
  }
  const UCHAR* bytes = (const UCHAR*)Address;
  char line[80];
  ULONG hexColumn = 0;
  ULONG textColumn = 0;
  for (ULONG i = 0; i < Length; i++) {
    ULONG inLine = i % kBytesPerLine;
    if (inLine == 0) {
      RtlFillMemory(line, sizeof(line), ' ');
      for (int digit = 0; digit < 4; digit++) {
        line[digit] = kHexDigits[(i >> (12 - 4 * digit)) & 0xF];
      }
      line[4] = ':';
      hexColumn = 6;
      textColumn = kTextColumn;
    }
    UCHAR value = bytes[i];
    line[hexColumn++] = kHexDigits[value >> 4];
    line[hexColumn++] = kHexDigits[value & 0xF];
    hexColumn++;
    if (inLine % 4 == 3) {
      hexColumn++;  // groups of four bytes are two spaces apart
    }
    line[textColumn++] = (value >= 32 && value <= 127) ? (char)value : '.';
    if (inLine == kBytesPerLine - 1 || i == Length - 1) {
      line[textColumn++] = '\n';
      line[textColumn] = '\0';
      KnTraceOutput(line);
    }
  }
}

void KnAssert(BOOLEAN Condition, const char* Text, const char* File, ULONG Line) {
  if ((gKnTraceMask & 0x1) != 0 && !Condition) {
    KnTrace("\n%P:ASSERTION FAILED: (%s)\n  %s(%u)\n", Text, File, Line);
  }
}
