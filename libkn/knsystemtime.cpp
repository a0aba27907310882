#include "knsystemtime.h"

LONGLONG KnGetSystemTimeMs() {
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  return now.QuadPart / 10000;
}
