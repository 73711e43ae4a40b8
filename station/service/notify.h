// What systemd is told, where it started us.
#pragma once

#include <string>

// "READY=1", "STOPPING=1" and the like, to the socket of $NOTIFY_SOCKET; nothing without one.
void notify_service(const std::string& state);

// Seconds within which "WATCHDOG=1" is expected; 0 where nobody watches.
double watchdog_seconds();
