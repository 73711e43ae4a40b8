// The ASCII characters of callsigns, locators and lists of them, whatever the locale of the host.
#pragma once

constexpr char ascii_upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Space, tabs, line and page breaks.
constexpr bool is_ascii_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
