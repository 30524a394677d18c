// Kernel debug output.
#pragma once
#include "ntdef.h"

NT_BEGIN_C
ULONG DbgPrint(PCSTR Format, ...);
NT_END_C

#define KdPrint(_x_) DbgPrint _x_
