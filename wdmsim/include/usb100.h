/* usb100.h - wdmsim host edition. */
#include <usb200.h>
