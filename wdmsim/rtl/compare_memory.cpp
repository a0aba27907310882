#include <wdm.h>

extern "C" SIZE_T NTAPI RtlCompareMemory(const void* Source1, const void* Source2, SIZE_T Length) {
  const unsigned char* a = static_cast<const unsigned char*>(Source1);
  const unsigned char* b = static_cast<const unsigned char*>(Source2);
  SIZE_T equal = 0;
  while (equal < Length && a[equal] == b[equal]) ++equal;
  return equal;
}
