// Waiting: for the user's Ctrl-C, and for the clock.
#pragma once

#include "system/interrupts.h"

// Seconds of a monotonic clock.
double monotonic_now();

// Sleep: whatever the user does, or at most until an interrupt.
void sleep_seconds(double seconds);
void nap(double seconds);
