// What can be in flight: the requests of each major function, and what is none.
#pragma once

#include "kernel/kernel.h"

// What is in flight without being a request: calls of the class factory and of fast I/O, workers.
inline constexpr UCHAR IN_FLIGHT_CALL = IRP_MJ_MAXIMUM_FUNCTION + 1;
inline constexpr UCHAR IN_FLIGHT_WORKER = IRP_MJ_MAXIMUM_FUNCTION + 2;
inline constexpr UCHAR IN_FLIGHT_KINDS = IRP_MJ_MAXIMUM_FUNCTION + 3;

// "IRP_MJ_READ" and so on, for one of the above, too.
PCSTR NtFsdMajorFunctionName(UCHAR MajorFunction);
