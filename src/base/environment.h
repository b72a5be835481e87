// Reading the agent's configuration variables: presence switches a flag on, numbers are base 10.
#pragma once

bool isVariableSet(const char* name);

// The variable's base-10 value, or `fallback` when it is unset or parses to 0.
int numberOrDefault(const char* name, int fallback);
// A text's base-10 value as an int, out-of-range values saturated.
int intFromText(const char* text);
