// Entries of the parent's two enumeration lists. Both point into the parent's
// configuration descriptor set, which stays held while the lists exist.
#pragma once

#include <ntddk.h>
#include <usb.h>

// An interface association descriptor of the parent's set.
struct IadEntry {
  LIST_ENTRY mLink;
  PUSB_INTERFACE_ASSOCIATION_DESCRIPTOR mDescriptor;
};

// An interface (alternate setting 0) of the parent's set and the bytes that belong to it:
// its alternate settings, endpoints and class-specific descriptors, without a trailing IAD.
struct InterfaceEntry {
  LIST_ENTRY mLink;
  PUSB_INTERFACE_DESCRIPTOR mDescriptor;
  ULONGLONG mSize;
};
