// Kernel debug output.
#pragma once
#include <stdarg.h>

#include "ntdef.h"

NT_BEGIN_C
ULONG DbgPrint(PCSTR Format, ...);
// The machine prints every component and level.
ULONG vDbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, va_list Arguments);
NT_END_C

#define KdPrint(_x_) DbgPrint _x_
