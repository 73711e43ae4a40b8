// Texts of Windows, for what is built for it alone.
#pragma once

#include <string>
#include <string_view>

// UTF-8 as UTF-16, with U+FFFD for what is not UTF-8. And back.
std::wstring wide_text(std::string_view utf8);
std::string utf8_text(std::wstring_view wide);

// The path that Windows' calls take for one in UTF-8: a long one is absolute and exempt from their limit.
std::wstring windows_path(std::string_view utf8);
