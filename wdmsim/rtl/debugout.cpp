// DbgPrint and friends: the kernel debugger's output, formatted with the kernel's printf
// rules and written to the selected sink (memory for tests, stderr or a file for tools).
#include <wdm.h>

#include <cstdio>
#include <mutex>
#include <string>

#include <wdmsim/debugout.h>

namespace wdmsim {
namespace {

// DbgPrint transmits at most this many bytes of one message.
constexpr size_t kMaxMessage = 512;
// The memory sink keeps the newest output when a run is very chatty.
constexpr size_t kMaxMemory = 64u << 20;

struct DebugOutput {
  std::mutex lock;  // one message at a time: lines from different threads never interleave
  DebugSink sink = DebugSink::Memory;
  std::string memory;
  FILE* file = nullptr;
  int assertions = 0;
};

DebugOutput& output() {
  static auto* o = new DebugOutput;
  return *o;
}

void Write(const std::string& text) {
  DebugOutput& o = output();
  std::lock_guard<std::mutex> guard(o.lock);
  switch (o.sink) {
    case DebugSink::Memory:
      if (o.memory.size() + text.size() > kMaxMemory) o.memory.erase(0, o.memory.size() / 2);
      o.memory += text;
      break;
    case DebugSink::Stderr:
      fwrite(text.data(), 1, text.size(), stderr);
      fflush(stderr);
      break;
    case DebugSink::File:
      fwrite(text.data(), 1, text.size(), o.file);
      fflush(o.file);
      break;
    case DebugSink::Discard:
      break;
  }
}

void AppendUtf8(std::string& out, uint32_t codePoint) {
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    out += static_cast<char>(0xC0 | (codePoint >> 6));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    out += static_cast<char>(0xE0 | (codePoint >> 12));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (codePoint >> 18));
    out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  }
}

// count 16-bit characters of UTF-16 as UTF-8; a broken surrogate becomes '?'.
std::string WideToUtf8(const WCHAR* text, size_t count) {
  std::string out;
  for (size_t i = 0; i < count; ++i) {
    uint32_t c = static_cast<uint16_t>(text[i]);
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < count) {
      uint32_t low = static_cast<uint16_t>(text[i + 1]);
      if (low >= 0xDC00 && low < 0xE000) {
        AppendUtf8(out, 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00));
        ++i;
        continue;
      }
    }
    AppendUtf8(out, (c >= 0xD800 && c < 0xE000) ? '?' : c);
  }
  return out;
}

size_t WideLength(const WCHAR* text, int precision) {
  size_t n = 0;
  while ((precision < 0 || n < static_cast<size_t>(precision)) && text[n] != 0) ++n;
  return n;
}

size_t NarrowLength(const char* text, int precision) {
  size_t n = 0;
  while ((precision < 0 || n < static_cast<size_t>(precision)) && text[n] != 0) ++n;
  return n;
}

struct Conversion {
  std::string flags;
  int width = -1;
  int precision = -1;
  enum class Size { Default, Short, Char, Long32, Long64, Wide } size = Size::Default;
  char conversion = 0;
};

void Pad(std::string& out, const std::string& text, const Conversion& conv) {
  bool left = conv.flags.find('-') != std::string::npos;
  size_t width = conv.width > 0 ? static_cast<size_t>(conv.width) : 0;
  if (!left && text.size() < width) out.append(width - text.size(), ' ');
  out += text;
  if (left && text.size() < width) out.append(width - text.size(), ' ');
}

// The host's printf formats numbers once the Windows sizes are read from the arguments.
std::string FormatNumber(const Conversion& conv, char conversion, const char* length, ...) {
  std::string format = "%" + conv.flags;
  if (conv.width >= 0) format += std::to_string(conv.width);
  if (conv.precision >= 0) format += "." + std::to_string(conv.precision);
  format += length;
  format += conversion;
  char buffer[128];
  va_list args;
  va_start(args, length);
  vsnprintf(buffer, sizeof buffer, format.c_str(), args);
  va_end(args);
  return buffer;
}

// Reads an integer argument as Windows sizes it: "l" is 32 bits, "ll"/"I64"/"I" 64.
bool IsSigned(char conversion) { return conversion == 'd' || conversion == 'i'; }

