/* ntddk.h - wdmsim host edition: everything of wdm.h plus the few NT-only services. */
#ifndef WDMSIM_NTDDK_H
#define WDMSIM_NTDDK_H
#include <wdm.h>
#endif
