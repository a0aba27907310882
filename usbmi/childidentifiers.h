// The identifiers by which the PnP manager matches a function driver to one child: the
// device identifier, the hardware identifiers and the compatible identifiers.
//
// Two schemes. Without a family name a child is identified like a function of the system's
// own composite driver, by vendor, product and interface number. With a family name every
// child gets a family of identifiers built from the name and its class codes, so that one
// driver package serves a whole product family; CDC functions of the same kind are numbered
// and a data interface may add a name the device supplies itself (the semantic string).
#pragma once

#include <ntddk.h>

// What the identifiers of one function are built from.
struct ChildIdentifierSource {
  USHORT mVendorId;
  USHORT mProductId;
  ULONG mConfigurationValue;  // the number after "CF_"
  BOOLEAN mConfigInPnpId;     // adds the "CF_" field in the scheme without family name
  PCWSTR mFamilyName;         // empty selects the scheme without family name
  UCHAR mInterfaceNumber;     // of the function's first interface
  UCHAR mClass;
  UCHAR mSubClass;
  UCHAR mProtocol;
  PCWSTR mSemanticString;     // an accepted semantic string, or NULL
};

// The next number of each numbered CDC function kind, for one pass over all functions.
struct CdcFunctionNumbers {
  ULONG mAcm;  // 02/02/00
  ULONG mEcm;  // 02/06/00
  ULONG mNcm;  // 02/0D/00
};

// Receives the identifiers in the order the PnP manager gets them. Each string lives only
// for the duration of the call.
class ChildIdentifierSink {
 public:
  virtual void SetDeviceId(PCWSTR Id) = 0;
  virtual void AddHardwareId(PCWSTR Id) = 0;
  virtual void AddCompatibleId(PCWSTR Id) = 0;

 protected:
  ~ChildIdentifierSink() {}
};

// Characters of the one identifier buffer, terminator included; the longest identifier
// (31-character family name and semantic string) fits.
const ULONG kChildIdentifierChars = 128;

// PASSIVE_LEVEL. Hands the device identifier (the first hardware identifier), the hardware
// identifiers and the compatible identifiers of one function to Sink; a numbered CDC kind
// takes the next number from Numbers.
void BuildChildIdentifiers(const ChildIdentifierSource* Source, CdcFunctionNumbers* Numbers,
                           ChildIdentifierSink* Sink);