std::string FormatInteger(const Conversion& conv, va_list* args) {
  char conversion = conv.conversion == 'i' ? 'd' : conv.conversion;
  if (conv.size == Conversion::Size::Long64) {
    if (IsSigned(conv.conversion)) return FormatNumber(conv, conversion, "ll", va_arg(*args, long long));
    return FormatNumber(conv, conversion, "ll", va_arg(*args, unsigned long long));
  }
  unsigned int value = va_arg(*args, unsigned int);
  if (conv.size == Conversion::Size::Short) value &= 0xFFFF;
  if (conv.size == Conversion::Size::Char) value &= 0xFF;
  if (IsSigned(conv.conversion)) {
    long long signedValue = conv.size == Conversion::Size::Short  ? static_cast<short>(value)
                            : conv.size == Conversion::Size::Char ? static_cast<signed char>(value)
                                                            : static_cast<int>(value);
    return FormatNumber(conv, conversion, "ll", signedValue);
  }
  return FormatNumber(conv, conversion, "ll", static_cast<unsigned long long>(value));
}

const char* ParseSpec(const char* p, Conversion* conv, va_list* args) {
  while (*p == '-' || *p == '+' || *p == ' ' || *p == '#' || *p == '0') conv->flags += *p++;
  if (*p == '*') {
    conv->width = va_arg(*args, int);
    if (conv->width < 0) {
      conv->flags += '-';
      conv->width = -conv->width;
    }
    ++p;
  } else {
    for (conv->width = -1; *p >= '0' && *p <= '9'; ++p) conv->width = (conv->width < 0 ? 0 : conv->width * 10) + (*p - '0');
  }
  if (*p == '.') {
    ++p;
    conv->precision = 0;
    if (*p == '*') {
      conv->precision = va_arg(*args, int);
      ++p;
    } else {
      for (; *p >= '0' && *p <= '9'; ++p) conv->precision = conv->precision * 10 + (*p - '0');
    }
  }
  if (p[0] == 'I' && p[1] == '6' && p[2] == '4') {
    conv->size = Conversion::Size::Long64;
    p += 3;
  } else if (p[0] == 'I' && p[1] == '3' && p[2] == '2') {
    conv->size = Conversion::Size::Long32;
    p += 3;
  } else if (p[0] == 'l' && p[1] == 'l') {
    conv->size = Conversion::Size::Long64;
    p += 2;
  } else if (p[0] == 'h' && p[1] == 'h') {
    conv->size = Conversion::Size::Char;
    p += 2;
  } else if (*p == 'I' || *p == 'z' || *p == 'j' || *p == 't') {
    conv->size = Conversion::Size::Long64;  // pointer-sized on x64
    ++p;
  } else if (*p == 'l' || *p == 'w') {
    conv->size = Conversion::Size::Wide;  // 32-bit for integers, wide for characters and strings
    ++p;
  } else if (*p == 'h') {
    conv->size = Conversion::Size::Short;
    ++p;
  } else if (*p == 'L') {
    ++p;
  }
  conv->conversion = *p;
  return *p ? p + 1 : p;
}

std::string StringArgument(const Conversion& conv, bool wide, va_list* args) {
  if (wide) {
    const WCHAR* text = va_arg(*args, const WCHAR*);
    if (text == nullptr) return "(null)";
    return WideToUtf8(text, WideLength(text, conv.precision));
  }
  const char* text = va_arg(*args, const char*);
  if (text == nullptr) return "(null)";
  return std::string(text, NarrowLength(text, conv.precision));
}

std::string CountedStringArgument(const Conversion& conv, bool wide, va_list* args) {
  size_t limit = conv.precision < 0 ? SIZE_MAX : static_cast<size_t>(conv.precision);
  if (wide) {
    const UNICODE_STRING* string = va_arg(*args, const UNICODE_STRING*);
    if (string == nullptr || string->Buffer == nullptr) return "(null)";
    size_t count = string->Length / sizeof(WCHAR);
    return WideToUtf8(string->Buffer, count < limit ? count : limit);
  }
  const ANSI_STRING* string = va_arg(*args, const ANSI_STRING*);
  if (string == nullptr || string->Buffer == nullptr) return "(null)";
  size_t count = string->Length;
  return std::string(string->Buffer, count < limit ? count : limit);
}

