/* usb200.h - wdmsim host edition. */
#include <usbspec.h>
