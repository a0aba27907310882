// A plain console program: everything a kernel driver image must not be (console
// subsystem, imports from kernel32.dll and the C runtime, no identification string,
// no DriverEntry). The image checker has to reject it.
#include <windows.h>

int main() {
  return GetTickCount() == 0 ? 1 : 0;
}
