// Waiting: for the user's Ctrl-C, and for the clock.
#pragma once

// Makes Ctrl-C (and termination, and the end of the terminal) raise a flag instead of ending the process; a second one
// ends it.
void watch_interrupts();
bool interrupted();

// Seconds of a monotonic clock.
double monotonic_now();

// Sleep: whatever the user does, or at most until an interrupt.
void sleep_seconds(double seconds);
void nap(double seconds);
