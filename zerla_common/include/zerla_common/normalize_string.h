// The canonical text of a process name.
#pragma once

#include <string>

// Returns "text" without leading and trailing white space and with ASCII
// letters in lower case. A pure function; "lower_case" is accepted for the
// agent's interface and lower-casing always happens.
std::string zerla_normalize_string(const std::string& text, bool lower_case);
