// The natively linked driver as an image: its variables can be put back to what they were at program start.
#pragma once

// Restores every DRIVER_GLOBAL to its initial value. Call only while no driver code runs and none of its objects
// is registered with the kernel.
void ResetDriverImage();
