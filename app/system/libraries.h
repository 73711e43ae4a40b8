// Libraries that are used when they are there, by the names of their functions.
#pragma once

#include <initializer_list>

// The first of these that can be loaded, for good; null when none can.
void* load_library(std::initializer_list<const char*> names);

// A function of it, null when it has none of that name.
void* find_symbol(void* library, const char* name);

// A library that is in the process already, null when it is not; and what gives it back.
void* loaded_library(const char* name);
void release_library(void* library);
