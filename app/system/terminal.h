// The standard streams as what they lead to.
#pragma once

#include <cstddef>

enum class Stream { OUTPUT, ERRORS };

// Whether it is a terminal, and how many columns that has: 0 when that is not known.
bool is_terminal(Stream stream);
std::size_t terminal_columns(Stream stream);

// Whether standard error goes to systemd's journal.
bool errors_go_to_journal();
