// Identifies the build to whoever inspects the image file or a memory dump; no code reads it.
extern "C" {
__attribute__((used)) const char gUsbmiVersionString[] = "KORVA-VERSION-KORVA ruvo_mi_x64.sys v4.42.3 debug";
}
