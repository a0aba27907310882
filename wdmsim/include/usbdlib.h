/* usbdlib.h - wdmsim host edition: USBD library services and URB builders. */
#ifndef WDMSIM_USBDLIB_H
#define WDMSIM_USBDLIB_H
#include <wdm.h>
#include <usb.h>

typedef struct _USBD_INTERFACE_LIST_ENTRY {
  PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor;
  PUSBD_INTERFACE_INFORMATION Interface;
} USBD_INTERFACE_LIST_ENTRY, *PUSBD_INTERFACE_LIST_ENTRY;

#define URB_STATUS(urb) ((urb)->UrbHeader.Status)

#define GET_SELECT_CONFIGURATION_REQUEST_SIZE(totalInterfaces, totalPipes) \
  (sizeof(struct _URB_SELECT_CONFIGURATION) +                               \
   (((totalInterfaces) - 1) * sizeof(USBD_INTERFACE_INFORMATION)) +         \
   (((totalPipes) - (totalInterfaces)) * sizeof(USBD_PIPE_INFORMATION)))
#define GET_SELECT_INTERFACE_REQUEST_SIZE(totalPipes) \
  (sizeof(struct _URB_SELECT_INTERFACE) + (((totalPipes) - 1) * sizeof(USBD_PIPE_INFORMATION)))
#define GET_USBD_INTERFACE_SIZE(numEndpoints) \
  (sizeof(USBD_INTERFACE_INFORMATION) + (sizeof(USBD_PIPE_INFORMATION) * (numEndpoints)) - sizeof(USBD_PIPE_INFORMATION))

#define UsbBuildInterruptOrBulkTransferRequest(urb, length, pipeHandle, transferBuffer, transferBufferMDL,    \
                                               transferBufferLength, transferFlags, link)                     \
  {                                                                                                           \
    (urb)->UrbHeader.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;                                      \
    (urb)->UrbHeader.Length = (length);                                                                       \
    (urb)->UrbBulkOrInterruptTransfer.PipeHandle = (pipeHandle);                                              \
    (urb)->UrbBulkOrInterruptTransfer.TransferBufferLength = (transferBufferLength);                          \
    (urb)->UrbBulkOrInterruptTransfer.TransferBufferMDL = (transferBufferMDL);                                \
    (urb)->UrbBulkOrInterruptTransfer.TransferBuffer = (transferBuffer);                                      \
    (urb)->UrbBulkOrInterruptTransfer.TransferFlags = (transferFlags);                                        \
    (urb)->UrbBulkOrInterruptTransfer.UrbLink = (link);                                                       \
  }

#define UsbBuildGetDescriptorRequest(urb, length, descriptorType, descriptorIndex, languageId, transferBuffer, \
                                     transferBufferMDL, transferBufferLength, link)                           \
  {                                                                                                           \
    (urb)->UrbHeader.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;                                      \
    (urb)->UrbHeader.Length = (length);                                                                       \
    (urb)->UrbControlDescriptorRequest.TransferBufferLength = (transferBufferLength);                          \
    (urb)->UrbControlDescriptorRequest.TransferBufferMDL = (transferBufferMDL);                               \
    (urb)->UrbControlDescriptorRequest.TransferBuffer = (transferBuffer);                                     \
    (urb)->UrbControlDescriptorRequest.DescriptorType = (descriptorType);                                     \
    (urb)->UrbControlDescriptorRequest.Index = (descriptorIndex);                                             \
    (urb)->UrbControlDescriptorRequest.LanguageId = (languageId);                                             \
    (urb)->UrbControlDescriptorRequest.UrbLink = (link);                                                      \
  }

#define UsbBuildSelectConfigurationRequest(urb, length, configurationDescriptor) \
  {                                                                              \
    (urb)->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;               \
    (urb)->UrbHeader.Length = (length);                                          \
    (urb)->UrbSelectConfiguration.ConfigurationDescriptor = (configurationDescriptor); \
  }

#define UsbBuildSelectInterfaceRequest(urb, length, configurationHandle, interfaceNumber, alternateSetting) \
  {                                                                                                        \
    (urb)->UrbHeader.Function = URB_FUNCTION_SELECT_INTERFACE;                                             \
    (urb)->UrbHeader.Length = (length);                                                                    \
    (urb)->UrbSelectInterface.Interface.AlternateSetting = (alternateSetting);                             \
    (urb)->UrbSelectInterface.Interface.InterfaceNumber = (interfaceNumber);                               \
    (urb)->UrbSelectInterface.Interface.Length =                                                           \
        (USHORT)((length) - sizeof(struct _URB_HEADER) - sizeof(USBD_CONFIGURATION_HANDLE));               \
    (urb)->UrbSelectInterface.ConfigurationHandle = (configurationHandle);                                 \
  }

#define UsbBuildVendorRequest(urb, cmd, length, transferFlags, reservedbits, request, value, index, transferBuffer, \
                              transferBufferMDL, transferBufferLength, link)                                      \
  {                                                                                                               \
    (urb)->UrbHeader.Function = (cmd);                                                                            \
    (urb)->UrbHeader.Length = (length);                                                                           \
    (urb)->UrbControlVendorClassRequest.TransferBufferLength = (transferBufferLength);                            \
    (urb)->UrbControlVendorClassRequest.TransferBufferMDL = (transferBufferMDL);                                  \
    (urb)->UrbControlVendorClassRequest.TransferBuffer = (transferBuffer);                                        \
    (urb)->UrbControlVendorClassRequest.RequestTypeReservedBits = (reservedbits);                                 \
    (urb)->UrbControlVendorClassRequest.Request = (request);                                                      \
    (urb)->UrbControlVendorClassRequest.Value = (value);                                                          \
    (urb)->UrbControlVendorClassRequest.Index = (index);                                                          \
    (urb)->UrbControlVendorClassRequest.TransferFlags = (transferFlags);                                          \
    (urb)->UrbControlVendorClassRequest.UrbLink = (link);                                                         \
  }

WDMSIM_BEGIN_C
DECLSPEC_IMPORT void NTAPI USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation);
DECLSPEC_IMPORT PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition, LONG InterfaceNumber,
    LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass, LONG InterfaceProtocol);
DECLSPEC_IMPORT PUSB_COMMON_DESCRIPTOR NTAPI USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength,
                                                                  PVOID StartPosition, LONG DescriptorType);
/* Builds a select-configuration URB for the listed interfaces (pool memory, freed with ExFreePool)
 * and points each list entry's Interface at its USBD_INTERFACE_INFORMATION inside the URB. */
DECLSPEC_IMPORT PURB NTAPI USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                            PUSBD_INTERFACE_LIST_ENTRY InterfaceList);
WDMSIM_END_C

#endif
