// What programs that read WSJT-X's datagrams ask for.
#pragma once

#include <string>
#include <string_view>

// Whether a datagram asks the sender of this name to repeat what it has sent. Any bytes may come.
bool asks_for_replay(std::string_view bytes, std::string_view id);
