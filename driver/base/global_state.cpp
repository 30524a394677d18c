// The driver's global state: filtering off, the debug switch on, no drive
// hooked and no device made until start-up.
#include "base/global_state.h"

volatile UCHAR g_bFilteringEnabled = 0;
UCHAR g_bDebugPrintEnabled = 1;
ULONG g_ulHookedDriveMask = 0;
PDEVICE_OBJECT g_apFilterDevices[TERVANE_DRIVE_COUNT] = {};
PDEVICE_OBJECT g_pControlDevice = NULL;
