// Answers the USB bus drivers give to the PnP manager's queries, in pool memory that the
// PnP manager frees (tag kPnpAnswerTag).
#pragma once
#include <string>
#include <vector>

#include <wdm.h>

namespace wdmsim {
namespace usb {

// One NUL-terminated string into IoStatus.Information.
NTSTATUS AnswerString(PIRP irp, const std::u16string& text);
// A multi-string (each entry NUL-terminated, one more NUL at the end).
NTSTATUS AnswerMultiString(PIRP irp, const std::vector<std::u16string>& texts);
// DEVICE_RELATIONS: whatever the IRP already carries, then `objects`, each referenced for
// the PnP manager, which drops the references.
NTSTATUS AnswerRelations(PIRP irp, const std::vector<PDEVICE_OBJECT>& objects);
// A PDO's answer to a relations query: itself as the target relation; any other type keeps
// the status the IRP arrived with.
NTSTATUS AnswerPdoRelations(PIRP irp, PDEVICE_OBJECT pdo);

// Capabilities common to the bus's PDOs: checks the version and size the caller set, fills
// the power mapping of a USB device (D0 working, D2 in S1-S3, D3 in S4-S5).
NTSTATUS FillUsbCapabilities(PDEVICE_CAPABILITIES capabilities);

}  // namespace usb
}  // namespace wdmsim
