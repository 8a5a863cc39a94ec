// The nested diagnostic context: a per-thread stack of texts that log lines
// carry along.
#pragma once

#include <string>

// Returns the calling thread's current context: the pushed texts joined by
// ":", oldest first, or "" when nothing is pushed. Never fails. The reference
// stays valid until this thread pushes or pops again.
const std::string& logger_ndc_get();

// Pushes "text" on the calling thread's context.
void logger_ndc_push(const std::string& text);

// Pops the newest text of the calling thread's context; does nothing when the
// context is empty.
void logger_ndc_pop();
