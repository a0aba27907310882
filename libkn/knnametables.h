// Symbolic names of the codes that traces print: each function maps a 32-bit code to a
// constant NUL-terminated text that lives for the whole run, and answers the one shared
// text gKnUnknownName ("unknown") for a code it does not list. No lock, no allocation:
// callable at any IRQL.
#pragma once

#include <ntddk.h>

extern const char gKnUnknownName[];

const char* KnPnpMinorFunctionName(ULONG MinorFunction);   // IRP_MN_... of IRP_MJ_PNP
const char* KnPnPStateName(ULONG State);                   // KnPnPState
const char* KnPowerMinorFunctionName(ULONG MinorFunction); // IRP_MN_... of IRP_MJ_POWER
const char* KnDeviceRelationTypeName(ULONG Type);          // DEVICE_RELATION_TYPE
const char* KnBusQueryIdTypeName(ULONG Type);              // BUS_QUERY_ID_TYPE
const char* KnDeviceTextTypeName(ULONG Type);              // DEVICE_TEXT_TYPE
const char* KnSystemPowerStateName(ULONG State);           // SYSTEM_POWER_STATE
const char* KnDevicePowerStateName(ULONG State);           // DEVICE_POWER_STATE
const char* KnPowerStateTypeName(ULONG Type);              // POWER_STATE_TYPE
const char* KnPowerActionName(ULONG Action);               // POWER_ACTION
const char* KnUrbFunctionName(ULONG Function);             // URB_FUNCTION_...
const char* KnDescriptorTypeName(ULONG Type);              // USB descriptor type
// By the full 32-bit value, from the table generated out of the platform's ntstatus.h
// (knntstatusnames.cpp, by tools/gen/gen_ntstatus_names.py).
const char* KnNtStatusName(NTSTATUS Status);

// The generated table itself, sorted by Status with one name per value; a debugger
// extension or a test can walk it.
struct KnNtStatusNameEntry {
  ULONG Status;
  const char* Name;
};
extern const KnNtStatusNameEntry gKnNtStatusNames[];
extern const ULONG gKnNtStatusNameCount;
