// Marks what libdravinhold.so exports; everything else stays inside it.
#pragma once

#define DRAVINHOLD_EXPORT __attribute__((visibility("default")))