// The kernel's printf: %s is 8-bit and %S/%ws/%ls 16-bit, %Z an ANSI_STRING and %wZ a
// UNICODE_STRING, "l" is 32 bits and "I64"/"ll" 64, %p sixteen upper-case hex digits.
std::string FormatKernelString(const char* format, va_list args) {
  va_list ap;
  va_copy(ap, args);
  std::string out;
  for (const char* p = format; *p;) {
    if (*p != '%') {
      out += *p++;
      continue;
    }
    if (p[1] == '%') {
      out += '%';
      p += 2;
      continue;
    }
    Conversion conv;
    p = ParseSpec(p + 1, &conv, &ap);
    bool wideSize = conv.size == Conversion::Size::Wide;
    switch (conv.conversion) {
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        out += FormatInteger(conv, &ap);
        break;
      case 'c':
      case 'C': {
        bool wide = conv.conversion == 'C' ? conv.size != Conversion::Size::Short : wideSize;
        int value = va_arg(ap, int);
        std::string text;
        if (wide) {
          WCHAR c = static_cast<WCHAR>(value);
          text = WideToUtf8(&c, 1);
        } else {
          text = std::string(1, static_cast<char>(value));
        }
        Pad(out, text, conv);
        break;
      }
      case 's':
      case 'S': {
        bool wide = conv.conversion == 'S' ? conv.size != Conversion::Size::Short : wideSize;
        Pad(out, StringArgument(conv, wide, &ap), conv);
        break;
      }
      case 'Z':
        Pad(out, CountedStringArgument(conv, wideSize, &ap), conv);
        break;
      case 'p': {
        char text[32];
        snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(va_arg(ap, void*))));
        Pad(out, text, conv);
        break;
      }
      case 'e':
      case 'E':
      case 'f':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        out += FormatNumber(conv, conv.conversion, "", va_arg(ap, double));
        break;
      case 'n':
        va_arg(ap, void*);  // the kernel writes nothing through %n
        break;
      case 0:
        break;
      default:
        out += '%';
        out += conv.conversion;
        break;
    }
  }
  va_end(ap);
  return out;
}

}  // namespace

void SetDebugSink(DebugSink sink, const std::string& path) {
  DebugOutput& o = output();
  std::lock_guard<std::mutex> guard(o.lock);
  if (o.file != nullptr) {
    fclose(o.file);
    o.file = nullptr;
  }
  if (sink == DebugSink::File) {
    o.file = fopen(path.c_str(), "w");
    if (o.file == nullptr) {
      fprintf(stderr, "wdmsim: cannot write the debug output to %s; using stderr\n", path.c_str());
      sink = DebugSink::Stderr;
    }
  }
  o.sink = sink;
}

std::string TakeDebugOutput() {
  DebugOutput& o = output();
  std::lock_guard<std::mutex> guard(o.lock);
  std::string text;
  text.swap(o.memory);
  return text;
}

int TakeRtlAssertCount() {
  DebugOutput& o = output();
  std::lock_guard<std::mutex> guard(o.lock);
  int count = o.assertions;
  o.assertions = 0;
  return count;
}

}  // namespace wdmsim

namespace {

// The debugger port takes output in any context, at any IRQL, with or without a machine.
ULONG Print(const char* format, va_list args) {
  std::string text = wdmsim::FormatKernelString(format, args);
  if (text.size() > wdmsim::kMaxMessage) text.resize(wdmsim::kMaxMessage);
  wdmsim::Write(text);
  return STATUS_SUCCESS;
}

}  // namespace

extern "C" ULONG __cdecl DbgPrint(PCSTR Format, ...) {
  va_list args;
  va_start(args, Format);
  ULONG status = Print(Format, args);
  va_end(args);
  return status;
}

extern "C" ULONG __cdecl DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...) {
  va_list args;
  va_start(args, Format);
  ULONG status = Print(Format, args);
  va_end(args);
  return status;
}

extern "C" void NTAPI DbgBreakPoint(void) {
  wdmsim::Write("*** DbgBreakPoint: break instruction exception 80000003 (no debugger attached, ignored)\n");
}

extern "C" void NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message) {
  {
    wdmsim::DebugOutput& o = wdmsim::output();
    std::lock_guard<std::mutex> guard(o.lock);
    o.assertions++;
  }
  char text[wdmsim::kMaxMessage];
  snprintf(text, sizeof text, "\n*** Assertion failed: %s%s\n***   Source File: %s, line %lu\n\n",
           Message != nullptr ? Message : "", static_cast<const char*>(FailedAssertion),
           static_cast<const char*>(FileName), static_cast<unsigned long>(LineNumber));
  wdmsim::Write(text);
}
