// wdmsim host API: simulated function drivers for the children of a composite device.
// They are ordinary WDM drivers written against the DDK headers; the PnP manager binds
// them through in-box INF texts.
#pragma once
#include <string>

#include <wdm.h>

namespace wdmsim {

// The generic function driver: an FDO that starts with its device (the start goes down
// first and is waited for), passes every other request down, and detaches and deletes
// itself on removal.
inline constexpr char16_t kGenericFunctionService[] = u"wdmgeneric";
NTSTATUS NTAPI GenericFunctionDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

// Its in-box INF: compatible IDs "USB\CLASS_xx" for every class but hubs (09), and the
// Microsoft OS compatible IDs "USB\MS_COMP_MTP" and "USB\MS_COMP_RNDIS".
std::string GenericFunctionDriverInf();
// Registers the image and installs the INF, so that every child that reports one of those
// compatible IDs gets the generic driver unless a better match is installed.
void InstallGenericFunctionDriver();

}  // namespace wdmsim
