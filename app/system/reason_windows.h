// What Windows says about a failed call, for what is built for it alone.
#pragma once

#include <string>

// Of GetLastError() or WSAGetLastError(), in the user's language.
std::string windows_reason(unsigned long error);
