/* usb100.h - wdmsim host edition. */
#include <usbspec.h>
