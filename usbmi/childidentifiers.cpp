#include "childidentifiers.h"

#include "kntrace.h"

// The kernel's own swprintf: 16-bit characters, "%s" takes a wide string. The DDK carries
// no prototype for it.
extern "C" int __cdecl swprintf(wchar_t* Buffer, const wchar_t* Format, ...);

namespace {

bool HasCodes(const ChildIdentifierSource* Source, UCHAR Class, UCHAR SubClass, UCHAR Protocol) {
  return Source->mClass == Class && Source->mSubClass == SubClass && Source->mProtocol == Protocol;
}

// The counter of a numbered CDC kind (control interface with protocol 0), or NULL.
ULONG* CdcNumberOf(const ChildIdentifierSource* Source, CdcFunctionNumbers* Numbers) {
  if (HasCodes(Source, 0x02, 0x02, 0x00)) {
    return &Numbers->mAcm;
  }
  if (HasCodes(Source, 0x02, 0x06, 0x00)) {
    return &Numbers->mEcm;
  }
  if (HasCodes(Source, 0x02, 0x0D, 0x00)) {
    return &Numbers->mNcm;
  }
  return NULL;
}

void BuildFamilyHardwareIds(const ChildIdentifierSource* Source, CdcFunctionNumbers* Numbers,
                            ChildIdentifierSink* Sink, WCHAR* Id) {
  PCWSTR family = Source->mFamilyName;
  swprintf(Id, L"USB\\%s&VID_%04X&PID_%04X&CF_%02X&MI_%02X", family, Source->mVendorId, Source->mProductId,
           Source->mConfigurationValue, Source->mInterfaceNumber);
  Sink->SetDeviceId(Id);
  Sink->AddHardwareId(Id);

  if (Source->mSemanticString != NULL) {
    swprintf(Id, L"USB\\%s&%02X_%02X_%02X&%s", family, Source->mClass, Source->mSubClass, Source->mProtocol,
             Source->mSemanticString);
    KN_TRACE(0x4, "%P:Device::CreateChildren: append semantic string %S\n", Id);
    Sink->AddHardwareId(Id);
  }

  ULONG* number = CdcNumberOf(Source, Numbers);
  if (number != NULL) {
    swprintf(Id, L"USB\\%s&%02X_%02X_%02X&%d", family, Source->mClass, Source->mSubClass, Source->mProtocol,
             *number);
    ++*number;
    Sink->AddHardwareId(Id);
  }

  swprintf(Id, L"USB\\%s&%02X_%02X_%02X", family, Source->mClass, Source->mSubClass, Source->mProtocol);
  Sink->AddHardwareId(Id);
  swprintf(Id, L"USB\\%s&%02X_%02X", family, Source->mClass, Source->mSubClass);
  Sink->AddHardwareId(Id);
  swprintf(Id, L"USB\\%s&%02X", family, Source->mClass);
  Sink->AddHardwareId(Id);
}

void BuildVendorProductHardwareId(const ChildIdentifierSource* Source, ChildIdentifierSink* Sink, WCHAR* Id) {
  if (Source->mConfigInPnpId) {
    swprintf(Id, L"USB\\VID_%04X&PID_%04X&CF_%02X&MI_%02X", Source->mVendorId, Source->mProductId,
             Source->mConfigurationValue, Source->mInterfaceNumber);
  } else {
    swprintf(Id, L"USB\\VID_%04X&PID_%04X&MI_%02X", Source->mVendorId, Source->mProductId,
             Source->mInterfaceNumber);
  }
  Sink->SetDeviceId(Id);
  Sink->AddHardwareId(Id);
}

// Matched by the system's own class drivers: MTP and RNDIS first, then the class codes
// from the most to the least specific.
void BuildCompatibleIds(const ChildIdentifierSource* Source, ChildIdentifierSink* Sink, WCHAR* Id) {
  if (HasCodes(Source, 0xFF, 0xFF, 0x00)) {
    Sink->AddCompatibleId(L"USB\\MS_COMP_MTP");
  }
  if (HasCodes(Source, 0x02, 0x02, 0xFF)) {
    Sink->AddCompatibleId(L"USB\\MS_COMP_RNDIS&MS_SUBCOMP_5162001");
    Sink->AddCompatibleId(L"USB\\MS_COMP_RNDIS");
  }
  swprintf(Id, L"USB\\CLASS_%02X&SUBCLASS_%02X&PROT_%02X", Source->mClass, Source->mSubClass, Source->mProtocol);
  Sink->AddCompatibleId(Id);
  swprintf(Id, L"USB\\CLASS_%02X&SUBCLASS_%02X", Source->mClass, Source->mSubClass);
  Sink->AddCompatibleId(Id);
  swprintf(Id, L"USB\\CLASS_%02X", Source->mClass);
  Sink->AddCompatibleId(Id);
}

}  // namespace

void BuildChildIdentifiers(const ChildIdentifierSource* Source, CdcFunctionNumbers* Numbers,
                           ChildIdentifierSink* Sink) {
  WCHAR id[kChildIdentifierChars];
  if (Source->mFamilyName[0] != L'\0') {
    BuildFamilyHardwareIds(Source, Numbers, Sink, id);
  } else {
    BuildVendorProductHardwareId(Source, Sink, id);
  }
  BuildCompatibleIds(Source, Sink, id);
}
