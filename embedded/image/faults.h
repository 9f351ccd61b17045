// What becomes of a fault of the processor's that a driver's image is to blame for: a report that names its lines.
#pragma once

namespace embedded {

// From the handler of a signal, with what it was given: when the instruction is an image's, or one of a service that
// an image called, stops with the image's frames; returns otherwise. The stack is read with care, whatever the
// registers hold.
void ReportFaultInImage(int Signal, const void *Address, void *SignalContext);

} // namespace embedded
