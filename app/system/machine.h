// The machine that a program runs on.
#pragma once

// Bytes of its memory.
double memory_bytes();
